// How the programs of this folder start and end.
#pragma once

#include <exception>
#include <functional>
#include <stdexcept>
#include <string>

namespace tools {

/// A command line that cannot be understood; the text says why.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Runs `program` and returns its exit status. Whatever it throws becomes one line on standard error and status 1; a
/// UsageError is followed by `usage` and gives 2.
int RunProgram(char const* name, char const* usage, std::function<void()> const& program);

/// The text of an exception of the library, without tag and newline; `silent` where there is none.
std::string Message(std::exception const& refusal, std::string const& silent = "");

}  // namespace tools
