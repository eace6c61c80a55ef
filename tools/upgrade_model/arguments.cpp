#include "tools/upgrade_model/arguments.h"

#include <algorithm>
#include <cctype>
#include <filesystem>

#include "tools/common/program.h"

namespace upgrade_model {
namespace {

using tools::UsageError;

constexpr unsigned long kMaximumVersion = 65535;

unsigned short ParseNumber(std::string const& digits, std::string const& word) {
  bool valid = !digits.empty() && digits.size() <= 5;
  for (char const c : digits) valid = valid && std::isdigit(static_cast<unsigned char>(c)) != 0;
  unsigned long const number = valid ? std::stoul(digits) : kMaximumVersion + 1;
  if (number > kMaximumVersion) throw UsageError("--sdk-version takes MAJOR.MINOR, not \"" + word + "\"");
  return static_cast<unsigned short>(number);
}

void ParseVersion(std::string const& word, Arguments& arguments) {
  auto const point = std::min(word.find('.'), word.size());
  arguments.sdk_major = ParseNumber(word.substr(0, point), word);
  arguments.sdk_minor = ParseNumber(point < word.size() ? word.substr(point + 1) : "", word);
}

void CheckPaths(Arguments& arguments) {
  if (arguments.out.empty()) throw UsageError("a first-generation file and the package to write are needed");
  if (std::filesystem::path(arguments.out).extension() != ".tlnmodel")
    throw UsageError("the package to write, \"" + arguments.out + "\", has no name that ends in .tlnmodel");
  if (arguments.model_id.empty()) arguments.model_id = std::filesystem::path(arguments.in).stem().string();
}

}  // namespace

char const* const kUsage =
    "usage: upgrade_model IN OUT.tlnmodel (--config CFG.json | --default-config)\n"
    "                     [--sdk-type WORD] [--sdk-version MAJOR.MINOR] [--model-id ID]";

Arguments ParseArguments(int count, char const* const* words) {
  Arguments arguments;
  bool default_config = false;
  int at = 1;
  auto const value = [&](std::string const& option) -> std::string {
    if (at + 1 >= count || *words[at + 1] == '\0') throw UsageError(option + " takes a value");
    return words[++at];
  };
  for (; at < count; ++at) {
    std::string const word = words[at];
    if (word == "--config") {
      arguments.config = value(word);
    } else if (word == "--default-config") {
      default_config = true;
    } else if (word == "--sdk-type") {
      arguments.sdk_type = value(word);
    } else if (word == "--sdk-version") {
      ParseVersion(value(word), arguments);
    } else if (word == "--model-id") {
      arguments.model_id = value(word);
    } else if (word.compare(0, 2, "--") == 0) {
      throw UsageError("there is no option " + word);
    } else if (arguments.in.empty()) {
      arguments.in = word;
    } else if (arguments.out.empty()) {
      arguments.out = word;
    } else {
      throw UsageError("one file at a time: there is no use for \"" + word + "\"");
    }
  }
  if (default_config != arguments.config.empty())
    throw UsageError("exactly one of --config and --default-config is needed");
  CheckPaths(arguments);
  return arguments;
}

}  // namespace upgrade_model
