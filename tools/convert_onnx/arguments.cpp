#include "tools/convert_onnx/arguments.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <sstream>

#include "tools/common/program.h"

namespace convert_onnx {
namespace {

using tools::UsageError;

std::pair<std::string, std::string> Assignment(std::string const& option, std::string const& word) {
  auto const equals = word.rfind('=');
  if (equals == std::string::npos || equals == 0 || equals + 1 == word.size())
    throw UsageError(option + " takes NAME=VALUE, not \"" + word + "\"");
  return {word.substr(0, equals), word.substr(equals + 1)};
}

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

// The place of a word among those that the option takes.
std::size_t Choice(std::string const& option, std::string const& word, std::vector<std::string> const& words) {
  auto const found = std::find(words.begin(), words.end(), word);
  if (found != words.end()) return static_cast<std::size_t>(found - words.begin());
  std::string list;
  for (std::string const& one : words) list += (list.empty() ? "" : " or ") + one;
  throw UsageError(option + " takes " + list + ", not \"" + word + "\"");
}

void SetOption(Arguments& arguments, std::string const& word, std::function<std::string()> const& value) {
  if (word == "--shape") {
    auto const [name, shape] = Assignment(word, value());
    arguments.options.shapes[name] = ParseShape(shape);
  } else if (word == "--bind") {
    auto const [name, file] = Assignment(word, value());
    arguments.options.bound[name] = ReadArray(file);
  } else if (word == "--outputs") {
    std::istringstream list(value());
    for (std::string name; std::getline(list, name, ',');) arguments.options.outputs.push_back(name);
  } else if (word == "--kernels") {
    arguments.options.kernels = static_cast<Kernels>(Choice(word, value(), {"portable", "blas", "fused"}));
  } else if (word == "--half") {
    arguments.nearest = Choice(word, value(), {"cut", "nearest"}) == 1;
  } else if (word == "--check") {
    arguments.check.push_back(value());
  } else if (word == "--rel") {
    arguments.bounds.relative = ParseBound(word, value());
  } else if (word == "--abs") {
    arguments.bounds.absolute = ParseBound(word, value());
  } else if (word == "--report") {
    arguments.report = value();
  } else if (word == "--approximate") {
    arguments.options.approximate = true;
  } else if (word == "--narrow") {
    arguments.options.narrow = true;
  } else if (word == "--dry-run") {
    arguments.dry_run = true;
  } else if (word == "--ops") {
    arguments.list_operators = true;
  } else {
    throw UsageError("there is no option " + word);
  }
}

}  // namespace

char const* const kUsage =
    "usage: convert_onnx MODEL.onnx OUT.tlnmodel|OUT.json [--shape NAME=1x3x224x224]... [--bind "
    "NAME=FILE.npy|FILE.pb]...\n"
    "                    [--outputs NAME,...] [--kernels portable|blas|fused] [--half nearest|cut] [--approximate] "
    "[--narrow]\n"
    "                    [--check DIR]... [--rel BOUND] [--abs BOUND] [--report FILE.json]\n"
    "       convert_onnx MODEL.onnx --dry-run [...]\n"
    "       convert_onnx --ops\n"
    "--approximate takes compositions that hold in a range or to a bound, which is printed; --narrow takes double and "
    "half\n"
    "data as float. --check runs the package on DIR/input_0.npy, ... (or .pb), the graph's inputs in order, and "
    "compares\n"
    "with DIR/output_0.npy, ...; what is further off than --abs (1e-5) + --rel (1e-3) times the largest recorded value "
    "is\n"
    "not written, and the first layer that is off from a value of the graph recorded as DIR/NAME.npy is named.";

Arguments ParseArguments(int count, char const* const* words) {
  Arguments arguments;
  std::vector<std::string> files;
  for (int at = 1; at < count; ++at) {
    std::string const word = words[at];
    if (word.size() < 2 || word[0] != '-') {
      files.push_back(word);
      continue;
    }
    SetOption(arguments, word, [&]() -> std::string {
      if (at + 1 >= count || *words[at + 1] == '\0') throw UsageError(word + " takes a value");
      return words[++at];
    });
  }
  if (arguments.list_operators) return arguments;
  std::size_t const needed = arguments.dry_run ? 1 : 2;
  if (files.size() != needed)
    throw UsageError("got " + std::to_string(files.size()) + " file names, needs " + std::to_string(needed));
  arguments.model = files[0];
  if (!arguments.dry_run) arguments.out = files[1];
  return arguments;
}

}  // namespace convert_onnx
