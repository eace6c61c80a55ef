#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>

#include "talvo/kernel/rows/fused_product.h"
#include "talvo/kernel/rows/fused_step.h"
#include "talvo/kernel/rows/matrix_product.h"
#include "tests/support/bits.h"

namespace talvo::kernel::rows {
namespace {

// A set that has no instruction to fuse.
template <class Set>
struct InSoftware : Set {
  static constexpr bool kFuses = false;
};

template <template <class> class Way>
struct StepRowBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(float const* a, float const* b, std::size_t n, float* c) {
    for (std::size_t i = 0; i + Set::kLanes <= n; i += Set::kLanes) {
      Vector<Set::kLanes> x, y, z;
      Load<Set::kLanes>(a + i, x), Load<Set::kLanes>(b + i, y), Load<Set::kLanes>(c + i, z);
      FusedStep<Way<Set>, Set::kLanes>(x, y, z);
      Store<Set::kLanes>(z, c + i);
    }
  }
};
template <class Set>
using AsTheSetHas = Set;
using StepRow = Primitive<void(float const*, float const*, std::size_t, float*)>;
StepRow const kStepRow{StepRowBody<AsTheSetHas>()}, kStepRowInSoftware{StepRowBody<InSoftware>()};

float FromBits(std::uint_fast32_t word) {
  auto const bits = static_cast<std::uint32_t>(word);
  float value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

// Triples of seven kinds in turn.
void MakeTriple(std::mt19937& random, std::size_t kind, float& a, float& b, float& c) {
  auto const any = [&] { return FromBits(random()); };  // NaN, infinities and denormals among them
  auto const near_one = [&] { return FromBits(0x3F800000u | (random() & 0x807FFFFFu)); };
  a = near_one(), b = near_one();
  if (kind == 0) a = any(), b = any(), c = any();
  if (kind == 1) c = near_one();
  if (kind == 2) c = -(a * b);                                                               // what rounding left over
  if (kind == 3) c = std::ldexp(near_one(), static_cast<int>(random() % 100) - 50);          // one swallows the other
  if (kind == 4) a = FromBits(random() & 0x80FFFFFFu), c = FromBits(random() & 0x807FFFFF);  // denormal results
  if (kind == 5) {  // ties, and a bit far below that breaks them
    a = FromBits(0x3F800000u | (random() & 0xFFFu) << 11),
    b = std::ldexp(1.0f, -24) * (random() % 2 == 0 ? 1.0f : -1.0f);
    c = near_one();
  }
  if (kind == 6) {
    // Zeros, infinities, the largest, NaN, the least denormals, the least normal, 2^127, +-1, 1/2, 2, 1 and a bit.
    constexpr std::uint32_t kOdd[] = {0x00000000, 0x80000000, 0x7F800000, 0xFF800000, 0x7F7FFFFF, 0xFF7FFFFF,
                                      0x7FC00000, 0x00000001, 0x80000001, 0x00800000, 0x7F000000, 0x3F800000,
                                      0xBF800000, 0x3F000000, 0x40000000, 0x3F800001};
    auto const odd = [&] { return FromBits(kOdd[random() % 16]); };
    a = odd(), b = odd(), c = odd();
  }
}

TEST(FusedStep, RoundsOnceInEverySetWithAndWithoutTheInstruction) {
  constexpr std::size_t kRow = 7 << 10, kRows = 300;  // 2.1 million triples
  std::mt19937 random(3);
  std::vector<float> a(kRow), b(kRow), c(kRow), want(kRow);
  for (std::size_t row = 0; row < kRows && !HasFailure(); ++row) {
    for (std::size_t i = 0; i < kRow; ++i) {
      MakeTriple(random, i % 7, a[i], b[i], c[i]);
      want[i] = std::fmaf(a[i], b[i], c[i]);
    }
    for (auto const set : RunnableSets()) {
      ScopedInstructionSet const use(set);
      for (StepRow const* step : {&kStepRow, &kStepRowInSoftware}) {
        SCOPED_TRACE(testing::Message() << NameOf(set) << (step == &kStepRow ? "" : ", in software"));
        auto got = c;
        (*step)(a.data(), b.data(), kRow, got.data());
        test::ExpectSameBits(want, got);
      }
    }
  }
}

// y[r, o] by its definition, in rows of `stride`.
std::vector<float> PlainProduct(bool fused, std::vector<float> const& weight, std::vector<float> const& x,
                                float const* bias, std::size_t inputs, std::size_t stride) {
  std::size_t const outputs = weight.size() / inputs, rows = x.size() / inputs;
  std::vector<float> y(rows * stride, -9.0f);
  for (std::size_t r = 0; r < rows; ++r) {
    for (std::size_t o = 0; o < outputs; ++o) {
      float sum = bias != nullptr ? bias[o] : 0.0f;
      for (std::size_t i = 0; i < inputs; ++i) {
        float const w = weight[o * inputs + i], in = x[r * inputs + i];
        sum = fused ? std::fmaf(w, in, sum) : sum + w * in;
      }
      y[r * stride + o] = sum;
    }
  }
  return y;
}

TEST(PackedProducts, AddInTheOrderOfTheInputs) {
  for (std::size_t const outputs : {1u, 5u, 16u, 24u, 63u, 64u, 150u}) {
    for (std::size_t const inputs : {1u, 7u, 33u}) {
      auto const weight = test::Floats(1, outputs * inputs), biases = test::Floats(3, outputs);
      std::vector<float> packed(FusedFloats(outputs, inputs), -9.0f);
      PackFused(weight.data(), outputs, inputs, packed.data());
      for (std::size_t const rows : {1u, 4u, 11u, 32u}) {
        auto const x = test::Floats(2, rows * inputs);
        for (bool const fused : {false, true}) {
          bool const gap = rows == 4, backwards = fused != gap;
          float const* const bias = backwards ? biases.data() : nullptr;
          auto const want = PlainProduct(fused, weight, x, bias, inputs, outputs + gap);
          for (auto const set : RunnableSets()) {
            SCOPED_TRACE(testing::Message() << NameOf(set) << ", " << rows << " rows, " << inputs << " to " << outputs);
            ScopedInstructionSet const use(set);
            std::vector<float> got(want.size(), -9.0f);
            (fused ? FusedProduct : PackedProduct)(
                {packed.data(), x.data(), bias, rows, outputs, inputs, got.data(), outputs + gap, backwards});
            test::ExpectSameBits(want, got);
          }
        }
      }
    }
  }
}

}  // namespace
}  // namespace talvo::kernel::rows
