#include "talvo/image/normalise.h"

#include <cstring>

#include "tests/image/image_test_support.h"

namespace talvo::test {
namespace {

using namespace kernel::functional;
using Function = void (*)(ImagePtr const&, ImagePtr const&, ImagePtr const&, ImagePtr&);

class Normalise : public ImageTest {
 protected:
  ImagePtr Values1D(std::vector<float> const& values) {
    return FloatImage({static_cast<unsigned int>(values.size())}, TensorShape::C, values);
  }
};

TEST_P(Normalise, FloatsAreDifferenceTimesFactor) {
  std::vector<float> const subs = {123.675f, -3.5f, 0.0f, 127.5f}, muls = {0.017f, 2.5f, -1.0f, 1 / 127.5f};
  for (std::uint32_t i = 0; i < 60; ++i) {
    unsigned int const c = 1 + i % 4, h = Size(2 * i, 1, 12), w = Size(2 * i + 1, 1, 40);
    std::size_t const plane = std::size_t{h} * w;
    auto sub = Values1D({subs.begin(), subs.begin() + c}), mul = Values1D({muls.begin(), muls.begin() + c});
    auto bytes = Image({c, h, w}, TensorShape::CHW, i);
    auto const from = BytesOf(bytes);
    auto const special = SpecialFloats(i, c * plane);
    auto floats = FloatImage({c, h, w}, TensorShape::CHW, special);
    std::vector<float> want, want_special;
    for (std::size_t k = 0; k < c * plane; ++k) {
      want.push_back((static_cast<float>(from[k]) - subs[k / plane]) * muls[k / plane]);
      want_special.push_back((special[k] - subs[k / plane]) * muls[k / plane]);
    }
    auto out = FloatImage({c, h, w}, TensorShape::CHW, Floats(1, c * plane));
    for (Function function : {F_Normalize_CHW_U8_To_CHW_F32_Fallback, F_Normalize_CHW_U8_To_CHW_F32_Arm}) {
      function(bytes, sub, mul, out);
      ExpectSameBits(want, Values(*out));
    }
    F_Normalize_CHW_F32_Arm(floats, sub, mul, out);
    ExpectSameBits(want_special, Values(*out));
    F_Normalize_CHW_F32_Fallback(floats, sub, mul, floats);
    ExpectSameBits(want_special, Values(*floats));
  }
}

TEST_P(Normalise, PlainFormTakesWhatItIsGiven) {
  std::vector<float> const sub = {0.5f, -2.0f}, mul = {3.0f, 0.1f}, data = Floats(1, 2 * 35);
  for (bool with_sub : {false, true}) {
    for (bool with_mul : {false, true}) {
      auto image = FloatImage({2, 5, 7}, TensorShape::CHW, data);
      std::vector<float> want = data;
      for (std::size_t i = 0; i < want.size(); ++i) {
        if (with_sub) want[i] -= sub[i / 35];
        if (with_mul) want[i] *= mul[i / 35];
      }
      Normalize_CHW_Float_Fallback(image, image, with_mul ? mul.data() : nullptr, with_sub ? sub.data() : nullptr);
      ExpectSameBits(want, Values(*image));
    }
  }
  ImagePtr flat = Image({3}, TensorShape::CHW), none;
  Normalize_CHW_Float_Fallback(flat, none, nullptr, nullptr);  // nothing to do, nothing looked at
}

TEST_P(Normalise, FixedPointSaturatesInGroupsOfEight) {
  constexpr double kInt = 2147483648.0;
  std::vector<float> const subs = {0.0f, 127.5f, -1e30f}, muls = {1.0f, 0.02f, 1e10f};
  for (short step = 8; step <= 12; ++step) {
    for (std::uint32_t i = 0; i < 30; ++i) {
      unsigned int const h = Size(2 * i, 1, 6), w = Size(2 * i + 1, 1, 30);
      std::size_t const plane = std::size_t{h} * w;
      auto image = Image({3, h, w}, TensorShape::CHW, i);
      auto const from = BytesOf(image);
      std::vector<std::int16_t> want;
      for (std::size_t k = 0; k < 3 * plane; ++k) {
        float const scale = muls[k / plane] * static_cast<float>(1 << step);
        float const value = (static_cast<float>(from[k]) - subs[k / plane]) * scale;
        bool const grouped = k % plane < plane / 8 * 8;
        double const exact = static_cast<double>(value);
        auto const whole = exact >= kInt ? 2147483647 : exact < -kInt ? -2147483647 - 1 : static_cast<int>(exact);
        int const saturated = whole > 32767 ? 32767 : whole < -32768 ? -32768 : whole;
        want.push_back(static_cast<std::int16_t>(grouped ? saturated : whole));
      }
      for (Function function : {F_Normalize_CHW_U8_To_CHW_S16_Fallback, F_Normalize_CHW_U8_To_CHW_S16_Arm}) {
        auto out = Make({3, h, w}, TensorShape::CHW, TensorShape::INT16, nullptr);
        out->shape.extra.step_size = step;
        function(image, Values1D(subs), Values1D(muls), out);
        ASSERT_EQ(0, std::memcmp(want.data(), out->data, 2 * want.size())) << step << ": " << h << " x " << w;
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Sets, Normalise, kEverySet);

}  // namespace
}  // namespace talvo::test
