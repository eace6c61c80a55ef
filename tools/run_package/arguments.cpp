#include "tools/run_package/arguments.h"

#include <algorithm>
#include <cstdlib>

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

tools::Usage const kUsage = {
    "usage: run_package PACKAGE [--model ID] [--backend WORD] [--prefer fused] [--input LAYER=[LAYOUT:]FILE.npy]...\n"
    "                   [--output LAYER]... [--next [--input ...]...]... [--output-dir DIR] [--repeat N]\n"
    "                   [--profile] [--trace FILE] [--html FILE] [--manifest FILE] [--verify FILE] [--values] "
    "[--json]\n"
    "       run_package PACKAGE --list [--json]\n"
    "       run_package PACKAGE --check | --memory [--input LAYER=FILE.npy | --shape LAYER=1x28x28]... [--json]\n"
    "       run_package --help | --version",
    "Runs a model of a package (.tlnmodel or .json) on arrays.\n\n"
    "  --model ID             the model, where the package holds several\n"
    "  --backend WORD         x86 (the default), arm or metal\n"
    "  --prefer fused         fused kernels in place of portable ones, where there are some\n"
    "  --input LAYER=FILE.npy an array of float16, float32, float64 or uint8 for an input; its rank picks the layout\n"
    "                         (1 C, 2 SC, 3 CHW, otherwise FLEXIABLE), or LAYER=LAYOUT:FILE.npy names it: CHW, HWC,\n"
    "                         C4HW4, C8HW8, NCHW, NHWC, C, SC, CL, FLEXIABLE\n"
    "  --output LAYER         a layer whose tensors are wanted in place of the model's outputs\n"
    "  --next                 begins the inputs of another run, which goes on with the state of recurrent layers\n"
    "  --output-dir DIR       writes each output as DIR/LAYER.npy\n"
    "  --repeat N             runs N times and tells first, minimum, median and 95th percentile\n"
    "  --profile              the time of each layer\n"
    "  --trace FILE           the layers of every repeat and the bytes of their tensors as Chrome trace events\n"
    "  --html FILE            a page for a browser: graph, times, memory, histograms\n"
    "  --manifest FILE        writes digests of what each layer gave\n"
    "  --verify FILE          compares with such a file and names the first layer that differs\n"
    "  --values               the two with the elements: of the layer that differs the first one that does is told\n"
    "  --json                 everything that is printed, as JSON\n"
    "  --list                 what the package holds\n"
    "  --check                looks for slips, and tries the model where the extents of its inputs are given\n"
    "  --memory               what the tensors of a run take, layer by layer\n"
    "  --shape LAYER=1x28x28  the extents of an input without a file"};

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
      {"--html", [&](Word word) { arguments.page = word; }},
      {"--trace", [&](Word word) { arguments.trace = word; }},
      {"--manifest", [&](Word word) { arguments.manifest = word; }},
      {"--verify", [&](Word word) { arguments.verify = word; }},
      {"--prefer", [&](Word word) { arguments.prefer_fused = ParsePreference(word); }},
  };
  line.flags = {
      {"--next", [&] { arguments.runs.emplace_back(); }}, {"--profile", [&] { arguments.profile = true; }},
      {"--check", [&] { arguments.check = true; }},       {"--memory", [&] { arguments.memory = true; }},
      {"--list", [&] { arguments.list = true; }},         {"--json", [&] { arguments.json = true; }},
      {"--values", [&] { arguments.values = true; }},
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
  bool const of_runs = arguments.runs.size() > 1 || arguments.repeat > 1 || arguments.profile;
  bool const written = !arguments.outputs.empty() || !arguments.output_dir.empty() || !arguments.trace.empty() ||
                       !arguments.page.empty() || !arguments.manifest.empty() || !arguments.verify.empty();
  if (looks && (of_runs || written || arguments.list))
    throw UsageError("--check and --memory take inputs and shapes alone");
  if (arguments.list && (of_runs || written || !arguments.runs[0].empty() || !arguments.model.empty()))
    throw UsageError("--list takes the whole package, and no inputs");
  if (!looks && !arguments.shapes.empty()) throw UsageError("--shape goes with --check or --memory");
  if (arguments.values && arguments.manifest.empty() && arguments.verify.empty())
    throw UsageError("--values goes with --manifest or --verify");
  return arguments;
}

}  // namespace run_package
