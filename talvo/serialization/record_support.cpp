#include "talvo/serialization/record_support.h"

#include <cxxabi.h>

#include <cstdlib>

#include "talvo/utility/log.h"

namespace talvo::runtime::support {

std::string BareName(std::string const& name) {
  return name.substr(name.rfind(':') + 1);  // npos + 1 is 0
}

std::string Demangled(char const* type_name) {
  int status = 0;
  std::unique_ptr<char, decltype(&std::free)> const text(abi::__cxa_demangle(type_name, nullptr, nullptr, &status),
                                                         &std::free);
  return text != nullptr ? text.get() : type_name;
}

void AssertFewRepeats(std::vector<std::string> const& ids, unsigned int most) {
  if (ids.size() <= most) return;
  std::unordered_map<std::string, unsigned int> repeats;
  for (std::string const& id : ids) {
    unsigned int const count = ++repeats[id];
    utility::Assert(count <= most, "list of %zu ids: \"%s\" stands more than %u times", ids.size(), id.c_str(), most);
  }
}

}  // namespace talvo::runtime::support
