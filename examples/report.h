// How the examples end: a failure is one line on standard error, told once.
#pragma once

#include <algorithm>
#include <cstdio>
#include <string>

#include "talvo/utility/log.h"

namespace examples {

inline std::string log_text;  // the lines that the library has reported

/// Keeps the library's log, which goes to standard output unless told otherwise.
inline void KeepLog() {
  talvo::utility::SetLogCallback([](char const* line) {
    log_text += line;
    return 0;
  });
}

/// Prints "PROGRAM: TEXT" and returns the exit status 1. The library's lines end in a line break; the few refusals
/// without words end behind the tag.
inline int Fail(char const* program, std::string text) {
  text.erase(text.find_last_not_of("\n ") + 1);
  std::replace(text.begin(), text.end(), '\n', ' ');
  bool const wordless = text.size() >= 2 && text.compare(text.size() - 2, 2, "]:") == 0;
  std::fprintf(stderr, "%s: %s%s\n", program, text.c_str(),
               wordless ? " the text is no JSON object, or a kernel refuses its layer's record" : "");
  return 1;
}

/// The exit status 0, or that of a failure when what was printed did not arrive.
inline int Finish(char const* program) {
  bool const written = std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
  return written ? 0 : Fail(program, "standard output cannot be written");
}

}  // namespace examples
