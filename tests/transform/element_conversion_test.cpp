#include "talvo/transform/element_conversion.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>

#include "talvo/kernel/rows/instruction_sets.h"
#include "tests/support/bits.h"
#include "tests/support/guarded_context.h"
#include "tests/support/log_capture.h"

namespace talvo {
namespace {

using half_float::half;
using runtime::TensorShape;

// Runs for each instruction set of this machine.
class ElementConversion : public testing::TestWithParam<kernel::rows::InstructionSet> {
  kernel::rows::ScopedInstructionSet const use_{GetParam()};
};
INSTANTIATE_TEST_SUITE_P(EverySet, ElementConversion, testing::ValuesIn(kernel::rows::RunnableSets()),
                         [](auto const& set) { return kernel::rows::NameOf(set.param); });

// The class half is compared with the definition for each of its values and at each cut; arrays do as it does.
TEST_P(ElementConversion, RowsConvertAsSingleHalvesDo) {
  std::vector<half> halves;
  std::vector<float> floats;
  for (std::uint32_t bits = 0; bits < 65536; ++bits) {
    halves.push_back(half::FromBits(static_cast<std::uint16_t>(bits)));
    floats.push_back(halves.back());
  }
  test::ExpectSameBits(floats, kernel::HalfArray_To_FloatArray_Fallback(halves));
  for (std::uint32_t upper = 0; upper < 65536; ++upper) {
    for (std::uint32_t lower : {0x0001u, 0x1FFFu, 0x2000u, 0xFFFFu}) {
      std::uint32_t const bits = upper << 16 | lower;
      float value;
      std::memcpy(&value, &bits, sizeof value);
      floats.push_back(value);
    }
  }
  auto const cut = kernel::FloatArray_To_HalfArray_Fallback(floats);
  for (std::size_t i = 0; i < floats.size(); ++i) {
    ASSERT_TRUE(std::isnan(floats[i]) ? std::isnan(cut[i]) : half(floats[i]).Bits() == cut[i].Bits()) << floats[i];
    if (i >= halves.size()) continue;
    ASSERT_EQ(halves[i].Bits() | (std::isnan(floats[i]) ? 0x200 : 0), cut[i].Bits()) << "NaNs become quiet";
  }
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
