#include "tools/convert_onnx/arguments.h"

#include <cmath>
#include <cstdlib>
#include <sstream>

namespace convert_onnx {
namespace {

using tools::UsageError;

Shape ParseShape(std::string const& text) {
  Shape shape;
  char const* at = text.c_str();
  for (char* end = nullptr;; at = end + 1) {
    long long const extent = std::strtoll(at, &end, 10);
    if (end == at || extent < 1 || extent > 0xFFFFFFFFll || (*end != 'x' && *end != '\0'))
      throw UsageError("--shape takes NAME=1x3x224x224, not \"" + text + "\"");
    shape.push_back(extent);
    if (*end == '\0') return shape;
  }
}

double ParseBound(std::string const& option, std::string const& text) {
  char* end = nullptr;
  double const bound = std::strtod(text.c_str(), &end);
  if (end == text.c_str() || *end != '\0' || !(bound >= 0) || !std::isfinite(bound))
    throw UsageError(option + " takes a number from 0 on, not \"" + text + "\"");
  return bound;
}

tools::CommandLine::Values Values(Arguments& arguments) {
  using Word = std::string const&;
  Options& options = arguments.options;
  return {
      {"--shape",
       [&](Word word) {
         auto const [name, shape] = tools::Assignment("--shape", word);
         options.shapes[name] = ParseShape(shape);
       }},
      {"--bind",
       [&](Word word) {
         auto const [name, file] = tools::Assignment("--bind", word);
         options.bound[name] = ReadArray(file);
       }},
      {"--outputs",
       [&](Word word) {
         std::istringstream list(word);
         for (std::string name; std::getline(list, name, ',');) options.outputs.push_back(name);
       }},
      {"--kernels", [&](Word word) { options.kernels = tools::ParseKernels("--kernels", word); }},
      {"--half",
       [&](Word word) {
         arguments.nearest = tools::Choice("--half", word, {"cut", "nearest"}) == 1;
       }},
      {"--check", [&](Word word) { arguments.check.push_back(word); }},
      {"--rel", [&](Word word) { arguments.bounds.relative = ParseBound("--rel", word); }},
      {"--abs", [&](Word word) { arguments.bounds.absolute = ParseBound("--abs", word); }},
      {"--report", [&](Word word) { arguments.report = word; }},
  };
}

}  // namespace

tools::Usage const kUsage = {
    "usage: convert_onnx MODEL.onnx OUT.tlnmodel|OUT.json [--shape NAME=1x3x224x224]... [--bind "
    "NAME=FILE.npy|FILE.pb]...\n"
    "                    [--outputs NAME,...] [--kernels portable|blas|fused] [--half nearest|cut] [--approximate] "
    "[--narrow]\n"
    "                    [--check DIR]... [--rel BOUND] [--abs BOUND] [--report FILE.json]\n"
    "       convert_onnx MODEL.onnx --dry-run [...]\n"
    "       convert_onnx --ops | --help | --version",
    "  --shape NAME=EXTENTS  the extents of an input of the graph, 1x3x224x224\n"
    "  --bind NAME=FILE      an input that is constant, with the array of a .npy or .pb file\n"
    "  --outputs NAME,...    values of the graph in place of its outputs\n"
    "  --kernels FAMILY      portable (the default), blas or fused\n"
    "  --half nearest|cut    how weights become 16-bit floats in a .tlnmodel file\n"
    "  --approximate         takes compositions that hold in a range or to a bound, which is printed\n"
    "  --narrow              takes double and half data as float\n"
    "  --check DIR           runs the package on DIR/input_0.npy, ... (or .pb), the graph's inputs in order, and "
    "compares\n"
    "                        with DIR/output_0.npy, ...; what is further off than --abs (1e-5) + --rel (1e-3) times "
    "the\n"
    "                        largest recorded value is not written, and the first layer that is off from a value of "
    "the\n"
    "                        graph recorded as DIR/NAME.npy is named\n"
    "  --rel BOUND           of --check\n"
    "  --abs BOUND           of --check\n"
    "  --report FILE.json    what was made of each node, for other programs\n"
    "  --dry-run             converts and writes no package\n"
    "  --ops                 prints the operators that can be converted"};

Arguments ParseArguments(int count, char const* const* words) {
  Arguments arguments;
  std::vector<std::string> files;
  tools::CommandLine line;
  line.values = Values(arguments);
  line.flags = {{"--approximate", [&] { arguments.options.approximate = true; }},
                {"--narrow", [&] { arguments.options.narrow = true; }},
                {"--dry-run", [&] { arguments.dry_run = true; }},
                {"--ops", [&] { arguments.list_operators = true; }}};
  line.other = [&](std::string const& word) { files.push_back(word); };
  line.Read(count, words);
  if (arguments.list_operators) return arguments;
  std::size_t const needed = arguments.dry_run ? 1 : 2;
  if (files.size() != needed)
    throw UsageError("got " + std::to_string(files.size()) + " file names, needs " + std::to_string(needed));
  arguments.model = files[0];
  if (!arguments.dry_run) arguments.out = files[1];
  return arguments;
}

}  // namespace convert_onnx
