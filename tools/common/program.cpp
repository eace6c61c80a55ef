#include "tools/common/program.h"

#include <algorithm>
#include <cstdio>
#include <new>
#include <ostream>

#include "talvo/entry/load_model.h"

namespace tools {
namespace {

constexpr char kNoMemory[] = "there is not enough memory";
constexpr char kNoOutput[] = "standard output cannot be written";

// One line, though ids and paths may hold line breaks and other control characters. It takes no memory, which may be
// what ran out.
void ReportError(char const* name, char const* text) {
  std::fprintf(stderr, "%s: ", name);
  for (; *text != '\0'; ++text) {
    auto const character = static_cast<unsigned char>(*text);
    std::fputc(character < ' ' || character == 0x7F ? ' ' : character, stderr);
  }
  std::fputc('\n', stderr);
}

int Answer(char const* name, Usage const& usage, AskedFor const& asked) {
  unsigned int major = 0, minor = 0;
  TLN_Get_Core_Version(major, minor);
  asked.version ? std::printf("%s (talvo) %u.%u\n", name, major, minor)
                : std::printf("%s\n\n%s\n", usage.synopsis, usage.options);
  if (std::fflush(stdout) == 0) return 0;
  ReportError(name, kNoOutput);
  return 1;
}

}  // namespace

void CommandLine::Read(int count, char const* const* words) const {
  for (int at = 1; at < count; ++at) {
    std::string const word = words[at];
    if (word == "--help" || word == "--version") throw AskedFor{word == "--version"};
    if (auto const flag = flags.find(word); flag != flags.end()) {
      flag->second();
    } else if (auto const option = values.find(word); option != values.end()) {
      if (at + 1 >= count || *words[at + 1] == '\0') throw UsageError(word + " takes a value");
      option->second(words[++at]);
    } else if (word.size() > 1 && word[0] == '-') {
      throw UsageError("there is no option " + word);
    } else {
      other(word);
    }
  }
}

std::size_t Choice(std::string const& option, std::string const& word, std::vector<std::string> const& words) {
  auto const found = std::find(words.begin(), words.end(), word);
  if (found != words.end()) return static_cast<std::size_t>(found - words.begin());
  std::string list;
  for (std::string const& one : words) list += (list.empty() ? "" : " or ") + one;
  throw UsageError(option + " takes " + list + ", not \"" + word + "\"");
}

std::pair<std::string, std::string> Assignment(std::string const& option, std::string const& word) {
  auto const equals = word.rfind('=');
  if (equals == std::string::npos || equals == 0 || equals + 1 == word.size())
    throw UsageError(option + " takes NAME=VALUE, not \"" + word + "\"");
  return {word.substr(0, equals), word.substr(equals + 1)};
}

int RunProgram(char const* name, Usage const& usage, std::function<void()> const& program) {
  try {
    program();
    return 0;
  } catch (AskedFor const& asked) {
    return Answer(name, usage, asked);
  } catch (UsageError const& error) {
    ReportError(name, error.what());
    std::fprintf(stderr, "%s\n", usage.synopsis);
    return 2;
  } catch (Faults const& faults) {
    for (std::string const& line : faults.lines) ReportError(name, line.c_str());
  } catch (std::bad_alloc const&) {
    ReportError(name, kNoMemory);
  } catch (std::exception const& error) {
    ReportError(name, error.what());
  } catch (...) {
    ReportError(name, "ended by something that is no std::exception");
  }
  return 1;
}

void Flush(std::ostream& out) {
  if (!out.flush()) throw std::runtime_error(kNoOutput);
}

std::string Message(std::exception const& refusal, std::string const& silent) {
  if (dynamic_cast<std::bad_alloc const*>(&refusal) != nullptr) return kNoMemory;
  std::string text = refusal.what();
  text.erase(text.find_last_not_of('\n') + 1);
  auto const tag = text.find("]: ");
  if (text[0] == '[' && tag != std::string::npos) text.erase(0, tag + 3);
  return text.empty() ? silent : text;
}

}  // namespace tools
