// A program of this project as a user runs it.
#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <string>

namespace talvo::test {

struct Outcome {
  int status;
  std::string text;  // both streams
};

inline Outcome RunProgram(std::string const& command) {
  std::FILE* const pipe = popen((command + " 2>&1").c_str(), "r");
  Outcome outcome{-1, ""};
  for (int c = std::fgetc(pipe); c != EOF; c = std::fgetc(pipe)) outcome.text += static_cast<char>(c);
  outcome.status = WEXITSTATUS(pclose(pipe));
  return outcome;
}

}  // namespace talvo::test
