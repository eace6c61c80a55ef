#include "talvo/kernel/functional/gemm.h"

#include <gtest/gtest.h>

#include <vector>

#include "talvo/kernel/rows/instruction_sets.h"
#include "talvo/kernel/rows/matrix_product.h"
#include "talvo/kernel/sgemm.h"
#include "tests/support/bits.h"
#include "tests/support/log_capture.h"

namespace talvo::test {
namespace {

using kernel::functional::fullconnection_fallback_c_f32_m1;
using kernel::functional::fullconnection_sgemm_c_f32_m1;

// out[o] = bias[o], then the products in the order of the inputs.
std::vector<float> Connect(std::vector<float> const& in, std::vector<float> const& weight,
                           std::vector<float> const* bias, std::size_t out_count) {
  std::vector<float> out(out_count);
  for (std::size_t o = 0; o < out_count; ++o) {
    out[o] = bias != nullptr ? (*bias)[o] : 0.0f;
    for (std::size_t i = 0; i < in.size(); ++i) out[o] += weight[o * in.size() + i] * in[i];
  }
  return out;
}

struct Size {
  char const* why;
  unsigned int in, out;
};
constexpr Size kSizes[] = {{"one weight", 1, 1},
                           {"fewer outputs than the narrowest vector", 37, 3},
                           {"between vector widths", 21, 5},
                           {"one short of a wide vector", 16, 15},
                           {"whole vectors", 32, 64},
                           {"the last rows reach back", 33, 17},
                           {"blocks and a ragged tail", 71, 203},
                           {"nothing to sum", 0, 20}};

TEST(FullConnection, FallbackSumsInInputOrderFromTheBias) {
  for (auto const set : kernel::rows::RunnableSets()) {
    kernel::rows::ScopedInstructionSet const use(set);
    for (Size const& c : kSizes) {
      SCOPED_TRACE(std::string(c.why) + ", " + kernel::rows::NameOf(set));
      auto const weight = Floats(1, c.out * c.in), bias = Floats(3, c.out);
      for (auto const& in : {Floats(2, c.in), SpecialFloats(2, c.in)}) {
        std::vector<float> got(c.out, -9.0f);
        fullconnection_fallback_c_f32_m1(in.data(), c.in, c.out, weight.data(), bias.data(), got.data());
        ExpectSameBits(Connect(in, weight, &bias, c.out), got);
        fullconnection_fallback_c_f32_m1(in.data(), c.in, c.out, weight.data(), nullptr, got.data());
        ExpectSameBits(Connect(in, weight, nullptr, c.out), got);
      }
    }
  }
}

TEST(FullConnection, SpecialWeightsKeepTheirPlace) {
  for (auto const set : kernel::rows::RunnableSets()) {
    kernel::rows::ScopedInstructionSet const use(set);
    SCOPED_TRACE(kernel::rows::NameOf(set));
    auto const weight = SpecialFloats(1, 40 * 40), in = Floats(2, 40);
    std::vector<float> const bias(40, -0.0f);
    std::vector<float> got(40, -9.0f);
    fullconnection_fallback_c_f32_m1(in.data(), 40, 40, weight.data(), bias.data(), got.data());
    ExpectSameBits(Connect(in, weight, &bias, 40), got);
  }
}

TEST(FullConnection, PackedWeightsGiveTheSameBitsForEveryRow) {
  for (auto const set : kernel::rows::RunnableSets()) {
    kernel::rows::ScopedInstructionSet const use(set);
    for (Size const& c : kSizes) {
      SCOPED_TRACE(std::string(c.why) + ", " + kernel::rows::NameOf(set));
      constexpr std::size_t kRows = 7;
      auto const weight = Floats(1, c.out * c.in), x = SpecialFloats(2, kRows * c.in), bias = Floats(3, c.out);
      std::vector<float> packed(kernel::rows::PackedOutputs(c.out) * c.in), got(kRows * c.out, -9.0f), want;
      kernel::rows::PackWeights(weight.data(), c.out, c.in, packed.data());
      kernel::rows::PackedProduct(packed.data(), x.data(), bias.data(), kRows, c.out, c.in, got.data());
      for (std::size_t r = 0; r < kRows; ++r) {
        auto const row = x.begin() + static_cast<std::ptrdiff_t>(r * c.in);
        auto const y = Connect(std::vector<float>(row, row + c.in), weight, &bias, c.out);
        want.insert(want.end(), y.begin(), y.end());
      }
      ExpectSameBits(want, got);
    }
  }
}

TEST(FullConnection, SgemmAddsItsProductToThePreset) {
  for (Size const& c : kSizes) {
    SCOPED_TRACE(c.why);
    auto const weight = Floats(1, c.out * c.in), in = Floats(2, c.in), bias = Floats(3, c.out);
    std::vector<float> got(c.out, std::numeric_limits<float>::quiet_NaN());
    fullconnection_sgemm_c_f32_m1(in.data(), c.in, c.out, weight.data(), bias.data(), got.data());
    ExpectNearSum(Connect(in, weight, &bias, c.out), got, c.in + 1, 1.0f);
    fullconnection_sgemm_c_f32_m1(in.data(), c.in, c.out, weight.data(), nullptr, got.data());
    ExpectNearSum(Connect(in, weight, nullptr, c.out), got, c.in + 1, 1.0f);
  }
}

TEST(Sgemm, ScalesTheProductAndWhatStoodInTheResult) {
  std::vector<float> const a = {1, 2, 3, 4, 5, 6}, b = {1, 0, 2, 0, 1, 1, 1, 1, 1, 0, 0, 2};  // [2, 3] and [3, 4]
  std::vector<float> c = {1, 1, 1, 1, 2, 2, 2, 2};
  kernel::Sgemm(2, 3, 4, 2.0f, a.data(), b.data(), -1.0f, c.data());
  ExpectSameBits({11, 3, 7, 15, 28, 8, 24, 32}, c);
  kernel::Sgemm(2, 0, 4, 2.0f, a.data(), b.data(), 0.5f, c.data());
  ExpectSameBits({5.5f, 1.5f, 3.5f, 7.5f, 14, 4, 12, 16}, c);
  kernel::Sgemm(2, 3, 0, 2.0f, a.data(), b.data(), 0.5f, nullptr);
  EXPECT_NE(RefusalOf([&] { kernel::Sgemm(2, -3, 4, 1.0f, a.data(), b.data(), 0.0f, c.data()); }).find("k -3"),
            std::string::npos);
}

}  // namespace
}  // namespace talvo::test
