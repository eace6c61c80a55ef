// How the programs of this folder start and end.
#pragma once

#include <exception>
#include <functional>
#include <iosfwd>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace tools {

/// A command line that cannot be understood; the text says why.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Several faults, which become a line each.
class Faults : public std::runtime_error {
 public:
  explicit Faults(std::vector<std::string> const& texts) : std::runtime_error(texts.at(0)), lines(texts) {}

  std::vector<std::string> lines;
};

/// The command line asks for --help or --version and for nothing else.
struct AskedFor {
  bool version;
};

/// What a program does with its words: with an option that takes the next word, with that word; with an option that
/// stands alone; with every other word.
struct CommandLine {
  using Values = std::map<std::string, std::function<void(std::string const& word)>>;
  Values values;
  std::map<std::string, std::function<void()>> flags;
  std::function<void(std::string const& word)> other;

  /// Goes through words [1, count). Throws AskedFor at --help or --version. UsageError: an option that is not known, or
  /// stands last or before an empty word where it takes one; what the functions throw passes.
  void Read(int count, char const* const* words) const;
};

/// The place of a word among those that the option takes. UsageError: it is none of them.
std::size_t Choice(std::string const& option, std::string const& word, std::vector<std::string> const& words);

/// NAME and VALUE of NAME=VALUE, at the last sign. UsageError: one is missing.
std::pair<std::string, std::string> Assignment(std::string const& option, std::string const& word);

/// How a program is called: the lines that follow a call that cannot be understood, and what --help says below them.
struct Usage {
  char const* synopsis;
  char const* options;
};

/// Runs `program` and returns its exit status. AskedFor prints the usage, or name and version, and gives 0. Whatever
/// else it throws becomes one line on standard error and status 1; a UsageError is followed by the synopsis and
/// gives 2.
int RunProgram(char const* name, Usage const& usage, std::function<void()> const& program);

/// Writes out what is printed. Throws std::runtime_error where it does not arrive.
void Flush(std::ostream& out);

/// The text of an exception of the library, without tag and newline; `silent` where there is none.
std::string Message(std::exception const& refusal, std::string const& silent = "");

}  // namespace tools
