#include "talvo/kernel/functional/pooling.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "talvo/kernel/rows/pooling_rows.h"
#include "talvo/utility/log.h"

namespace talvo::kernel::functional {
namespace {

constexpr float kLowest = std::numeric_limits<float>::lowest();

// One padded plane in scratch, its rows sorted by the phase of the column stride: the taps of neighbouring outputs then
// stand side by side. Behind it a line for the padded row before it is sorted, and the divisors.
class PaddedPlane {
 public:
  PaddedPlane(PoolingShape const& shape, PoolingWindow const& window, float* scratch)
      : shape_(shape),
        window_(window),
        height_(shape.height + window.padding_t + window.padding_b),
        width_(shape.width + window.padding_l + window.padding_r),
        pitch_((width_ + window.stride_x - 1) / window.stride_x),
        row_pitch_(pitch_ * std::min(window.stride_x, width_)),
        rows_(scratch) {}

  std::size_t Height() const { return height_; }
  std::size_t Width() const { return width_; }
  // Floats of the plane and of the line behind it.
  std::size_t Count() const { return height_ * row_pitch_ + width_; }

  void Fill(float const* x, float border) {
    for (std::size_t r = 0; r < height_; ++r) {
      bool const inside = r >= window_.padding_t && r < window_.padding_t + shape_.height;
      FillRow(inside ? x + (r - window_.padding_t) * shape_.width : nullptr, border, rows_ + r * row_pitch_);
    }
  }

  // Where tap column `kx` of output column 0 stands; the further outputs follow.
  float const* Tap(std::size_t row, std::size_t kx) const { return rows_ + Offset(row, kx * window_.dilation_x); }

  float At(std::size_t row, std::size_t column) const { return rows_[Offset(row, column)]; }

 private:
  std::size_t Offset(std::size_t row, std::size_t column) const {
    return row * row_pitch_ + column % window_.stride_x * pitch_ + column / window_.stride_x;
  }

  // x is null for a row of the border.
  void FillRow(float const* x, float border, float* row) {
    float* const line = window_.stride_x == 1 ? row : rows_ + height_ * row_pitch_;
    if (x == nullptr) {
      std::fill_n(line, width_, border);
    } else {
      std::fill_n(line, window_.padding_l, border);
      std::copy_n(x, shape_.width, line + window_.padding_l);
      std::fill_n(line + window_.padding_l + shape_.width, window_.padding_r, border);
    }
    if (line != row) rows::SplitPhases(line, width_, window_.stride_x, pitch_, row);
  }

  PoolingShape const& shape_;
  PoolingWindow const& window_;
  std::size_t const height_, width_, pitch_, row_pitch_;
  float* const rows_;
};

// The taps of output row `y` at output column 0, ky outermost; rows behind the plane are its last one.
void CollectTaps(PaddedPlane const& plane, PoolingWindow const& window, std::size_t y,
                 std::vector<float const*>& taps) {
  taps.clear();
  for (std::size_t ky = 0; ky < window.kernel_y; ++ky) {
    std::size_t const row = std::min(y * window.stride_y + ky * window.dilation_y, plane.Height() - 1);
    for (std::size_t kx = 0; kx < window.kernel_x; ++kx) taps.push_back(plane.Tap(row, kx));
  }
}

// Output columns whose taps all lie in the plane.
std::size_t InnerColumns(PaddedPlane const& plane, PoolingShape const& shape, PoolingWindow const& window) {
  std::size_t const reach = window.kernel_x == 0 ? 0 : (window.kernel_x - 1) * window.dilation_x;
  return reach >= plane.Width() ? 0 : std::min(shape.out_width, (plane.Width() - 1 - reach) / window.stride_x + 1);
}

// One output near the right end, whose taps behind the plane read its last column.
float ClampedMaximum(PaddedPlane const& plane, PoolingWindow const& window, std::size_t y, std::size_t x) {
  float best = kLowest;
  for (std::size_t ky = 0; ky < window.kernel_y; ++ky) {
    std::size_t const row = std::min(y * window.stride_y + ky * window.dilation_y, plane.Height() - 1);
    for (std::size_t kx = 0; kx < window.kernel_x; ++kx) {
      float const v = plane.At(row, std::min(x * window.stride_x + kx * window.dilation_x, plane.Width() - 1));
      best = v <= best ? best : v;
    }
  }
  return best;
}

// Taps from `start` along one axis of the window that lie inside the plane.
std::size_t InnerTaps(std::size_t start, std::size_t kernel, std::size_t before, std::size_t extent) {
  std::size_t const first = std::max(start, before), end = std::min(start + kernel, before + extent);
  return end > first ? end - first : 0;
}

void FillDivisors(PoolingShape const& shape, PoolingWindow const& window, bool count_include_pad, float* divisors) {
  std::size_t const area = window.kernel_x * window.kernel_y;
  for (std::size_t y = 0; y < shape.out_height; ++y) {
    std::size_t const rows = InnerTaps(y * window.stride_y, window.kernel_y, window.padding_t, shape.height);
    for (std::size_t x = 0; x < shape.out_width; ++x) {
      std::size_t const columns = InnerTaps(x * window.stride_x, window.kernel_x, window.padding_l, shape.width);
      float divisor = static_cast<float>(area);
      for (std::size_t tap = rows * columns; !count_include_pad && tap < area; ++tap) divisor -= 1.0f;
      *divisors++ = divisor;
    }
  }
}

// The rows or columns of one output of adaptive pooling: [begin, end).
struct Region {
  std::size_t begin, end;
};

std::vector<Region> Regions(std::size_t extent, std::size_t out_extent, char const* what) {
  float const step = static_cast<float>(extent) / static_cast<float>(out_extent);
  std::vector<Region> regions;
  for (std::size_t i = 0; i < out_extent; ++i) {
    auto const begin = static_cast<std::size_t>(std::floor(static_cast<float>(i) * step));
    auto const end = static_cast<std::size_t>(std::ceil(static_cast<float>(i + 1) * step));
    utility::Assert(end <= extent, "adaptive pooling of %zu %s to %zu: in float32 output %zu reaches to %zu", extent,
                    what, out_extent, i, end);
    regions.push_back({begin, end});
  }
  return regions;
}

// kChannels channels side by side, each with a sum of its own.
template <std::size_t kChannels>
void AdaptiveMeans(float const* x, PoolingShape const& shape, Region const& rows, Region const& columns, float* y) {
  std::size_t const plane = shape.height * shape.width, out_plane = shape.out_height * shape.out_width;
  float sums[kChannels] = {};
  for (std::size_t r = rows.begin; r < rows.end; ++r) {
    for (std::size_t q = columns.begin; q < columns.end; ++q) {
      for (std::size_t c = 0; c < kChannels; ++c) sums[c] += x[c * plane + r * shape.width + q];
    }
  }
  auto const row_count = static_cast<float>(rows.end - rows.begin);
  auto const column_count = static_cast<float>(columns.end - columns.begin);
  for (std::size_t c = 0; c < kChannels; ++c) y[c * out_plane] = (sums[c] / row_count) / column_count;
}

}  // namespace

std::size_t pool_scratch_f32(PoolingShape const& shape, PoolingWindow const& window) {
  return PaddedPlane(shape, window, nullptr).Count() + shape.out_height * shape.out_width;
}

void max_pool_f32(float const* x, PoolingShape const& shape, PoolingWindow const& window, float* scratch, float* y) {
  PaddedPlane plane(shape, window, scratch);
  std::size_t const inner = InnerColumns(plane, shape, window);
  std::vector<float const*> taps;
  for (std::size_t c = 0; c < shape.channels; ++c, x += shape.height * shape.width) {
    plane.Fill(x, kLowest);
    for (std::size_t row = 0; row < shape.out_height; ++row, y += shape.out_width) {
      CollectTaps(plane, window, row, taps);
      rows::MaximumOfTaps(taps.data(), taps.size(), inner, y);
      for (std::size_t column = inner; column < shape.out_width; ++column)
        y[column] = ClampedMaximum(plane, window, row, column);
    }
  }
}

void average_pool_f32(float const* x, PoolingShape const& shape, PoolingWindow const& window, bool count_include_pad,
                      float* scratch, float* y) {
  PaddedPlane plane(shape, window, scratch);
  float* const divisors = scratch + plane.Count();
  FillDivisors(shape, window, count_include_pad, divisors);
  std::vector<float const*> taps;
  for (std::size_t c = 0; c < shape.channels; ++c, x += shape.height * shape.width) {
    plane.Fill(x, 0.0f);
    for (std::size_t row = 0; row < shape.out_height; ++row, y += shape.out_width) {
      CollectTaps(plane, window, row, taps);
      rows::MeanOfTaps(taps.data(), taps.size(), divisors + row * shape.out_width, shape.out_width, y);
    }
  }
}

void adaptive_average_pool_f32(float const* x, PoolingShape const& shape, float* y) {
  constexpr std::size_t kTogether = 8;
  auto const rows = Regions(shape.height, shape.out_height, "rows"),
             columns = Regions(shape.width, shape.out_width, "columns");
  std::size_t const plane = shape.height * shape.width, out_plane = shape.out_height * shape.out_width;
  for (std::size_t c = 0; c < shape.channels;) {
    bool const together = c + kTogether <= shape.channels;
    float* to = y + c * out_plane;
    for (Region const& r : rows) {
      for (Region const& q : columns) {
        (together ? AdaptiveMeans<kTogether> : AdaptiveMeans<1>)(x + c * plane, shape, r, q, to++);
      }
    }
    c += together ? kTogether : 1;
  }
}

}  // namespace talvo::kernel::functional
