// Catches what the library reports while an object of this class lives.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace talvo::test {

/// One at a time. When it goes, lines go to standard output again.
class LogCapture {
 public:
  LogCapture();
  LogCapture(LogCapture const&) = delete;
  LogCapture& operator=(LogCapture const&) = delete;
  ~LogCapture();

  std::vector<std::string> const& Lines() const;
};

/// The text of the std::runtime_error that `action` throws; fails the test when it throws none.
std::string RefusalOf(std::function<void()> const& action);

}  // namespace talvo::test
