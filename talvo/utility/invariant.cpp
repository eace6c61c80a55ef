#include "talvo/utility/invariant.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace talvo::utility {

void InvariantFailed(char const* expression, char const* function, char const* file, int line) {
  std::string stem(file);
  stem.erase(0, stem.find_last_of('/') + 1);  // npos + 1 is 0
  stem.erase(stem.find_last_of('.') == std::string::npos ? stem.size() : stem.find_last_of('.'));
  std::fprintf(stderr, "Assertion failed: (%s), function %s, file %s, line %d.\n", expression, function, stem.c_str(),
               line);
  std::abort();
}

}  // namespace talvo::utility
