// The shortest complete application: a model package, a tensor for each input, the outputs.
//
//   run_model PACKAGE     (.tlnmodel or .json)
//
// Every input gets one channel of the size that the model was made for, filled with 0.5.
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

#include "talvo/talvo.h"

namespace {

constexpr unsigned int kMaximumSide = 4096;

void Run(std::string const& path) {
  talvo::Model model(path);
  std::vector<std::vector<float>> pictures;
  std::vector<talvo::ModelInput> inputs;
  for (auto const& [id, dims] : model.Inputs()) {
    if (dims.size() != 3 || dims[1] > kMaximumSide || dims[2] > kMaximumSide) {
      throw std::runtime_error(path + ": has no base size of 1 to 4096 pixels a side");
    }
    pictures.emplace_back(std::size_t{dims[1]} * dims[2], 0.5f);
    inputs.emplace_back(id, pictures.back().data(), std::vector<unsigned int>{1, dims[1], dims[2]});
  }
  auto const results = model.Run(inputs);
  for (auto const& [id, dims] : model.Outputs()) {
    std::printf("%s: %s, first value %g\n", id.c_str(), talvo::runtime::DimsText(results.Dims(id)).c_str(),
                static_cast<double>(results.Count(id) > 0 ? results.Values(id)[0] : 0.0f));
  }
}

}  // namespace

int main(int count, char** words) {
  if (count != 2) {
    std::fprintf(stderr, "usage: run_model PACKAGE, where PACKAGE ends in .tlnmodel or .json\n");
    return 2;
  }
  talvo::utility::SetLogCallback([](char const*) { return 0; });  // the exception says it
  try {
    Run(words[1]);
    if (std::fflush(stdout) != 0) throw std::runtime_error("standard output cannot be written");
    return 0;
  } catch (std::exception const& error) {
    std::fprintf(stderr, "run_model: %s\n", error.what());
    return 1;
  }
}
