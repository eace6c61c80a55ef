#include "talvo/transform/element_conversion.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

#include "talvo/kernel/rows/instruction_sets.h"
#include "tests/support/bits.h"
#include "tests/support/guarded_context.h"
#include "tests/support/log_capture.h"

namespace talvo {
namespace {

using half_float::half;
using runtime::TensorShape;

// What a half's bits stand for: sign, 5 bits of exponent with bias 15, 10 bits of mantissa.
float ValueOf(std::uint16_t bits) {
  int const exponent = bits >> 10 & 31, mantissa = bits & 1023;
  float const size = exponent == 31  ? (mantissa != 0 ? NAN : INFINITY)
                     : exponent == 0 ? std::ldexp(static_cast<float>(mantissa), -24)
                                     : std::ldexp(static_cast<float>(1024 + mantissa), exponent - 25);
  return std::copysign(size, bits >> 15 != 0 ? -1.0f : 1.0f);
}

// Runs for each instruction set of this machine.
class ElementConversion : public testing::TestWithParam<kernel::rows::InstructionSet> {
  kernel::rows::ScopedInstructionSet const use_{GetParam()};
};
INSTANTIATE_TEST_SUITE_P(EverySet, ElementConversion, testing::ValuesIn(kernel::rows::RunnableSets()),
                         [](auto const& set) { return kernel::rows::NameOf(set.param); });

TEST_P(ElementConversion, WidensEveryHalfExactlyAndCutsItBack) {
  std::vector<half> halves;
  std::vector<float> want;
  for (std::uint32_t bits = 0; bits < 65536; ++bits) {
    halves.push_back(half::FromBits(static_cast<std::uint16_t>(bits)));
    want.push_back(ValueOf(halves.back().Bits()));
  }
  auto const floats = kernel::HalfArray_To_FloatArray_Fallback(halves);
  test::ExpectSameBits(want, floats);
  auto const again = kernel::FloatArray_To_HalfArray_Fallback(floats);
  for (std::size_t i = 0; i < halves.size(); ++i) {
    ASSERT_EQ(halves[i].Bits() | (std::isnan(floats[i]) ? 0x200 : 0), again[i].Bits()) << i << ", NaNs become quiet";
  }
}

TEST_P(ElementConversion, CutsTheMantissaInsteadOfRounding) {
  // Between two neighbours, both just above the lower and just below the upper one: the lower in magnitude.
  std::vector<float> between;
  std::vector<std::uint16_t> want;
  for (std::uint16_t bits = 0; bits < 0x7C00; ++bits) {
    float const low = ValueOf(bits);
    float const high = bits == 0x7BFF ? 65536.0f : ValueOf(static_cast<std::uint16_t>(bits + 1));
    for (float sign : {1.0f, -1.0f}) {
      for (float value : {std::nextafter(low, INFINITY), std::nextafter(high, 0.0f)}) {
        between.push_back(sign * value);
        want.push_back(static_cast<std::uint16_t>(bits | (sign < 0 ? 0x8000 : 0)));
      }
    }
  }
  between.insert(between.end(), {65536.0f, -1e30f, INFINITY, 1.0019f});
  want.insert(want.end(), {0x7C00, 0xFC00, 0x7C00, 0x3C01});
  auto const halves = kernel::FloatArray_To_HalfArray_Fallback(between);
  for (std::size_t i = 0; i < want.size(); ++i) ASSERT_EQ(want[i], halves[i].Bits()) << between[i];
}

TEST_P(ElementConversion, ReadsAndWritesBytes) {
  std::vector<float> const floats = {1.5f, -0.0f};
  std::string const bytes = kernel::FloatArrayToByteArrayFallback(floats);
  ASSERT_EQ(8u, bytes.size());
  EXPECT_EQ(0, std::memcmp(bytes.data(), floats.data(), 8));
  EXPECT_EQ(floats, kernel::ByteArray_To_FloatArray_Fallback(bytes + "x"));
  EXPECT_TRUE(kernel::ByteArray_To_FloatArray_Fallback("abc").empty());
  auto const halves = kernel::ByteArray_To_HalfArray_Fallback(bytes + "x");
  ASSERT_EQ(4u, halves.size());
  EXPECT_EQ(0, std::memcmp(bytes.data(), halves.data(), 8));
  EXPECT_TRUE(kernel::FloatArrayToByteArrayFallback({}).empty());
}

TEST_P(ElementConversion, ConvertsTensorsOfAnyShape) {
  using kernel::functional::Transform_MainMemory_F16_To_F32_Fallback;
  using kernel::functional::Transform_MainMemory_F32_To_F16_Fallback;
  auto const context = test::GuardedContext();
  auto const device = context->device_cpu;
  for (std::vector<unsigned int> const& dims : {std::vector<unsigned int>{}, {0, 3}, {1, 2, 2, 4}, {1009}}) {
    auto const values = test::SpecialFloats(5, runtime::ElementCount(dims));
    auto const input = test::FloatTensor(*context, dims, TensorShape::C4HW4, values);
    input->shape.extra.step_size = 4;
    auto const narrow = Transform_MainMemory_F32_To_F16_Fallback(input, device);
    EXPECT_EQ(dims, narrow->shape.dims);
    EXPECT_EQ(TensorShape::FLOAT16, narrow->shape.data_type);
    EXPECT_EQ(TensorShape::C4HW4, narrow->shape.layout);
    EXPECT_EQ(0, narrow->shape.extra.step_size);
    auto const wide = Transform_MainMemory_F16_To_F32_Fallback(narrow, device);
    EXPECT_EQ(TensorShape::FLOAT32, wide->shape.data_type);
    std::vector<float> want;
    for (float value : values) want.push_back(float(half(value)));
    test::ExpectSameBits(want, test::Values(*wide));
  }
  auto const refusal = [&](auto convert, unsigned int type) {
    TensorShape const shape({3}, type, TensorShape::C, TensorShape::MainMemory, {});
    return test::RefusalOf([&] { convert(device->CreateTensor(shape, nullptr), device); });
  };
  EXPECT_NE(std::string::npos,
            refusal(Transform_MainMemory_F32_To_F16_Fallback, TensorShape::INT16).find("needs 4 bytes"));
  EXPECT_NE(std::string::npos,
            refusal(Transform_MainMemory_F16_To_F32_Fallback, TensorShape::UINT8).find("needs 2 bytes"));
  kernel::native::Transform_MainMemory_F32_To_F16_Fallback(nullptr, 0, nullptr);
  EXPECT_EQ("[TLN]: Transform_MainMemory_F32_To_F16_Fallback: a null pointer for 1 elements\n",
            test::RefusalOf([&] { kernel::native::Transform_MainMemory_F32_To_F16_Fallback(nullptr, 1, nullptr); }));
}

}  // namespace
}  // namespace talvo
