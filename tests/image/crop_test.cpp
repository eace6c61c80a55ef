#include "talvo/image/crop.h"

#include <algorithm>
#include <limits>

#include "tests/image/image_test_support.h"

namespace talvo::test {
namespace {

using namespace kernel::functional;
using CropFunction = void (*)(ImagePtr const&, unsigned int const&, unsigned int const&, unsigned int const&,
                              unsigned int const&, ImagePtr&);

class Crop : public ImageTest {
 protected:
  // The class operation for `channels` channels, through the dispatcher.
  void CropShares(unsigned int channels, ImagePtr src, ImagePtr dst, float left, float top, float right, float bottom) {
    process_.ConvertPixel(src, dst, left, top, right, bottom, static_cast<int>(99 + channels), nullptr);
  }
};

TEST_P(Crop, ClassCopiesWhatLiesInside) {
  struct Shares {
    char const* why;
    float left, top, right, bottom;
  };
  for (Shares const& s : {Shares{"inside", 0.2f, 0.3f, 0.7f, 0.8f},
                          {"past all edges", -0.4f, -0.3f, 1.4f, 1.2f},
                          {"past the upper left", -0.25f, -0.5f, 0.5f, 0.4f},
                          {"past the lower right", 0.5f, 0.6f, 1.3f, 1.0f},
                          {"nothing of it inside", 1.2f, 0.0f, 1.4f, 1.0f},
                          {"right of left", 0.8f, 0.1f, 0.2f, 0.9f}}) {
    SCOPED_TRACE(s.why);
    for (std::uint32_t i = 0; i < 40; ++i) {
      unsigned int const h = Size(2 * i, 1, 20), w = Size(2 * i + 1, 1, 20), n = 1 + i % 4;
      auto const share = [](float part, unsigned int extent) {
        return static_cast<int>(part * static_cast<float>(extent));
      };
      int const l = share(s.left, w), t = share(s.top, h), r = share(s.right, w), b = share(s.bottom, h);
      auto src = Image({h, w, n}, TensorShape::HWC, i), dst = Image({60, 60, n}, TensorShape::HWC, i + 1);
      auto const from = BytesOf(src);
      auto want = BytesOf(dst);
      std::size_t const row = r < l ? 0 : static_cast<std::size_t>(r - l + 1) * n;
      for (int y = t; y <= b; ++y) {
        for (int x = l; x <= r; ++x) {
          if (y < 0 || x < 0 || y >= static_cast<int>(h) || x >= static_cast<int>(w)) continue;
          for (std::size_t k = 0; k < n; ++k) {
            want[static_cast<std::size_t>(y - t) * row + static_cast<std::size_t>(x - l) * n + k] =
                from[(static_cast<std::size_t>(y) * w + static_cast<std::size_t>(x)) * n + k];
          }
        }
      }
      CropShares(n, src, dst, s.left, s.top, s.right, s.bottom);
      ASSERT_EQ(want, BytesOf(dst)) << h << " x " << w << " x " << n;
    }
  }
}

TEST_P(Crop, ClassRefusesWhatWouldLeaveTheTensors) {
  auto src = Image({4, 4, 3}, TensorShape::HWC), dst = Image({4, 4, 3}, TensorShape::HWC);
  struct Case {
    float left, top, right;
    char const* text;
  };
  for (Case const& c : {Case{0, std::numeric_limits<float>::quiet_NaN(), 1, "share nan of 4 pixels is no int"},
                        {0, 0, 1e9f, "share 1e+09 of 4 pixels is no int"},
                        {0, 0, 1.25f, "dst of dims [4, 4, 3] holds 48 bytes, needs 66"},  // 3 rows of 6 pixels and 4
                        {-2e8f, -4e8f, 0, "dst of dims [4, 4, 3] holds 48 bytes, needs 3840000007200000003"}}) {
    EXPECT_EQ(Report(std::string("Crop_C3: ") + c.text),
              RefusalOf([&] { CropShares(3, src, dst, c.left, c.top, c.right, c.top == 0 ? 1 : 0); }));
  }
}

// Rows y to y + rows, columns x to x + columns of planes [h, w] of pixels; 77 outside.
ByteVector Want(ByteVector const& from, std::size_t planes, std::int64_t h, std::int64_t w, std::size_t pixel,
                std::int64_t y, std::int64_t x, std::size_t rows, std::size_t columns) {
  return Laid(planes * rows, columns, pixel, [&](std::size_t i, std::size_t j, std::size_t k) {
    auto const plane = static_cast<std::int64_t>(i / rows), row = y + static_cast<std::int64_t>(i % rows);
    std::int64_t const column = x + static_cast<std::int64_t>(j);
    bool const inside = row >= 0 && column >= 0 && row < h && column < w;
    return inside ? from[static_cast<std::size_t>((plane * h + row) * w + column) * pixel + k] : 77;
  });
}

TEST_P(Crop, FreeFormsCopyAnyType) {
  struct Case {
    unsigned int layout, block;
    CropFunction functions[2];
  };
  for (Case const& c : {Case{TensorShape::HWC, 0, {F_Crop_HWC_Memcpy, F_Crop_HWC_Arm}},
                        {TensorShape::CHW, 0, {F_Crop_CHW_Memcpy, F_Crop_CHW_Arm}},
                        {TensorShape::C4HW4, 4, {F_Crop_C4HW4_Memcpy, F_Crop_C4HW4_Arm}},
                        {TensorShape::C8HW8, 8, {F_Crop_C8HW8_Memcpy, F_Crop_C8HW8_Arm}}}) {
    for (std::uint32_t i = 0; i < 60; ++i) {
      unsigned int const h = Size(6 * i, 1, 12), w = Size(6 * i + 1, 1, 12), channels = Size(6 * i + 2, 1, 5);
      unsigned int const y = Size(6 * i + 3, 0, h), x = Size(6 * i + 4, 0, w);
      unsigned int const rows = Size(6 * i + 5, 0, h - y), columns = w - x;
      bool const interleaved = c.layout == TensorShape::HWC;
      auto const dims = [&](unsigned int height, unsigned int width) {
        if (interleaved) return Dims{height, width, channels};
        return c.block == 0 ? Dims{channels, height, width} : Dims{channels, height, width, c.block};
      };
      unsigned int const type = i % 2 == 0 ? TensorShape::UINT8 : TensorShape::FLOAT16;
      unsigned int const elements = interleaved ? channels : std::max(c.block, 1u);
      auto const data = Bytes(i, std::size_t{channels} * h * w * std::max(c.block, 1u) * runtime::ElementSize(type));
      auto const src = Make(dims(h, w), c.layout, type, data.data());
      auto const want =
          Want(data, interleaved ? 1 : channels, h, w, elements * runtime::ElementSize(type), y, x, rows, columns);
      for (CropFunction function : c.functions) {
        auto dst = Make(dims(rows, columns), c.layout, type, nullptr);
        function(src, y, x, rows, columns, dst);
        ASSERT_EQ(want, BytesOf(dst)) << c.layout << ": " << h << " x " << w << " x " << channels;
      }
    }
  }
}

TEST_P(Crop, FilledCropMayLieOutside) {
  constexpr int kMost = std::numeric_limits<int>::max();
  for (std::uint32_t i = 0; i < 200; ++i) {
    auto const size = [i](std::uint32_t k, unsigned int least, unsigned int most) {
      return Size(6 * i + k, least, most);
    };
    unsigned int const h = size(0, 1, 8), w = size(1, 1, 8), c = size(2, 1, 4), rows = size(5, 0, 10),
                       columns = size(6, 0, 10);
    // The first lies so far outside that sums of positions would wrap.
    int const y = i == 0 ? kMost : static_cast<int>(size(3, 0, 24)) - 12,
              x = i == 0 ? kMost : static_cast<int>(size(4, 0, 24)) - 12;
    auto const src = Image({h, w, c}, TensorShape::HWC, i);
    for (auto const function : {F_Crop_U8_HWC_Memcpy, F_Crop_U8_HWC_Arm}) {
      auto dst = Image({rows, columns, c}, TensorShape::HWC, i);
      function(src, y, x, static_cast<int>(rows), static_cast<int>(columns), 77, dst);
      ASSERT_EQ(Want(BytesOf(src), 1, h, w, c, y, x, rows, columns), BytesOf(dst)) << y << ", " << x;
    }
  }
}

TEST_P(Crop, FreeFormsRefuseShapesThatDoNotFit) {
  auto const hwc = Image({4, 4, 3}, TensorShape::HWC), out = Image({2, 2, 3}, TensorShape::HWC);
  auto const out2 = Image({2, 2, 2}, TensorShape::HWC), flat = Image({4, 12}, TensorShape::HWC);
  struct Case {
    ImagePtr input, output;
    unsigned int y, x, height, width;
    char const *text, *logged;
  };
  for (Case c :
       {Case{flat, out, 0, 0, 2, 2, "F_Crop_HWC_Arm: i_img has rank 2, needs 3", "i_img has rank 2, needs 3"},
        {flat, out, 0, 0, 3, 2, "", "o_img of dims [2, 2, 3], data type 7, layout 1: needs the height of the area"},
        {hwc, out, 0, 0, 2, 1, "", "needs the width of the area"},
        {hwc, out2, 0, 0, 2, 2, "", "needs the channels of i_img"},
        {hwc, out, 3, 0, 2, 2, "", "i_img of dims [4, 4, 3], data type 7, layout 1: the area leaves it below"},
        {hwc, out, 0, 3, 2, 2, "", "the area leaves it on the right"},
        {hwc, out, 0xFFFFFFFF, 0, 2, 2, "", "the area leaves it below"}}) {
    LogCapture const log;
    EXPECT_EQ(Report(c.text), RefusalOf([&] { F_Crop_HWC_Arm(c.input, c.y, c.x, c.height, c.width, c.output); }));
    ASSERT_EQ(log.Lines().size(), 1u);
    EXPECT_NE(log.Lines()[0].find(c.logged), std::string::npos) << log.Lines()[0];
  }
  auto blocks = Image({1, 2, 2, 3}, TensorShape::C4HW4), filled = out2;
  auto const four = Image({1, 2, 2, 4}, TensorShape::C4HW4);
  auto eight = Image({1, 2, 2, 8}, TensorShape::C4HW4);
  EXPECT_EQ(Report(""), RefusalOf([&] { F_Crop_C4HW4_Memcpy(four, 0, 0, 2, 2, eight); }));
  EXPECT_EQ(Report(""), RefusalOf([&] { F_Crop_C4HW4_Memcpy(blocks, 0, 0, 2, 2, blocks); }));
  EXPECT_EQ(Report("i_img must be a C8HW8 Layout Tensor."),
            RefusalOf([&] { F_Crop_C8HW8_Memcpy(blocks, 0, 0, 2, 2, blocks); }));
  EXPECT_EQ(Report(""), RefusalOf([&] { F_Crop_U8_HWC_Memcpy(hwc, 0, 0, -2, 2, 0, filled); }));
  EXPECT_EQ(Report(""), RefusalOf([&] { F_Crop_U8_HWC_Memcpy(hwc, 0, 0, 2, 2, 0, filled); }));
}

INSTANTIATE_TEST_SUITE_P(Sets, Crop, kEverySet);

}  // namespace
}  // namespace talvo::test
