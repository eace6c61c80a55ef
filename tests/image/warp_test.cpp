#include "talvo/image/warp.h"

#include <array>
#include <cstring>
#include <limits>

#include "tests/image/image_test_support.h"

namespace talvo::test {
namespace {

using kernel::functional::F_WarpAffine_Bilinear_CHW_F32_Arm;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
using Matrix = std::array<float, 6>;

constexpr Matrix kMatrices[] = {
    {1, 0, 0, 0, 1, 0},                      // identity
    {2, 0, 0, 0, 2, 0},                      // scale
    {0.7f, -0.7f, 5, 0.7f, 0.7f, 1},         // rotation
    {-1, 0.01f, 9, 0.3f, -1, 9.5f},          // mirror
    {-0.8f, 0.8f, 0.5f, -0.8f, 0.8f, 0.5f},  // ties that a fused step, of either product, decides otherwise
    {1e9f, 0, 0, 0, 1, 0},                   // leaves int
    {0.5f, 0, -0.7f, 0, 0.5f, -0.3f},        // negative positions that truncate to 0
    {kNaN, 0, 0, 0, 1, 0},                   // never inside
};

class Warp : public ImageTest {
 protected:
  ImagePtr Warped(int code, Matrix const& m, ImagePtr src, ImagePtr dst) {
    process_.ConvertPixel(src, dst, m.data(), code, nullptr);
    return dst;
  }
};

// Planes of elements of any size, and how often their pixels are walked.
struct Planes {
  unsigned int channels;
  int h, w;

  Dims dims() const { return {channels, static_cast<unsigned int>(h), static_cast<unsigned int>(w)}; }
  std::size_t count() const { return runtime::ElementCount(dims()); }
  bool Holds(int y, int x) const { return y >= 0 && y < h && x >= 0 && x < w; }
  std::size_t At(unsigned int k, int y, int x) const {
    return (k * static_cast<std::size_t>(h) + static_cast<std::size_t>(y)) * static_cast<std::size_t>(w) +
           static_cast<std::size_t>(x);
  }
  template <class Visit>
  void ForEach(Visit const& visit) const {
    for (int y = 0; y < h; ++y) {
      for (int x = 0; x < w; ++x) {
        for (unsigned int k = 0; k < channels; ++k) visit(k, y, x);
      }
    }
  }
};

// Truncated; -1 for what is no int.
int Whole(float v) { return v > -2147483648.0f && v < 2147483648.0f ? static_cast<int>(v) : -1; }

float Mapped(float const* row, int x, int y) {
  return row[0] * static_cast<float>(x) + row[1] * static_cast<float>(y) + row[2];
}

float Blend(float t00, float t10, float t01, float t11, float fx, float fy) {
  return (t11 * fx + t01 * (1 - fx)) * fy + (t10 * fx + t00 * (1 - fx)) * (1 - fy);
}

// Pairs of images of the same channels.
std::vector<std::pair<Planes, Planes>> Pairs() {
  std::vector<std::pair<Planes, Planes>> pairs = {
      {{1, 1, 1}, {1, 1, 1}}, {{3, 1, 5}, {3, 5, 1}}, {{2, 16, 16}, {2, 16, 16}}};
  auto const extent = [](std::uint32_t i, unsigned int most) { return static_cast<int>(Size(i, 1, most)); };
  for (std::uint32_t i = 0; i < 25; ++i) {
    pairs.push_back({{1 + i % 4, extent(4 * i, 20), extent(4 * i + 1, 20)},
                     {1 + i % 4, extent(4 * i + 2, 24), extent(4 * i + 3, 24)}});
  }
  return pairs;
}

TEST_P(Warp, NearestMovesFourBytesForAnElementOfAnySize) {
  struct Types {
    unsigned int src, dst;
  };
  // With the short elements only row 0 maps inside, so that no move passes an end.
  Matrix const first_row = {1, 0, 0, 0, 100, 0};
  for (Types const& types : {Types{TensorShape::FLOAT32, TensorShape::FLOAT32},
                             {TensorShape::UINT8, TensorShape::INT32},
                             {TensorShape::INT32, TensorShape::INT16},
                             {TensorShape::INT16, TensorShape::UINT8}}) {
    std::size_t const src_bytes = runtime::ElementSize(types.src), dst_bytes = runtime::ElementSize(types.dst);
    bool const is_short = src_bytes < 4 || dst_bytes < 4;
    for (Matrix const& any : kMatrices) {
      Matrix const& m = is_short ? first_row : any;
      for (auto const& [from, to] : Pairs()) {
        Planes const src = is_short ? Planes{2, 3, 5} : from, dst = is_short ? Planes{2, 4, 6} : to;
        auto const data = Bytes(1, src.count() * src_bytes), before = Bytes(2, dst.count() * dst_bytes);
        auto const image = Make(src.dims(), TensorShape::CHW, types.src, data.data());
        auto forward = before, inverse = before;
        auto const map = [&](Planes const& other, int y, int x, auto const& move) {
          int const ty = Whole(Mapped(&m[3], x, y) + 0.5f), tx = Whole(Mapped(&m[0], x, y) + 0.5f);
          if (other.Holds(ty, tx)) move(ty, tx);
        };
        auto const move = [&](std::size_t from_element, ByteVector& bytes, std::size_t to_element) {
          std::memcpy(bytes.data() + to_element * dst_bytes, data.data() + from_element * src_bytes, 4);
        };
        src.ForEach([&](unsigned int k, int y, int x) {
          map(dst, y, x, [&](int ty, int tx) { move(src.At(k, y, x), forward, dst.At(k, ty, tx)); });
        });
        dst.ForEach([&](unsigned int k, int y, int x) {
          map(src, y, x, [&](int sy, int sx) { move(src.At(k, sy, sx), inverse, dst.At(k, y, x)); });
        });
        auto const made = [&] { return Make(dst.dims(), TensorShape::CHW, types.dst, before.data()); };
        ASSERT_EQ(forward, BytesOf(Warped(56, m, image, made()))) << types.src << " to " << types.dst;
        ASSERT_EQ(inverse, BytesOf(Warped(57, m, image, made()))) << types.src << " to " << types.dst;
      }
    }
  }
}

TEST_P(Warp, BilinearWorksInPixelsOrInNormalisedCoordinates) {
  for (Matrix const& m : kMatrices) {
    for (auto const& [src, dst] : Pairs()) {
      auto const from = Floats(1, src.count()), before = Floats(2, dst.count());
      auto want = before, want_free = before;
      float const fw = static_cast<float>(src.w), fh = static_cast<float>(src.h);
      dst.ForEach([&, &s = src, &d = dst](unsigned int k, int y, int x) {
        auto const t = [&](int ty, int tx, bool inside) { return inside ? from[s.At(k, ty, tx)] : 0.0f; };
        float const u = Mapped(&m[0], x, y), v = Mapped(&m[3], x, y);
        int const ix = Whole(u), iy = Whole(v);
        if (ix >= 0 && ix < s.w - 1 && iy >= 0 && iy < s.h - 1) {
          want[d.At(k, y, x)] =
              Blend(t(iy, ix, true), t(iy, ix + 1, true), t(iy + 1, ix, true), t(iy + 1, ix + 1, true),
                    u < 0 ? 0 : u - static_cast<float>(ix), v < 0 ? 0 : v - static_cast<float>(iy));
        }
        float const ny = (static_cast<float>(y) + 0.5f) * (1.0f / (static_cast<float>(d.h) * 0.5f)) - 1.0f;
        float const nx = (static_cast<float>(x) + 0.5f) * (1.0f / (static_cast<float>(d.w) * 0.5f)) - 1.0f;
        float const px = m[0] * 0.5f * fw * nx + m[1] * 0.5f * fh * ny + ((m[2] * 0.5f + 0.5f) * fw - 0.5f);
        float const py = m[3] * 0.5f * fw * nx + m[4] * 0.5f * fh * ny + ((m[5] * 0.5f + 0.5f) * fh - 0.5f);
        int const jx = Whole(px), jy = Whole(py);
        bool const left = 0 < jx && jx < s.w, top = 0 < jy && jy < s.h;
        bool const right = 0 <= jx && jx + 1 < s.w, bottom = 0 <= jy && jy + 1 < s.h;
        bool const any = (left || right) && (top || bottom);  // else the parts need not be numbers
        want_free[d.At(k, y, x)] =
            any ? Blend(t(jy, jx, left && top), t(jy, jx + 1, right && top), t(jy + 1, jx, left && bottom),
                        t(jy + 1, jx + 1, right && bottom), px - static_cast<float>(jx), py - static_cast<float>(jy))
                : 0.0f;
      });
      auto const image = FloatImage(src.dims(), TensorShape::CHW, from);
      ExpectSameBits(want, Values(*Warped(58, m, image, FloatImage(dst.dims(), TensorShape::CHW, before))));
      auto free = FloatImage(dst.dims(), TensorShape::CHW, before);
      F_WarpAffine_Bilinear_CHW_F32_Arm(image, FloatImage({6}, TensorShape::C, {m.begin(), m.end()}), free);
      ExpectSameBits(want_free, Values(*free));
      if (HasFailure()) FAIL() << src.channels << ": " << src.h << " x " << src.w << " to " << dst.h << " x " << dst.w;
    }
  }
}

TEST_P(Warp, ShortSourcesAreReadAsFloatsAndMovesStayInside) {
  auto const data = Bytes(3, 48);
  auto const shorts = Make({2, 3, 4}, TensorShape::CHW, TensorShape::INT16, data.data());
  auto const value = [&](std::size_t element) {
    float number = 0.0f;
    std::memcpy(&number, data.data() + 2 * element, sizeof(number));
    return number;
  };
  std::vector<float> want(24, 7.0f);
  for (std::size_t k : {0u, 12u}) {
    for (std::size_t x = 0; x < 3; ++x) {
      want[k + x] = Blend(value(k + x), value(k + x + 1), value(k + x + 4), value(k + x + 5), 0.25f, 0.5f);
    }
  }
  auto const dst = FloatImage({2, 3, 4}, TensorShape::CHW, std::vector<float>(24, 7.0f));
  ExpectSameBits(want, Values(*Warped(58, {1, 0, 0.25f, 0, 100, 0.5f}, shorts, dst)));
  auto const bytes = Image({1, 2, 4}, TensorShape::CHW), wide = FloatImage({1, 2, 4}, TensorShape::CHW, Floats(1, 8));
  auto const before = BytesOf(bytes), wide_before = BytesOf(wide);
  TensorShape const long_plane({1, 65536, 32768}, TensorShape::UINT8, TensorShape::CHW, TensorShape::MainMemory, {});
  auto const huge = context_->device_cpu->CreateTensorExternal(long_plane, bytes->data);  // nobody gets to its end
  struct Case {
    int code;
    ImagePtr src, dst;
    char const* text;
  };
  for (Case const& c :
       {Case{56, bytes, wide, "Affine_Float: a move of 4 bytes at byte 5 of src passes its end at 8"},
        {57, wide, bytes, "Affine_INV_Float: a move of 4 bytes at byte 5 of dst passes its end at 8"},
        {58, bytes, wide, "Affine_INV_BILINEAR_Float: a move of 4 bytes at byte 5 of src passes its end at 8"},
        {58, huge, wide, "Affine_INV_BILINEAR_Float: a plane of src has 2147483648 elements, needs fewer than 2^31"}}) {
    EXPECT_EQ(Report(c.text), RefusalOf([&] { Warped(c.code, kMatrices[0], c.src, c.dst); }));
  }
  EXPECT_EQ(before, BytesOf(bytes)) << "a refused call moves nothing";
  EXPECT_EQ(wide_before, BytesOf(wide)) << "a refused call moves nothing";
  ImagePtr src = wide, to = wide;
  EXPECT_EQ(Report("Affine_INV_Float: the matrix is null"),
            RefusalOf([&] { process_.ConvertPixel(src, to, nullptr, 57, nullptr); }));
}

INSTANTIATE_TEST_SUITE_P(Sets, Warp, kEverySet);

}  // namespace
}  // namespace talvo::test
