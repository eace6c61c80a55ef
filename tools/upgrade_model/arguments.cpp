#include "tools/upgrade_model/arguments.h"

#include <algorithm>
#include <cctype>
#include <filesystem>

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

tools::Usage const kUsage = {
    "usage: upgrade_model IN OUT.tlnmodel (--config CFG.json | --default-config)\n"
    "                     [--sdk-type WORD] [--sdk-version MAJOR.MINOR] [--model-id ID]\n"
    "       upgrade_model --help | --version",
    "  --config CFG.json      the kernel of each layer\n"
    "  --default-config       the portable kernel of each layer\n"
    "  --sdk-type WORD        the kind of application that the package is for, x86 if not given\n"
    "  --sdk-version M.N      its version, 1.0 if not given\n"
    "  --model-id ID          of the model in the package, the name of the file IN if not given"};

Arguments ParseArguments(int count, char const* const* words) {
  using Word = std::string const&;
  Arguments arguments;
  bool default_config = false;
  tools::CommandLine line;
  line.values = {
      {"--config", [&](Word word) { arguments.config = word; }},
      {"--sdk-type", [&](Word word) { arguments.sdk_type = word; }},
      {"--sdk-version", [&](Word word) { ParseVersion(word, arguments); }},
      {"--model-id", [&](Word word) { arguments.model_id = word; }},
  };
  line.flags = {{"--default-config", [&] { default_config = true; }}};
  line.other = [&](Word word) {
    if (!arguments.out.empty()) throw UsageError("one file at a time: there is no use for \"" + word + "\"");
    (arguments.in.empty() ? arguments.in : arguments.out) = word;
  };
  line.Read(count, words);
  if (default_config != arguments.config.empty())
    throw UsageError("exactly one of --config and --default-config is needed");
  CheckPaths(arguments);
  return arguments;
}

}  // namespace upgrade_model
