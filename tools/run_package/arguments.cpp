#include "tools/run_package/arguments.h"

#include <algorithm>
#include <cstdlib>

#include "tools/common/program.h"
#include "tools/run_package/layouts.h"

namespace run_package {
namespace {

using tools::UsageError;

constexpr unsigned long kMaximumRepeat = 1000000, kMaximumExtent = 0xFFFFFFFF;

InputFile ParseInput(std::string const& word) {
  auto const equals = std::min(word.find('='), word.size());
  InputFile input{word.substr(0, equals), "", word.substr(std::min(equals + 1, word.size()))};
  auto const colon = input.path.find(':');
  if (colon != std::string::npos && LayoutNumber(input.path.substr(0, colon)).has_value()) {
    input.layout = input.path.substr(0, colon);
    input.path.erase(0, colon + 1);
  }
  if (input.layer.empty() || input.path.empty())
    throw UsageError("--input takes LAYER=FILE.npy or LAYER=LAYOUT:FILE.npy, not \"" + word + "\"");
  return input;
}

unsigned int ParseRepeat(std::string const& word) {
  char* end = nullptr;
  unsigned long const number = std::strtoul(word.c_str(), &end, 10);
  if (word.empty() || word[0] < '0' || word[0] > '9' || *end != '\0' || number == 0 || number > kMaximumRepeat) {
    throw UsageError("--repeat takes a whole number from 1 to 1000000, not \"" + word + "\"");
  }
  return static_cast<unsigned int>(number);
}

// LAYER=1x28x28
void ParseShape(std::string const& word, Arguments& arguments) {
  auto const equals = word.find('=');
  std::vector<unsigned int> dims;
  char const* at = equals == std::string::npos ? "" : word.c_str() + equals + 1;
  for (char* end = nullptr;; at = end + 1) {
    unsigned long const extent = *at >= '0' && *at <= '9' ? std::strtoul(at, &end, 10) : 0;
    if (extent == 0 || extent > kMaximumExtent || (*end != 'x' && *end != '\0')) {
      throw UsageError("--shape takes LAYER=1x28x28, not \"" + word + "\"");
    }
    dims.push_back(static_cast<unsigned int>(extent));
    if (*end == '\0') break;
  }
  arguments.shapes[word.substr(0, equals)] = dims;
}

bool ParsePreference(std::string const& word) {
  if (word != "fused") throw UsageError("--prefer takes fused, not \"" + word + "\"");
  return true;
}

}  // namespace

char const* const kUsage =
    "usage: run_package PACKAGE [--model ID] [--backend WORD] [--input LAYER=[LAYOUT:]FILE.npy]... [--output "
    "LAYER]...\n"
    "                   [--next [--input ...]...]... [--output-dir DIR] [--repeat N] [--profile] [--list]\n"
    "                   [--prefer fused]\n"
    "       run_package PACKAGE --check | --memory [--input LAYER=FILE.npy | --shape LAYER=1x28x28]...\n"
    "back ends: x86, arm, metal; layouts: CHW, HWC, C4HW4, C8HW8, NCHW, NHWC, C, SC, CL, FLEXIABLE";

Arguments ParseArguments(int count, char const* const* words) {
  using Word = std::string const&;
  Arguments arguments;
  tools::CommandLine line;
  line.values = {
      {"--model", [&](Word word) { arguments.model = word; }},
      {"--backend", [&](Word word) { arguments.backend = word; }},
      {"--input", [&](Word word) { arguments.runs.back().push_back(ParseInput(word)); }},
      {"--output", [&](Word word) { arguments.outputs.push_back(word); }},
      {"--output-dir", [&](Word word) { arguments.output_dir = word; }},
      {"--repeat", [&](Word word) { arguments.repeat = ParseRepeat(word); }},
      {"--shape", [&](Word word) { ParseShape(word, arguments); }},
      {"--prefer", [&](Word word) { arguments.prefer_fused = ParsePreference(word); }},
  };
  line.flags = {
      {"--next", [&] { arguments.runs.emplace_back(); }}, {"--profile", [&] { arguments.profile = true; }},
      {"--check", [&] { arguments.check = true; }},       {"--memory", [&] { arguments.memory = true; }},
      {"--list", [&] { arguments.list = true; }},
  };
  line.other = [&](Word word) {
    if (!arguments.package.empty())
      throw UsageError("one package at a time: \"" + arguments.package + "\" and \"" + word + "\" were given");
    arguments.package = word;
  };
  line.Read(count, words);
  if (arguments.package.empty()) throw UsageError("no package was given");
  bool const looks = arguments.check || arguments.memory;
  if (arguments.check && arguments.memory) throw UsageError("--check or --memory, not both");
  if (looks && (arguments.runs.size() > 1 || !arguments.outputs.empty() || arguments.list || arguments.profile))
    throw UsageError("--check and --memory take inputs and shapes alone");
  if (!looks && !arguments.shapes.empty()) throw UsageError("--shape goes with --check or --memory");
  return arguments;
}

}  // namespace run_package
