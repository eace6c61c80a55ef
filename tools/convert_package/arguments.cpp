#include "tools/convert_package/arguments.h"

namespace convert_package {
namespace {

using tools::UsageError;

std::string BackEnd(std::string const& option, std::string const& word) {
  std::vector<std::string> names;
  for (tools::BackEnd const& back_end : tools::kBackEnds) names.emplace_back(back_end.name);
  tools::Choice(option, word, names);
  return word;
}

void SetBackEnd(std::string const& word, Arguments& arguments) {
  auto const [to, from] = tools::Assignment("--set-back-end", word);
  arguments.set_back_ends.emplace_back(BackEnd("--set-back-end", to), BackEnd("--set-back-end", from));
}

void SetKernels(std::string const& word, Arguments& arguments) {
  auto const equals = word.find('=');
  std::string const back_end = equals == std::string::npos ? "" : BackEnd("--kernels", word.substr(0, equals));
  std::string const family = equals == std::string::npos ? word : word.substr(equals + 1);
  arguments.kernels.emplace_back(back_end, tools::ParseKernels("--kernels", family));
}

}  // namespace

tools::Usage const kUsage = {
    "usage: convert_package IN OUT [--half nearest|cut] [--set-back-end TO=FROM]... [--kernels "
    "[BACK_END=]portable|blas|fused]...\n"
    "       convert_package --help | --version",
    "IN and OUT end in .tlnmodel (binary, weights as halves) or .json.\n\n"
    "  --half nearest|cut      how weights become halves, the nearest if not given\n"
    "  --set-back-end TO=FROM  gives the back end TO a copy of the configuration of FROM\n"
    "  --kernels FAMILY        then changes the kernels of a back end, or of all, to those of a family\n\n"
    "Back ends: cpu_sse, cpu_avx, cpu_armv7, cpu_armv8, cpu_armv82, gpu_opengl, gpu_metal, gpu_cuda."};

Arguments ParseArguments(int count, char const* const* words) {
  using Word = std::string const&;
  Arguments arguments;
  tools::CommandLine line;
  line.values = {
      {"--half",
       [&](Word word) {
         arguments.nearest = tools::Choice("--half", word, {"cut", "nearest"}) == 1;
       }},
      {"--set-back-end", [&](Word word) { SetBackEnd(word, arguments); }},
      {"--kernels", [&](Word word) { SetKernels(word, arguments); }},
  };
  line.other = [&](Word word) {
    if (!arguments.out.empty()) throw UsageError("one package at a time: there is no use for \"" + word + "\"");
    (arguments.in.empty() ? arguments.in : arguments.out) = word;
  };
  line.Read(count, words);
  if (arguments.out.empty()) throw UsageError("a package to read and one to write are needed");
  return arguments;
}

}  // namespace convert_package
