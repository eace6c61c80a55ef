#include "talvo/image/crop.h"

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

TEST_P(Crop, FreeFormsCopyAnyType) {
  struct Case {
    char const* why;
    CropFunction function, twin;
    unsigned int layout, block;
  };
  for (Case const& c : {Case{"HWC", F_Crop_HWC_Memcpy, F_Crop_HWC_Arm, TensorShape::HWC, 0},
                        {"CHW", F_Crop_CHW_Memcpy, F_Crop_CHW_Arm, TensorShape::CHW, 0},
                        {"C4HW4", F_Crop_C4HW4_Memcpy, F_Crop_C4HW4_Arm, TensorShape::C4HW4, 4},
                        {"C8HW8", F_Crop_C8HW8_Memcpy, F_Crop_C8HW8_Arm, TensorShape::C8HW8, 8}}) {
    SCOPED_TRACE(c.why);
    for (std::uint32_t i = 0; i < 60; ++i) {
      unsigned int const h = Size(6 * i, 1, 12), w = Size(6 * i + 1, 1, 12), channels = Size(6 * i + 2, 1, 5);
      unsigned int const y = Size(6 * i + 3, 0, h), x = Size(6 * i + 4, 0, w);
      unsigned int const rows = Size(6 * i + 5, 0, h - y), columns = w - x;
      auto const dims = [&](unsigned int height, unsigned int width) {
        if (c.layout == TensorShape::HWC) return Dims{height, width, channels};
        return c.block == 0 ? Dims{channels, height, width} : Dims{channels, height, width, c.block};
      };
      unsigned int const type = i % 2 == 0 ? TensorShape::UINT8 : TensorShape::FLOAT16;
      std::size_t const planes = c.layout == TensorShape::HWC ? 1 : channels;
      std::size_t const pixel = runtime::ElementSize(type) * (planes == 1 && c.layout == TensorShape::HWC ? channels
                                                              : c.block == 0                              ? 1u
                                                                                                          : c.block);
      auto const data = Bytes(i, planes * h * w * pixel);
      auto src = Make(dims(h, w), c.layout, type, data.data());
      ByteVector want;
      for (std::size_t p = 0; p < planes; ++p) {
        for (std::size_t row = y; row < y + rows; ++row) {
          auto const* const first = data.data() + ((p * h + row) * w + x) * pixel;
          want.insert(want.end(), first, first + columns * pixel);
        }
      }
      for (CropFunction function : {c.function, c.twin}) {
        auto dst = Make(dims(rows, columns), c.layout, type, nullptr);
        function(src, y, x, rows, columns, dst);
        ASSERT_EQ(want, BytesOf(dst)) << h << " x " << w << " x " << channels;
      }
    }
  }
}

TEST_P(Crop, FilledCropMayLieOutside) {
  for (std::uint32_t i = 0; i < 200; ++i) {
    unsigned int const h = Size(6 * i, 1, 8), w = Size(6 * i + 1, 1, 8), c = Size(6 * i + 2, 1, 4);
    int const y = static_cast<int>(Size(6 * i + 3, 0, 24)) - 12, x = static_cast<int>(Size(6 * i + 4, 0, 24)) - 12;
    unsigned int const rows = Size(6 * i + 5, 0, 10), columns = Size(6 * i + 6, 0, 10);
    auto src = Image({h, w, c}, TensorShape::HWC, i);
    auto const from = BytesOf(src);
    ByteVector want;
    for (int row = y; row < y + static_cast<int>(rows); ++row) {
      for (int column = x; column < x + static_cast<int>(columns); ++column) {
        bool const inside = row >= 0 && column >= 0 && row < static_cast<int>(h) && column < static_cast<int>(w);
        for (std::size_t k = 0; k < c; ++k) {
          want.push_back(inside ? from[static_cast<std::size_t>(row * static_cast<int>(w) + column) * c + k] : 77);
        }
      }
    }
    for (auto const function : {F_Crop_U8_HWC_Memcpy, F_Crop_U8_HWC_Arm}) {
      auto dst = Image({rows, columns, c}, TensorShape::HWC, i);
      function(src, y, x, static_cast<int>(rows), static_cast<int>(columns), 77, dst);
      ASSERT_EQ(want, BytesOf(dst)) << y << ", " << x;
    }
  }
  auto src = Image({2, 2, 1}, TensorShape::HWC), dst = Image({3, 3, 1}, TensorShape::HWC);
  int const most = std::numeric_limits<int>::max();
  F_Crop_U8_HWC_Memcpy(src, most, most, 3, 3, 5, dst);
  EXPECT_EQ(ByteVector(9, 5), BytesOf(dst)) << "sums of positions do not wrap";
}

TEST_P(Crop, FreeFormsRefuseInOrder) {
  auto hwc = Image({4, 4, 3}, TensorShape::HWC), chw = Image({3, 4, 4}, TensorShape::CHW);
  auto out = Image({2, 2, 3}, TensorShape::HWC), out2 = Image({2, 2, 2}, TensorShape::HWC);
  auto floats = FloatImage({2, 2, 3}, TensorShape::HWC, Floats(1, 12));
  auto elsewhere = Image({4, 4, 3}, TensorShape::HWC);
  elsewhere->shape.location = TensorShape::OpenGLSSBO;
  auto rank2 = Image({4, 12}, TensorShape::HWC), bytes2 = Image({2, 2}, TensorShape::HWC);
  struct Case {
    ImagePtr input, output;
    unsigned int y, x, height, width;
    char const* text;
  };
  for (Case c : {Case{chw, chw, 0, 0, 2, 2, "i_img must be a HWC Layout Tensor."},
                 {elsewhere, chw, 0, 0, 2, 2, "i_img must be a MainMemory Location Tensor."},
                 {hwc, chw, 0, 0, 2, 2, "o_img must be a HWC Layout Tensor."},
                 {hwc, elsewhere, 0, 0, 2, 2, "o_img must be a MainMemory Location Tensor."},
                 {hwc, floats, 0, 0, 2, 2, ""},
                 {rank2, bytes2, 0, 0, 2, 2, "F_Crop_HWC_Arm: i_img has rank 2, needs 3"},
                 {rank2, floats, 0, 0, 2, 2, ""},
                 {hwc, out, 0, 0, 3, 2, ""},
                 {hwc, out, 0, 0, 2, 1, ""},
                 {hwc, out2, 0, 0, 2, 2, ""},
                 {hwc, out, 3, 0, 2, 2, ""},
                 {hwc, out, 0, 3, 2, 2, ""},
                 {hwc, out, 0xFFFFFFFF, 0, 2, 2, ""}}) {
    EXPECT_EQ(Report(c.text), RefusalOf([&] { F_Crop_HWC_Arm(c.input, c.y, c.x, c.height, c.width, c.output); }));
  }
  auto blocks = Image({1, 2, 2, 3}, TensorShape::C4HW4);
  EXPECT_EQ(Report(""), RefusalOf([&] { F_Crop_C4HW4_Memcpy(blocks, 0, 0, 2, 2, blocks); }));
  EXPECT_EQ(Report("i_img must be a C8HW8 Layout Tensor."),
            RefusalOf([&] { F_Crop_C8HW8_Memcpy(blocks, 0, 0, 2, 2, blocks); }));
  EXPECT_EQ(Report("i_img must be a UInt8 DataType Tensor."),
            RefusalOf([&] { F_Crop_U8_HWC_Memcpy(floats, 0, 0, 2, 2, 0, out); }));
  EXPECT_EQ(Report(""), RefusalOf([&] { F_Crop_U8_HWC_Memcpy(hwc, 0, 0, -2, 2, 0, out); }));
  EXPECT_EQ(Report(""), RefusalOf([&] { F_Crop_U8_HWC_Memcpy(hwc, 0, 0, 2, 2, 0, out2); }));
}

INSTANTIATE_TEST_SUITE_P(Sets, Crop, kEverySet);

}  // namespace
}  // namespace talvo::test
