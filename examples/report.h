// How the examples end: a failure is one line on standard error, told once.
#pragma once

#include <algorithm>
#include <cstdio>
#include <exception>
#include <new>
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

/// The words of an exception: those of the library without their tag and line break.
inline std::string TextOf(std::exception const& error) {
  if (dynamic_cast<std::bad_alloc const*>(&error) != nullptr) return "there is not enough memory";
  std::string text = error.what();
  auto const tag = text.find("]: ");
  if (text[0] == '[' && tag != std::string::npos) text.erase(0, tag + 3);
  text.erase(text.find_last_not_of("\n ") + 1);
  return text.empty() ? "the text is no JSON object, or a kernel refuses its layer's record" : text;
}

/// Prints "PROGRAM: TEXT" in one line and returns the exit status 1.
inline int Fail(char const* program, std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  std::fprintf(stderr, "%s: %s\n", program, text.c_str());
  return 1;
}
inline int Fail(char const* program, std::exception const& error) { return Fail(program, TextOf(error)); }

/// The exit status 0, or that of a failure when what was printed did not arrive.
inline int Finish(char const* program) {
  bool const written = std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
  return written ? 0 : Fail(program, "standard output cannot be written");
}

}  // namespace examples
