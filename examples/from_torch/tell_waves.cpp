// A network that torch exported and convert_onnx converted, in an application: waves made here are told apart.
//
//   tell_waves PACKAGE
#include <array>
#include <cmath>
#include <cstdio>
#include <exception>
#include <random>
#include <vector>

#include "examples/report.h"
#include "talvo/talvo.h"

namespace {

constexpr unsigned int kSamples = 256;
constexpr std::array<char const*, 4> kKinds = {"sine", "square", "sawtooth", "noise"};

// `kind` with 37 samples a period and 0.8 in size.
std::vector<float> Wave(std::size_t kind) {
  std::vector<float> wave;
  std::minstd_rand random(7);
  for (unsigned int i = 0; i < kSamples; ++i) {
    float const turn = static_cast<float>(i % 37) / 37;
    float const noise = static_cast<float>(random()) / static_cast<float>(std::minstd_rand::max());
    std::array<float, 4> const values = {std::sin(6.2831853f * turn), turn < 0.5f ? 1.0f : -1.0f, 2 * turn - 1,
                                         2 * noise - 1};
    wave.push_back(0.8f * values[kind]);
  }
  return wave;
}

void Run(char const* path) {
  talvo::Model model(path);
  std::size_t right = 0;
  for (std::size_t kind = 0; kind < kKinds.size(); ++kind) {
    std::vector<float> const wave = Wave(kind);
    model.Reset();  // the recurrent layer begins afresh
    auto const results = model.Run({{"signal", wave.data(), {1, kSamples}}});
    float const* const probabilities = results.Values("probabilities");
    std::size_t told = 0;
    for (std::size_t k = 1; k < kKinds.size(); ++k) told = probabilities[k] > probabilities[told] ? k : told;
    std::printf("%s: %s, %.3f\n", kKinds[kind], kKinds[told], static_cast<double>(probabilities[told]));
    right += told == kind;
  }
  std::printf("%zu of %zu right\n", right, kKinds.size());
}

}  // namespace

int main(int count, char** words) {
  if (count != 2) {
    std::fprintf(stderr, "usage: tell_waves PACKAGE\n");
    return 2;
  }
  examples::KeepLog();
  try {
    Run(words[1]);
    return examples::Finish("tell_waves");
  } catch (std::exception const& error) {
    return examples::Fail("tell_waves", error);
  }
}
