// Grid sampling, which resampling_support.h declares: its loops are compiled for speed.
#include <algorithm>
#include <cmath>
#include <vector>

#include "talvo/kernel/functional/resampling_support.h"
#include "talvo/kernel/rows/mixed_channels.h"
#include "talvo/kernel/rows/transpose.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::kernel::functional {
namespace {

using rows::FourPixels;

constexpr std::size_t kMixed = rows::kChannelsTogether;  // planes that lie side by side

// One axis of a position in the grid: pixel indices, kOutside where there is no pixel to read.
struct GridAxis {
  std::int64_t low, high;
  float weight;
};
constexpr std::int64_t kOutside = -1;

bool IsNan(float value) { return value != value; }

std::int64_t InsideOr(std::int64_t index, std::int64_t extent, std::int64_t otherwise) {
  return index >= 0 && index < extent ? index : otherwise;
}

// The pixel at `position`, a whole number.
std::int64_t NearestPixel(float position, std::int64_t extent, bool border) {
  auto const end = static_cast<float>(extent);
  if (border) return IsNan(position) || position < 0 ? 0 : position >= end ? extent - 1 : std::int64_t(position);
  return position >= 0 && position < end ? InsideOr(std::int64_t(position), extent, kOutside) : kOutside;
}

// `position` inside the pixels or moved there; the neighbour is read inside.
GridAxis ClampedAxis(float position, std::int64_t extent) {
  auto const last = static_cast<float>(extent - 1);
  float const place = IsNan(position) || position < 0 ? 0.0f : std::min(position, last), whole = std::trunc(place);
  auto const low = std::min(static_cast<std::int64_t>(whole), extent - 1);
  return {low, std::min(low + 1, extent - 1), place - whole};
}

// `position` from [-1, extent]: it blends with the zeros around the pixels.
GridAxis FadingAxis(float position, std::int64_t extent) {
  float const whole = std::trunc(position);
  auto const index = static_cast<std::int64_t>(whole);
  if (position < 0) return {kOutside, InsideOr(index, extent, kOutside), position - whole + 1.0f};
  return {InsideOr(index, extent, kOutside), InsideOr(index + 1, extent, kOutside), position - whole};
}

class GridReader {
 public:
  GridReader(ImageSize const& size, GridSampling const& sampling)
      : height_(static_cast<std::int64_t>(size.height)),
        width_(static_cast<std::int64_t>(size.width)),
        sampling_(sampling) {}

  // The offset that stands for 0: there is no such pixel.
  std::uint32_t Outside() const { return static_cast<std::uint32_t>(height_ * width_); }

  std::uint32_t Nearest(float gx, float gy) const {
    return Offset(NearestPixel(std::floor(Scaled(gy, height_)), height_, sampling_.border),
                  NearestPixel(std::floor(Scaled(gx, width_)), width_, sampling_.border));
  }

  FourPixels Bilinear(float gx, float gy) const {
    float const x = sampling_.align_corners ? Scaled(gx, width_ - 1) : Scaled(gx, width_) - 0.5f;
    float const y = sampling_.align_corners ? Scaled(gy, height_ - 1) : Scaled(gy, height_) - 0.5f;
    if (sampling_.border) return At(ClampedAxis(x, width_), ClampedAxis(y, height_));
    float const first = sampling_.align_corners ? 0.0f : -1.0f;
    std::int64_t const less = sampling_.align_corners ? 1 : 0;
    bool const inside =
        x >= first && y >= first && x <= static_cast<float>(width_ - less) && y <= static_cast<float>(height_ - less);
    if (inside) return At(FadingAxis(x, width_), FadingAxis(y, height_));
    std::uint32_t const nothing = Outside();
    return {nothing, nothing, nothing, nothing, 0.0f, 0.0f};
  }

 private:
  static float Scaled(float g, std::int64_t extent) { return (g + 1.0f) * 0.5f * static_cast<float>(extent); }

  std::uint32_t Offset(std::int64_t row, std::int64_t column) const {
    return row == kOutside || column == kOutside ? Outside() : static_cast<std::uint32_t>(row * width_ + column);
  }

  FourPixels At(GridAxis const& x, GridAxis const& y) const {
    return {
        Offset(y.low, x.low), Offset(y.low, x.high), Offset(y.high, x.low), Offset(y.high, x.high), x.weight, y.weight};
  }

  std::int64_t height_, width_;
  GridSampling sampling_;
};

// A plane of `count` pixels, behind which stands 0.
struct Pixels {
  float const* plane;
  std::size_t count;
  float operator[](std::uint32_t offset) const { return offset == count ? 0.0f : plane[offset]; }
};

void SampleRow(Pixels const& pixels, std::vector<std::uint32_t> const& places, float* y) {
  std::size_t const n = places.size();
  for (std::size_t j = 0; j < n; ++j) y[j] = pixels[places[j]];
}

void SampleRow(Pixels const& pixels, std::vector<FourPixels> const& places, float* y) {
  std::size_t const n = places.size();
  for (std::size_t j = 0; j < n; ++j) {
    FourPixels const& at = places[j];
    float const wx = at.weight_x, wy = at.weight_y;
    float const low = pixels[at.low_right] * wx + (1.0f - wx) * pixels[at.low_left];
    float const top = pixels[at.top_right] * wx + pixels[at.top_left] * (1.0f - wx);
    y[j] = low * wy + (1.0f - wy) * top;
  }
}

void TakeMixed(float const* mixed, std::uint32_t const* places, std::size_t n, float* y) {
  rows::TakePixels(mixed, places, n, y);
}
void TakeMixed(float const* mixed, FourPixels const* places, std::size_t n, float* y) {
  rows::BlendFourPixels(mixed, places, n, y);
}

constexpr std::size_t kStrip = 256;  // results that lie side by side before they are parted

// All channels, kMixed or more, at all places, side by side: the last of them move back and are sampled again.
template <class Place>
void SampleMixed(float const* x, ImageSize const& size, std::vector<Place> const& places, float* scratch, float* y) {
  std::size_t const plane = size.height * size.width, n = places.size();
  float* const strip = scratch + (plane + 1) * kMixed;
  std::fill_n(scratch + plane * kMixed, kMixed, 0.0f);
  for (std::size_t next = 0; next < size.channels; next += kMixed) {
    std::size_t const c = std::min(next, size.channels - kMixed);
    rows::TransposeRows(x + c * plane, plane, kMixed, plane, scratch, kMixed);
    for (std::size_t i = 0; i < n; i += kStrip) {
      std::size_t const count = std::min(kStrip, n - i);
      TakeMixed(scratch, places.data() + i, count, strip);
      rows::TransposeRows(strip, kMixed, count, kMixed, y + c * n + i, n);
    }
  }
}

// The places serve all channels. read(gx, gy) gives what SampleRow takes.
template <class Read>
void SampleImage(float const* x, ImageSize const& size, float const* grid, std::size_t out_count, bool mixes,
                 Read const& read, float* scratch, float* y) {
  constexpr std::size_t kBlock = 4096;
  std::size_t const plane = size.height * size.width, block = mixes ? out_count : std::min(kBlock, out_count);
  std::vector<decltype(read(0.0f, 0.0f))> places(block);
  for (std::size_t first = 0; first < out_count; first += block, grid += 2 * block) {
    std::size_t const n = std::min(block, out_count - first);
    places.resize(n);
    for (std::size_t j = 0; j < n; ++j) places[j] = read(grid[2 * j], grid[2 * j + 1]);
    if (mixes) return SampleMixed(x, size, places, scratch, y);
    for (std::size_t c = 0; c < size.channels; ++c)
      SampleRow(Pixels{x + c * plane, plane}, places, y + c * out_count + first);
  }
}

}  // namespace

// Few channels leave lanes empty; a plane much larger than the output, or than the caches, is not worth moving.
std::size_t GridSampleScratch(ImageSize const& size, std::size_t out_count) {
  constexpr std::size_t kMostPixels = 256 * 256;
  std::size_t const plane = size.height * size.width;
  bool const mixes = size.channels >= kMixed && plane <= 4 * out_count && plane <= kMostPixels;
  return mixes ? (plane + 1 + kStrip) * kMixed : 0;
}

void GridSample(float const* x, ImageSize const& size, float const* grid, std::size_t out_count,
                GridSampling const& sampling, float* scratch, float* y) {
  if (size.channels == 0 || out_count == 0) return;
  if (sampling.border && (size.height == 0 || size.width == 0)) {
    utility::Refuse("grid sampling: planes of %zu x %zu pixels have no border to take", size.height, size.width);
  }
  GridReader const reader(size, sampling);
  bool const mixes = GridSampleScratch(size, out_count) != 0;
  auto const nearest = [&](float gx, float gy) { return reader.Nearest(gx, gy); };
  auto const bilinear = [&](float gx, float gy) { return reader.Bilinear(gx, gy); };
  sampling.bilinear ? SampleImage(x, size, grid, out_count, mixes, bilinear, scratch, y)
                    : SampleImage(x, size, grid, out_count, mixes, nearest, scratch, y);
}

}  // namespace talvo::kernel::functional
