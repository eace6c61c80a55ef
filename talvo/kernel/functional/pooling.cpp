#include "talvo/kernel/functional/pooling.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "talvo/kernel/rows/pooling_rows.h"
#include "talvo/utility/log.h"

namespace talvo::kernel::functional {
namespace {

constexpr float kLowest = std::numeric_limits<float>::lowest();

// Whole cache lines, so that the taps of column 0 stand aligned; not for strides whose many short phases would waste
// memory.
std::size_t PhasePitch(std::size_t count, std::size_t stride) {
  constexpr std::size_t kLine = 64 / sizeof(float);
  return stride <= 2 ? (count + kLine - 1) / kLine * kLine : count;
}

// One padded plane in scratch, its rows sorted by the phase of the column stride: the taps of neighbouring outputs then
// stand side by side.
class PaddedPlane {
 public:
  PaddedPlane(PoolingShape const& shape, PoolingWindow const& window, float* scratch)
      : shape_(shape),
        window_(window),
        height_(shape.height + window.padding_t + window.padding_b),
        width_(shape.width + window.padding_l + window.padding_r),
        phase_pitch_(PhasePitch((width_ + window.stride_x - 1) / window.stride_x, window.stride_x)),
        row_pitch_(phase_pitch_ * std::min(window.stride_x, width_)),
        rows_(scratch) {}

  std::size_t Height() const { return height_; }
  std::size_t Width() const { return width_; }
  std::size_t Count() const { return height_ * row_pitch_; }
  float const* Row(std::size_t row) const { return rows_ + row * row_pitch_; }

  // Once for all planes: nothing else writes to the border.
  void FillBorder(float border) { std::fill_n(rows_, Count(), border); }

  void Fill(float const* x) {
    rows::CopyPhases(x, {shape_.height, shape_.width, window_.padding_l, window_.stride_x, phase_pitch_, row_pitch_},
                     rows_ + window_.padding_t * row_pitch_);
  }

  // Where the taps of output (y, 0) stand behind Row(y * stride_y), ky outermost; rows behind the plane are its last
  // one.
  std::vector<std::size_t> TapOffsets(std::size_t y) const {
    std::vector<std::size_t> offsets;
    std::size_t const first = y * window_.stride_y;
    for (std::size_t ky = 0; ky < window_.kernel_y; ++ky) {
      std::size_t const row = std::min(first + ky * window_.dilation_y, height_ - 1);
      for (std::size_t kx = 0; kx < window_.kernel_x; ++kx) {
        offsets.push_back((row - first) * row_pitch_ + Place(kx * window_.dilation_x));
      }
    }
    return offsets;
  }

  std::size_t RowStep() const { return window_.stride_y * row_pitch_; }
  float At(std::size_t row, std::size_t column) const { return Row(row)[Place(column)]; }

 private:
  std::size_t Place(std::size_t column) const {
    return column % window_.stride_x * phase_pitch_ + column / window_.stride_x;
  }

  PoolingShape const& shape_;
  PoolingWindow const& window_;
  std::size_t const height_, width_, phase_pitch_, row_pitch_;
  float* const rows_;
};

// Outputs along one axis whose taps all lie in the padded extent.
std::size_t InnerOutputs(std::size_t outputs, std::size_t kernel, std::size_t dilation, std::size_t stride,
                         std::size_t extent) {
  std::size_t const reach = kernel == 0 ? 0 : (kernel - 1) * dilation;
  return reach >= extent ? 0 : std::min(outputs, (extent - 1 - reach) / stride + 1);
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

// A row of outputs of which some reach behind the plane.
void EdgeRow(PaddedPlane const& plane, PoolingShape const& shape, PoolingWindow const& window, std::size_t row,
             std::size_t inner_columns, float* y) {
  std::size_t const first = row * window.stride_y;
  if (first < plane.Height()) {
    auto const offsets = plane.TapOffsets(row);
    rows::MaximumOfTaps(plane.Row(first), {offsets.data(), offsets.size(), 1, inner_columns, 0}, y);
  } else {
    inner_columns = 0;
  }
  for (std::size_t x = inner_columns; x < shape.out_width; ++x) y[x] = ClampedMaximum(plane, window, row, x);
}

// Taps from `start` along one axis of the window that lie inside the plane.
std::size_t InnerTaps(std::size_t start, std::size_t kernel, std::size_t before, std::size_t extent) {
  std::size_t const first = std::max(start, before), end = std::min(start + kernel, before + extent);
  return end > first ? end - first : 0;
}

void FillDivisors(PoolingShape const& shape, PoolingWindow const& window, bool count_include_pad, float* divisors) {
  std::size_t const area = window.kernel_x * window.kernel_y;
  if (count_include_pad) {
    std::fill_n(divisors, shape.out_height * shape.out_width, static_cast<float>(area));
    return;
  }
  for (std::size_t y = 0; y < shape.out_height; ++y) {
    std::size_t const rows = InnerTaps(y * window.stride_y, window.kernel_y, window.padding_t, shape.height);
    for (std::size_t x = 0; x < shape.out_width; ++x) {
      std::size_t const columns = InnerTaps(x * window.stride_x, window.kernel_x, window.padding_l, shape.width);
      float divisor = static_cast<float>(area);
      for (std::size_t tap = rows * columns; tap < area; ++tap) divisor -= 1.0f;
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

float MeanOfOne(float const* x, rows::MeanRegion const& region) {
  float sum = 0.0f;
  for (std::size_t r = region.row_begin; r < region.row_end; ++r) {
    for (std::size_t q = region.column_begin; q < region.column_end; ++q) sum += x[r * region.width + q];
  }
  return (sum / static_cast<float>(region.row_end - region.row_begin)) /
         static_cast<float>(region.column_end - region.column_begin);
}

std::vector<rows::MeanRegion> AllRegions(PoolingShape const& shape) {
  std::vector<rows::MeanRegion> regions;
  auto const columns = Regions(shape.width, shape.out_width, "columns");
  for (Region const& r : Regions(shape.height, shape.out_height, "rows")) {
    for (Region const& q : columns) regions.push_back({r.begin, r.end, q.begin, q.end, shape.width});
  }
  return regions;
}

}  // namespace

std::size_t pool_scratch_f32(PoolingShape const& shape, PoolingWindow const& window) {
  return PaddedPlane(shape, window, nullptr).Count() + shape.out_height * shape.out_width;
}

void max_pool_f32(float const* x, PoolingShape const& shape, PoolingWindow const& window, float* scratch, float* y) {
  PaddedPlane plane(shape, window, scratch);
  plane.FillBorder(kLowest);
  std::size_t const inner_rows =
      InnerOutputs(shape.out_height, window.kernel_y, window.dilation_y, window.stride_y, plane.Height());
  std::size_t const inner_columns =
      InnerOutputs(shape.out_width, window.kernel_x, window.dilation_x, window.stride_x, plane.Width());
  bool const all_inner = inner_columns == shape.out_width;
  auto const offsets = plane.TapOffsets(0);
  for (std::size_t c = 0; c < shape.channels; ++c, x += shape.height * shape.width) {
    plane.Fill(x);
    std::size_t row = 0;
    if (all_inner) {
      rows::MaximumOfTaps(plane.Row(0), {offsets.data(), offsets.size(), inner_rows, shape.out_width, plane.RowStep()},
                          y);
      row = inner_rows;
      y += inner_rows * shape.out_width;
    }
    for (; row < shape.out_height; ++row, y += shape.out_width) EdgeRow(plane, shape, window, row, inner_columns, y);
  }
}

void average_pool_f32(float const* x, PoolingShape const& shape, PoolingWindow const& window, bool count_include_pad,
                      float* scratch, float* y) {
  PaddedPlane plane(shape, window, scratch);
  plane.FillBorder(0.0f);
  float* const divisors = scratch + plane.Count();
  FillDivisors(shape, window, count_include_pad, divisors);
  auto const offsets = plane.TapOffsets(0);
  rows::TapGrid const grid = {offsets.data(), offsets.size(), shape.out_height, shape.out_width, plane.RowStep()};
  for (std::size_t c = 0; c < shape.channels; ++c, x += shape.height * shape.width) {
    plane.Fill(x);
    rows::MeanOfTaps(plane.Row(0), grid, divisors, y);
    y += shape.out_height * shape.out_width;
  }
}

std::size_t adaptive_pool_scratch_f32(PoolingShape const& shape) {
  return shape.height * shape.width * rows::kChannelsTogether;
}

void adaptive_average_pool_f32(float const* x, PoolingShape const& shape, float* scratch, float* y) {
  auto const regions = AllRegions(shape);
  std::size_t const plane = shape.height * shape.width;
  std::size_t c = 0;
  for (; c + rows::kChannelsTogether <= shape.channels; c += rows::kChannelsTogether) {
    rows::MixChannels(x + c * plane, plane, scratch);
    for (std::size_t i = 0; i < regions.size(); ++i) {
      rows::MeanOfRegion(scratch, regions[i], regions.size(), y + c * regions.size() + i);
    }
  }
  for (; c < shape.channels; ++c) {
    for (std::size_t i = 0; i < regions.size(); ++i) y[c * regions.size() + i] = MeanOfOne(x + c * plane, regions[i]);
  }
}

}  // namespace talvo::kernel::functional
