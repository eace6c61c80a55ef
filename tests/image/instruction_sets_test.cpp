#include "talvo/kernel/rows/instruction_sets.h"
#include "talvo/image/image_process_fallback.h"
#include "talvo/image/normalise.h"
#include "talvo/image/warp.h"
#include "talvo/image/yuv.h"
#include "tests/image/image_test_support.h"

namespace talvo::test {
namespace {

using namespace kernel::functional;
using kernel::rows::InstructionSet;

class ImageInstructionSets : public ImageTest {
 protected:
  // Every operation that has row primitives, one behind the other, on images of h x w; all bytes that come out.
  ByteVector AllResults(unsigned int h, unsigned int w) {
    ByteVector results;
    auto const keep = [&](ImagePtr const& image) {
      auto const bytes = BytesOf(image);
      results.insert(results.end(), bytes.begin(), bytes.end());
    };
    auto const run = [&](ImagePtr src, ImagePtr dst, int code) {
      process_.ConvertPixel(src, dst, code, nullptr);
      keep(dst);
    };
    auto const pixels = Image({h, w, 3}, TensorShape::HWC, h + w), rgba = Image({h, w, 4}, TensorShape::HWC, h);
    auto const planes = Image({3, h, w}, TensorShape::CHW, w), frame = Image({2 * h, 2 * w, 2}, TensorShape::HWC, w);
    for (int code : {1, 3}) run(rgba, Image({3, h, w}, TensorShape::CHW), code);
    for (int code : {4, 60}) run(pixels, Image({3, h, w}, TensorShape::CHW), code);
    for (int code : {6, 7}) run(pixels, Image({1, h, w}, TensorShape::CHW), code);
    run(rgba, Image({1, h, w}, TensorShape::CHW), 11);
    run(planes, Image({h, w, 3}, TensorShape::HWC), 61);
    for (int code : {22, 24, 32}) run(frame, Image({3, 2 * h, 2 * w}, TensorShape::CHW), code);
    for (int code : {50, 52}) {
      run(pixels, Image({w, h, 3}, TensorShape::HWC), code);
      run(rgba, Image({w, h, 4}, TensorShape::HWC), code);
      run(planes, Image({3, w, h}, TensorShape::CHW), code);
    }
    for (int code : {51, 53}) {
      run(pixels, Image({h, w, 3}, TensorShape::HWC), code);
      run(planes, Image({3, h, w}, TensorShape::CHW), code);
    }
    run(Image({h, w, 3}, TensorShape::FLEXIABLE), Image({w, h, 3}, TensorShape::FLEXIABLE), 83);
    Floats32(planes, h, w, keep);
    return results;
  }

  template <class Keep>
  void Floats32(ImagePtr const& planes, unsigned int h, unsigned int w, Keep const& keep) {
    auto const sub = FloatImage({3}, TensorShape::C, {1.5f, 127.5f, -3}),
               mul = FloatImage({3}, TensorShape::C, {0.1f, 2, 3});
    auto floats = Make({3, h, w}, TensorShape::CHW, TensorShape::FLOAT32, nullptr);
    auto again = Make({3, h, w}, TensorShape::CHW, TensorShape::FLOAT32, nullptr);
    auto shorts = Make({3, h, w}, TensorShape::CHW, TensorShape::INT16, nullptr);
    shorts->shape.extra.step_size = 9;
    F_Normalize_CHW_U8_To_CHW_F32_Fallback(planes, sub, mul, floats);
    keep(floats);
    F_Normalize_CHW_F32_Fallback(floats, sub, mul, again);
    keep(again);
    F_Normalize_CHW_U8_To_CHW_S16_Fallback(planes, sub, mul, shorts);
    keep(shorts);
    float const turn[] = {0.8f, -0.6f, 0.1f, 0.6f, 0.8f, -0.2f};
    process_.ConvertPixel(floats, again, turn, 58, nullptr);
    keep(again);
    F_WarpAffine_Bilinear_CHW_F32_Arm(floats, FloatImage({6}, TensorShape::C, {turn, turn + 6}), again);
    keep(again);
  }

  kernel::ImageProcessFallback process_;
};

TEST_F(ImageInstructionSets, GiveTheSameBits) {
  for (auto const& [h, w] : {std::pair<unsigned int, unsigned int>{1, 1}, {5, 7}, {16, 33}, {37, 66}, {70, 131}}) {
    ByteVector want;
    for (InstructionSet set : kernel::rows::RunnableSets()) {
      kernel::rows::ScopedInstructionSet const use(set);
      auto const got = AllResults(h, w);
      if (set == InstructionSet::kBaseline) want = got;
      ASSERT_EQ(want, got) << kernel::rows::NameOf(set) << ": " << h << " x " << w;
    }
  }
}

}  // namespace
}  // namespace talvo::test
