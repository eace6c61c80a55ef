#include "talvo/image/rotate_flip.h"

#include "tests/image/image_test_support.h"

namespace talvo::test {
namespace {

using namespace kernel::functional;

class RotateFlip : public ImageTest {};

struct Turn {
  int code;
  void (*free)(ImagePtr const&, ImagePtr&), (*twin)(ImagePtr const&, ImagePtr&);
  bool on_its_side;
  std::pair<std::size_t, std::size_t> (*place)(std::size_t y, std::size_t x, std::size_t h, std::size_t w);
} const kTurns[] = {
    {50, F_Rotate_Clockwise90_HWC_Fallback, F_Rotate_Clockwise90_HWC_Arm, true,
     [](auto y, auto x, auto h, auto) { return std::make_pair(x, h - 1 - y); }},
    {51, F_Rotate_Clockwise180_HWC_Fallback, F_Rotate_Clockwise180_HWC_Arm, false,
     [](auto y, auto x, auto h, auto w) { return std::make_pair(h - 1 - y, w - 1 - x); }},
    {52, F_Rotate_Clockwise270_HWC_Fallback, F_Rotate_Clockwise270_HWC_Arm, true,
     [](auto y, auto x, auto, auto w) { return std::make_pair(w - 1 - x, y); }},
    {53, F_HFlip_HWC_Fallback, F_HFlip_HWC_Arm, false,
     [](auto y, auto x, auto, auto w) { return std::make_pair(y, w - 1 - x); }},
    {54, F_VFlip_HWC_Fallback, F_VFlip_HWC_Arm, false,
     [](auto y, auto x, auto h, auto) { return std::make_pair(h - 1 - y, x); }},
};

TEST_P(RotateFlip, EveryPixelGoesToItsPlace) {
  for (Turn const& turn : kTurns) {
    SCOPED_TRACE(turn.code);
    for (std::uint32_t i = 0; i < 60; ++i) {
      unsigned int const h = Size(3 * i, 1, 70), w = Size(3 * i + 1, 1, i % 4 == 0 ? 5 : 80), c = 1 + i % 9;
      unsigned int const to_h = turn.on_its_side ? w : h, to_w = turn.on_its_side ? h : w;
      auto src = Image({h, w, c}, TensorShape::HWC, i), planar = Image({c, h, w}, TensorShape::CHW, i);
      auto dst = Image({to_h, to_w, c}, TensorShape::HWC), planar_dst = Image({c, to_h, to_w}, TensorShape::CHW);
      auto free = Image({to_h, to_w, c}, TensorShape::HWC), twin = Image({to_h, to_w, c}, TensorShape::HWC);
      Run(turn.code, src, dst), Run(turn.code, planar, planar_dst);
      turn.free(src, free), turn.twin(src, twin);
      auto const from = BytesOf(src);
      ByteVector want(from.size()), planar_want(from.size());
      for (std::size_t y = 0; y < h; ++y) {
        for (std::size_t x = 0; x < w; ++x) {
          auto const [to_y, to_x] = turn.place(y, x, h, w);
          for (std::size_t k = 0; k < c; ++k) {
            want[(to_y * to_w + to_x) * c + k] = from[(y * w + x) * c + k];
            planar_want[(k * to_h + to_y) * to_w + to_x] = from[(k * h + y) * w + x];
          }
        }
      }
      for (auto const& got : {dst, free, twin}) ASSERT_EQ(want, BytesOf(got)) << h << " x " << w << " x " << c;
      ASSERT_EQ(planar_want, BytesOf(planar_dst)) << h << " x " << w << " x " << c;
    }
  }
}

TEST_P(RotateFlip, FreeFormsRefuseInOrder) {
  auto const good = Image({2, 3, 3}, TensorShape::HWC), turned = Image({3, 3, 2}, TensorShape::HWC);
  auto const floats = FloatImage({3, 2, 3}, TensorShape::CHW, Floats(1, 18));
  struct Pair {
    ImagePtr input, output;
    char const *rotation, *flip;
  };
  auto const foreign = std::make_shared<Foreign>(good->shape);
  for (Pair c : {Pair{nullptr, foreign, "o_img must be a TensorCPUPtr.", "i_img must be a TensorCPUPtr."},
                 {foreign, nullptr, "i_img must be a TensorCPUPtr.", "i_img must be a TensorCPUPtr."},
                 {nullptr, nullptr, "i_img must not be nullptr.", "i_img must be a TensorCPUPtr."},
                 {floats, nullptr, "o_img must not be nullptr.", "o_img must be a TensorCPUPtr."}}) {
    EXPECT_EQ(Report(c.rotation), RefusalOf([&] { F_Rotate_Clockwise180_HWC_Fallback(c.input, c.output); }));
    EXPECT_EQ(Report(c.flip), RefusalOf([&] { F_VFlip_HWC_Fallback(c.input, c.output); }));
  }
  auto row = Image({6}, TensorShape::HWC), rows = Image({2, 3}, TensorShape::HWC), out = turned;
  EXPECT_EQ(Report(""), RefusalOf([&] { F_Rotate_Clockwise90_HWC_Fallback(row, rows); }));
  EXPECT_EQ(Report(""), RefusalOf([&] { F_Rotate_Clockwise90_HWC_Fallback(good, out); }));
  EXPECT_EQ(Report("F_Rotate_Clockwise90_HWC_Fallback: i_img has rank 1, needs 2"),
            RefusalOf([&] { F_Rotate_Clockwise90_HWC_Fallback(row, row); }));
  EXPECT_EQ(Report("F_VFlip_HWC_Fallback: i_img has rank 2, needs 3"),
            RefusalOf([&] { F_VFlip_HWC_Fallback(rows, rows); }));
}

INSTANTIATE_TEST_SUITE_P(Sets, RotateFlip, kEverySet);

}  // namespace
}  // namespace talvo::test
