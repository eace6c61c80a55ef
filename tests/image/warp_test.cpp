#include "talvo/image/warp.h"

#include <array>
#include <cmath>
#include <cstring>
#include <limits>

#include "talvo/image/image_process_fallback.h"
#include "tests/image/image_test_support.h"

namespace talvo::test {
namespace {

using kernel::functional::F_WarpAffine_Bilinear_CHW_F32_Arm;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
using Matrix = std::array<float, 6>;

constexpr Matrix kMatrices[] = {
    {1, 0, 0, 0, 1, 0},                // identity
    {2, 0, 0, 0, 2, 0},                // scale
    {0.7f, -0.7f, 5, 0.7f, 0.7f, 1},   // rotation
    {-1, 0.01f, 9, 0.3f, -1, 9.5f},    // mirror
    {1e9f, 0, 0, 0, 1, 0},             // leaves int
    {0.5f, 0, -0.7f, 0, 0.5f, -0.3f},  // negative positions that truncate to 0
    {kNaN, 0, 0, 0, 1, 0},             // never inside
};

class Warp : public ImageTest {
 protected:
  kernel::ImageProcessFallback process_;
};

// Truncated; -1 for what is no int.
int Whole(float v) { return v > -2147483648.0f && v < 2147483648.0f ? static_cast<int>(v) : -1; }

struct Case {
  unsigned int channels, from_h, from_w, to_h, to_w;
};

std::vector<Case> Cases() {
  std::vector<Case> cases = {{1, 1, 1, 1, 1}, {3, 1, 5, 5, 1}, {2, 16, 16, 16, 16}};
  for (std::uint32_t i = 0; i < 25; ++i) {
    cases.push_back(
        {1 + i % 4, Size(4 * i, 1, 20), Size(4 * i + 1, 1, 20), Size(4 * i + 2, 1, 24), Size(4 * i + 3, 1, 24)});
  }
  return cases;
}

TEST_F(Warp, ClassFormsWorkInPixels) {
  for (Matrix const& m : kMatrices) {
    for (Case const& c : Cases()) {
      auto const from = Floats(1, c.channels * c.from_h * c.from_w), before = Floats(2, c.channels * c.to_h * c.to_w);
      auto src = FloatImage({c.channels, c.from_h, c.from_w}, TensorShape::CHW, from);
      auto want_forward = before, want_inverse = before, want_bilinear = before;
      auto const position = [&](int x, int y, float const* row) {
        return row[0] * static_cast<float>(x) + row[1] * static_cast<float>(y) + row[2];
      };
      int const fh = static_cast<int>(c.from_h), fw = static_cast<int>(c.from_w);
      int const th = static_cast<int>(c.to_h), tw = static_cast<int>(c.to_w);
      auto const at = [](unsigned int k, int y, int x, unsigned int h, unsigned int w) {
        return (k * h + static_cast<unsigned int>(y)) * w + static_cast<unsigned int>(x);
      };
      for (int y = 0; y < fh; ++y) {
        for (int x = 0; x < fw; ++x) {
          int const tx = Whole(position(x, y, &m[0]) + 0.5f), ty = Whole(position(x, y, &m[3]) + 0.5f);
          if (tx < 0 || tx > tw - 1 || ty < 0 || ty > th - 1) continue;
          for (unsigned int k = 0; k < c.channels; ++k) {
            want_forward[at(k, ty, tx, c.to_h, c.to_w)] = from[at(k, y, x, c.from_h, c.from_w)];
          }
        }
      }
      for (int y = 0; y < th; ++y) {
        for (int x = 0; x < tw; ++x) {
          float const u = position(x, y, &m[0]), v = position(x, y, &m[3]);
          int const sx = Whole(u + 0.5f), sy = Whole(v + 0.5f), ix = Whole(u), iy = Whole(v);
          float const fx = u < 0 ? 0 : u - static_cast<float>(ix), fy = v < 0 ? 0 : v - static_cast<float>(iy);
          for (unsigned int k = 0; k < c.channels; ++k) {
            std::size_t const to = at(k, y, x, c.to_h, c.to_w);
            auto const t = [&](int dx, int dy) { return from[at(k, iy + dy, ix + dx, c.from_h, c.from_w)]; };
            if (sx >= 0 && sx <= fw - 1 && sy >= 0 && sy <= fh - 1)
              want_inverse[to] = from[at(k, sy, sx, c.from_h, c.from_w)];
            if (ix < 0 || ix >= fw - 1 || iy < 0 || iy >= fh - 1) continue;
            want_bilinear[to] =
                (t(1, 1) * fx + t(0, 1) * (1 - fx)) * fy + (t(1, 0) * fx + t(0, 0) * (1 - fx)) * (1 - fy);
          }
        }
      }
      Dims const to_dims = {c.channels, c.to_h, c.to_w};
      auto forward = FloatImage(to_dims, TensorShape::CHW, before),
           inverse = FloatImage(to_dims, TensorShape::CHW, before);
      auto bilinear = FloatImage(to_dims, TensorShape::CHW, before);
      process_.Affine_Float(src, forward, m.data(), nullptr);
      process_.Affine_INV_Float(src, inverse, m.data(), nullptr);
      process_.Affine_INV_BILINEAR_Float(src, bilinear, m.data(), nullptr);
      ExpectSameBits(want_forward, Values(*forward));
      ExpectSameBits(want_inverse, Values(*inverse));
      ExpectSameBits(want_bilinear, Values(*bilinear));
      if (HasFailure())
        FAIL() << c.channels << ": " << c.from_h << " x " << c.from_w << " to " << c.to_h << " x " << c.to_w;
    }
  }
}

TEST_F(Warp, FreeFormWorksInNormalisedCoordinates) {
  for (Matrix const& m : kMatrices) {
    for (Case const& c : Cases()) {
      auto const plain = Floats(3, c.channels * c.from_h * c.from_w);
      auto const h = static_cast<float>(c.from_h), w = static_cast<float>(c.from_w);
      std::vector<float> want;
      for (unsigned int k = 0; k < c.channels; ++k) {
        for (unsigned int j = 0; j < c.to_h; ++j) {
          for (unsigned int i = 0; i < c.to_w; ++i) {
            float const ny = (static_cast<float>(j) + 0.5f) * (1.0f / (static_cast<float>(c.to_h) * 0.5f)) - 1.0f;
            float const nx = (static_cast<float>(i) + 0.5f) * (1.0f / (static_cast<float>(c.to_w) * 0.5f)) - 1.0f;
            float const sx = m[0] * 0.5f * w * nx + m[1] * 0.5f * h * ny + ((m[2] * 0.5f + 0.5f) * w - 0.5f);
            float const sy = m[3] * 0.5f * w * nx + m[4] * 0.5f * h * ny + ((m[5] * 0.5f + 0.5f) * h - 0.5f);
            int const ix = Whole(sx), iy = Whole(sy), fw = static_cast<int>(c.from_w), fh = static_cast<int>(c.from_h);
            bool const is_int = sx - static_cast<float>(ix) < 1 && sy - static_cast<float>(iy) < 1;
            float const fx = is_int ? sx - static_cast<float>(ix) : 0, fy = is_int ? sy - static_cast<float>(iy) : 0;
            auto const t = [&](int x, int y, bool inside) {
              return inside ? plain[(k * c.from_h + static_cast<unsigned int>(y)) * c.from_w +
                                    static_cast<unsigned int>(x)]
                            : 0;
            };
            bool const left = 0 < ix && ix < fw, top = 0 < iy && iy < fh;
            bool const right = 0 <= ix && ix + 1 < fw, bottom = 0 <= iy && iy + 1 < fh;
            float const t00 = t(ix, iy, left && top), t10 = t(ix + 1, iy, right && top);
            float const t01 = t(ix, iy + 1, left && bottom), t11 = t(ix + 1, iy + 1, right && bottom);
            want.push_back(fy * (t11 * fx + t01 * (1 - fx)) + (1 - fy) * (t10 * fx + t00 * (1 - fx)));
          }
        }
      }
      auto const image = FloatImage({c.channels, c.from_h, c.from_w}, TensorShape::CHW, plain);
      auto const matrix = FloatImage({2, 3}, TensorShape::FLEXIABLE, {m.begin(), m.end()});
      auto out = FloatImage({c.channels, c.to_h, c.to_w}, TensorShape::CHW, Floats(4, want.size()));
      F_WarpAffine_Bilinear_CHW_F32_Arm(image, matrix, out);
      ExpectSameBits(want, Values(*out));
      if (HasFailure())
        FAIL() << c.channels << ": " << c.from_h << " x " << c.from_w << " to " << c.to_h << " x " << c.to_w;
    }
  }
}

TEST_F(Warp, IdentityKeepsAllButTheEdges) {
  auto const data = Floats(1, 64), before = Floats(2, 64);
  auto image = FloatImage({1, 8, 8}, TensorShape::CHW, data),
       bilinear = FloatImage({1, 8, 8}, TensorShape::CHW, before);
  auto free = FloatImage({1, 8, 8}, TensorShape::CHW, before);
  Matrix const& identity = kMatrices[0];
  process_.Affine_INV_BILINEAR_Float(image, bilinear, identity.data(), nullptr);
  F_WarpAffine_Bilinear_CHW_F32_Arm(image, FloatImage({6}, TensorShape::C, {identity.begin(), identity.end()}), free);
  for (std::size_t i = 0; i < 64; ++i) {
    EXPECT_EQ(i % 8 == 7 || i / 8 == 7 ? before[i] : data[i], Values(*bilinear)[i]);
    EXPECT_EQ(i % 8 == 0 || i / 8 == 0 ? 0.0f : data[i], Values(*free)[i]);
  }
}

TEST_F(Warp, ShortElementsMoveFourBytes) {
  auto bytes = Image({1, 2, 4}, TensorShape::CHW, {1, 2, 3, 4, 5, 6, 7, 8});
  auto wide = Make({1, 2, 4}, TensorShape::CHW, TensorShape::INT32, ByteVector(32, 0).data());
  float const first_row[] = {1, 0, 0, 0, 100, 0};  // only the row 0 stays inside
  process_.Affine_Float(bytes, wide, first_row, nullptr);
  auto const before = BytesOf(wide);
  EXPECT_EQ((ByteVector{1, 2, 3, 4, 2, 3, 4, 5, 3, 4, 5, 6, 4, 5, 6, 7}),
            ByteVector(before.begin(), before.begin() + 16));
  EXPECT_EQ(Report("Affine_Float: a move of 4 bytes at byte 5 of src passes its end at 8"),
            RefusalOf([&] { process_.Affine_Float(bytes, wide, kMatrices[0].data(), nullptr); }));
  EXPECT_EQ(before, BytesOf(wide)) << "a refused call moves nothing";
  EXPECT_EQ(Report("Affine_INV_BILINEAR_Float: a move of 4 bytes at byte 5 of src passes its end at 8"),
            RefusalOf([&] { process_.Affine_INV_BILINEAR_Float(bytes, wide, kMatrices[0].data(), nullptr); }));
}

TEST_F(Warp, Refuses) {
  auto image = FloatImage({2, 2, 2}, TensorShape::CHW, Floats(1, 8)),
       flat = FloatImage({4}, TensorShape::C, Floats(1, 4));
  auto plane = FloatImage({1, 2, 2}, TensorShape::CHW, Floats(1, 4)),
       hwc = FloatImage({2, 2, 2}, TensorShape::HWC, Floats(1, 8));
  float const* const m = kMatrices[0].data();
  EXPECT_EQ(Report(""), RefusalOf([&] { process_.Affine_Float(hwc, image, m, nullptr); }));
  EXPECT_EQ(Report("Affine_INV_Float: the matrix is null"),
            RefusalOf([&] { process_.Affine_INV_Float(image, image, nullptr, nullptr); }));
  EXPECT_EQ(Report("Affine_Float: dst of dims [1, 2, 2] holds 16 bytes, needs 32"),
            RefusalOf([&] { process_.Affine_Float(image, plane, m, nullptr); }));
  EXPECT_EQ(Report("Affine_INV_BILINEAR_Float: src of dims [1, 2, 2] holds 16 bytes, needs 32"),
            RefusalOf([&] { process_.Affine_INV_BILINEAR_Float(plane, image, m, nullptr); }));
  EXPECT_EQ(Report("Not Implemented."), RefusalOf([&] { process_.Affine_Unimplemented(image, image, m, nullptr); }));
  EXPECT_EQ(Report("Not Implemented."),
            RefusalOf([&] { process_.Affine_INV_Unimplemented(image, image, m, nullptr); }));
  ImagePtr none;
  EXPECT_EQ(Report("i_mat must be a vaild TensorCPUPtr."),
            RefusalOf([&] { F_WarpAffine_Bilinear_CHW_F32_Arm(image, none, none); }));
  EXPECT_EQ(Report("F_WarpAffine_Bilinear_CHW_F32_Arm: i_mat of dims [4] holds 16 bytes, needs 24"),
            RefusalOf([&] { F_WarpAffine_Bilinear_CHW_F32_Arm(image, flat, image); }));
  EXPECT_EQ(Report("F_WarpAffine_Bilinear_CHW_F32_Arm: i_img of dims [1, 2, 2] holds 16 bytes, needs 32"),
            RefusalOf([&] { F_WarpAffine_Bilinear_CHW_F32_Arm(plane, image, image); }));
}

}  // namespace
}  // namespace talvo::test
