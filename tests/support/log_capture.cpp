#include "tests/support/log_capture.h"

#include <cstdio>
#include <stdexcept>

#include "talvo/utility/log.h"

namespace talvo::test {
namespace {

std::vector<std::string> captured_lines;

int Capture(char const* line) {
  captured_lines.emplace_back(line);
  return 0;
}

int Print(char const* line) { return std::puts(line); }

}  // namespace

LogCapture::LogCapture() {
  captured_lines.clear();
  utility::SetLogCallback(Capture);
}

LogCapture::~LogCapture() { utility::SetLogCallback(Print); }

std::vector<std::string> const& LogCapture::Lines() const { return captured_lines; }

std::string RefusalOf(std::function<void()> const& action) {
  LogCapture const quiet;
  try {
    action();
  } catch (std::runtime_error const& refusal) {
    return refusal.what();
  }
  ADD_FAILURE() << "nothing was refused";
  return "";
}

}  // namespace talvo::test
