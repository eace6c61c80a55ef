#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "talvo/kernel/functional/pooling_support.h"
#include "talvo/kernel/native/fill_support.h"
#include "talvo/kernel/rows/elementwise_rows.h"
#include "talvo/kernel/rows/phase_plane.h"
#include "talvo/kernel/rows/pooling_rows.h"
#include "talvo/kernel/rows/saturate.h"
#include "talvo/kernel/rows/transpose.h"

namespace talvo::kernel::functional {
namespace {

constexpr std::size_t kMostFloats = std::numeric_limits<unsigned int>::max() / sizeof(float);  // of one tensor

// The two folds of a window: where they start, which is the value of the border too, and how they go on.
struct Maximum {
  static constexpr float kStart = std::numeric_limits<float>::lowest();
  static float Fold(float best, float v) { return v <= best ? best : v; }
};
struct Sum {
  static constexpr float kStart = 0.0f;
  static float Fold(float sum, float v) { return sum + v; }
};

// How a window slides over planes that are laid out in scratch, with their border and with all that taps behind the
// padded plane read again. A plane of one column is laid out as a row.
class Slide {
 public:
  Slide(PoolingShape const& shape, PoolingWindow const& window)
      : turned_(shape.width == 1 && shape.out_width == 1),
        shape_(turned_ ? Turned(shape) : shape),
        window_(turned_ ? Turned(window) : window),
        plane_(Plane()) {}

  // A border may be many times as large as what is pooled, and most taps may lie in it; then each output is folded by
  // itself, as it is where there are no taps.
  bool LaysOut() const {
    if (shape_.channels == 0 || window_.kernel_y == 0 || window_.kernel_x == 0) return false;
    std::size_t const plane = shape_.height * shape_.width, outputs = shape_.out_height * shape_.out_width;
    if (window_.kernel_y * window_.kernel_x > 4 * plane + 64) return false;
    return Count() <= 4 * (plane + outputs) + 4096 && Count() + outputs <= kMostFloats;
  }

  // Whole cache lines, so that the divisors behind them stand aligned.
  std::size_t Count() const { return WholeLines(plane_.Count() + rows::kReadBehindTaps); }

  // For a plane that is laid out; x and scratch as in the header, `border` stands around every plane.
  void Start(float border, float* scratch) {
    native::FillFloats(border, Count(), scratch);
    for (std::size_t ky = 0; ky < window_.kernel_y; ++ky) down_.push_back(ky * window_.dilation_y * plane_.RowPitch());
    for (std::size_t kx = 0; kx < window_.kernel_x; ++kx) across_.push_back(plane_.Place(kx * window_.dilation_x));
    std::size_t const right = plane_.left + plane_.width;
    if (window_.padding_r != 0 || plane_.width == 0) return;
    last_ = plane_.Place(right - 1);
    for (std::size_t column = right; column < plane_.padded_width; ++column) behind_.push_back(plane_.Place(column));
  }

  void Lay(float const* x, float* scratch) const {
    rows::LayPlane(x, plane_, scratch);
    std::size_t const pitch = plane_.RowPitch();
    float* const first = scratch + plane_.top * pitch;
    if (!behind_.empty()) {
      std::size_t const from = last_;
      for (std::size_t const to : behind_) {
        for (std::size_t r = 0; r < plane_.height; ++r) first[r * pitch + to] = first[r * pitch + from];
      }
    }
    if (window_.padding_b == 0 && plane_.height > 0) {
      for (float* row = first + plane_.height * pitch; row < scratch + plane_.Count(); row += pitch) {
        std::copy_n(row - pitch, pitch, row);
      }
    }
  }

  // The taps of all outputs; those of a window that was turned still count its rows outermost.
  rows::TapGrid Grid() const {
    auto const &outer = turned_ ? across_ : down_, &inner = turned_ ? down_ : across_;
    return {outer.data(),
            inner.data(),
            outer.size(),
            inner.size(),
            shape_.out_height,
            shape_.out_width,
            window_.stride_y * plane_.RowPitch()};
  }

 private:
  static constexpr std::size_t kLine = 64 / sizeof(float);
  static std::size_t WholeLines(std::size_t floats) { return (floats + kLine - 1) / kLine * kLine; }

  static PoolingShape Turned(PoolingShape const& s) {
    return {s.channels, s.width, s.height, s.out_width, s.out_height};
  }
  static PoolingWindow Turned(PoolingWindow const& w) {
    return {w.kernel_x,   w.kernel_y,  w.stride_x,  w.stride_y,  w.dilation_x,
            w.dilation_y, w.padding_l, w.padding_r, w.padding_t, w.padding_b};
  }

  // From the first tap of all outputs along an axis to the last.
  static std::size_t Reach(std::size_t outputs, std::size_t kernel, std::size_t dilation, std::size_t stride) {
    return outputs == 0 || kernel == 0 ? 0 : (outputs - 1) * stride + (kernel - 1) * dilation + 1;
  }

  // Pitches of whole cache lines, so that the taps of column 0 stand aligned; not for strides whose many short phases
  // would waste memory, nor for narrow planes.
  rows::PhasePlane Plane() const {
    PoolingWindow const& w = window_;
    std::size_t const height = std::max(shape_.height + w.padding_t + w.padding_b,
                                        Reach(shape_.out_height, w.kernel_y, w.dilation_y, w.stride_y));
    std::size_t const width = std::max(shape_.width + w.padding_l + w.padding_r,
                                       Reach(shape_.out_width, w.kernel_x, w.dilation_x, w.stride_x));
    std::size_t const phase = rows::PhasePlane::PhaseWidth(width, w.stride_x);
    bool const aligned = w.stride_x <= 2 && phase >= kLine;
    return {shape_.height, shape_.width, w.padding_t, w.padding_l,
            height,        width,        w.stride_x,  aligned ? WholeLines(phase) : phase};
  }

  bool turned_;
  PoolingShape shape_;
  PoolingWindow window_;
  rows::PhasePlane plane_;
  std::vector<std::size_t> down_, across_;  // offsets of the taps along each axis of plane_
  std::vector<std::size_t> behind_;         // places of the columns behind the plane that repeat its last, at last_
  std::size_t last_ = 0;
};

// The taps of one output along one axis, `start` + i * `dilation` for i < kernel of the padded extent: those before
// `first` lie in front of the plane, those from `end` on behind it.
struct AxisTaps {
  AxisTaps(std::size_t start, std::size_t kernel, std::size_t dilation, std::size_t before, std::size_t extent,
           std::size_t after)
      : origin(start), step(std::max<std::size_t>(dilation, 1)), front(before), count(kernel) {
    auto const below = [&](std::size_t place) {
      return start >= place ? 0 : std::min(kernel, (place - start + step - 1) / step);
    };
    first = below(before), end = below(before + extent);
    last_is_border = after > 0 || extent == 0;
  }
  std::size_t Place(std::size_t i) const { return origin + i * step - front; }

  std::size_t origin, step, front, count, first, end;
  bool last_is_border;  // else taps behind the padded plane read the last of the plane
};

// Folds the taps along one row of the plane. Whatever is folded again and again, the border or a last value or row,
// changes a sum of floats and a maximum once at most, so that a border takes no time, however wide.
template <class Kind>
float FoldRow(float fold, float const* row, std::size_t width, AxisTaps const& taps) {
  if (taps.first > 0) fold = Kind::Fold(fold, Kind::kStart);
  for (std::size_t i = taps.first; i < taps.end; ++i) fold = Kind::Fold(fold, row[taps.Place(i)]);
  if (taps.end < taps.count) fold = Kind::Fold(fold, taps.last_is_border ? Kind::kStart : row[width - 1]);
  return fold;
}

// Output (y, q) of the plane x by the definition: taps behind the padded plane read its last row or column.
template <class Kind>
float FoldOne(float const* x, PoolingShape const& shape, PoolingWindow const& window, std::size_t y, std::size_t q) {
  AxisTaps const down(y * window.stride_y, window.kernel_y, window.dilation_y, window.padding_t, shape.height,
                      window.padding_b);
  AxisTaps const across(q * window.stride_x, window.kernel_x, window.dilation_x, window.padding_l, shape.width,
                        window.padding_r);
  float fold = Kind::kStart;
  if (down.first > 0) fold = Kind::Fold(fold, Kind::kStart);
  for (std::size_t ky = down.first; ky < down.end; ++ky) {
    fold = FoldRow<Kind>(fold, x + down.Place(ky) * shape.width, shape.width, across);
  }
  if (down.end == down.count) return fold;
  return down.last_is_border ? Kind::Fold(fold, Kind::kStart)
                             : FoldRow<Kind>(fold, x + (shape.height - 1) * shape.width, shape.width, across);
}

template <class Kind>
void FoldOneByOne(float const* x, PoolingShape const& shape, PoolingWindow const& window, float* out) {
  for (std::size_t y = 0; y < shape.out_height; ++y) {
    for (std::size_t q = 0; q < shape.out_width; ++q) *out++ = FoldOne<Kind>(x, shape, window, y, q);
  }
}

// Taps without a step between them read one element again and again, which changes no maximum.
PoolingWindow WithoutRepeats(PoolingWindow window) {
  if (window.dilation_y == 0) window.kernel_y = std::min<std::size_t>(window.kernel_y, 1);
  if (window.dilation_x == 0) window.kernel_x = std::min<std::size_t>(window.kernel_x, 1);
  return window;
}

// Taps from `start` along one axis of the window that lie inside the plane.
std::size_t InnerTaps(std::size_t start, std::size_t kernel, std::size_t before, std::size_t extent) {
  std::size_t const first = std::max(start, before), end = std::min(start + kernel, before + extent);
  return end > first ? end - first : 0;
}

// `area` less 1.0f once for each of `outside`. Up to 2^24 all numbers are exact; above, one subtraction at most is not
// rounded back.
float Lowered(float area, std::size_t outside) {
  for (; outside > 0 && area > 0x1p24f; --outside) {
    if (area - 1.0f == area) return area;
    area -= 1.0f;
  }
  return static_cast<float>(static_cast<double>(area) - static_cast<double>(outside));
}

void FillDivisors(PoolingShape const& shape, PoolingWindow const& window, bool count_include_pad, float* divisors) {
  std::size_t const area = window.kernel_x * window.kernel_y;
  if (count_include_pad) {
    native::FillFloats(static_cast<float>(area), shape.out_height * shape.out_width, divisors);
    return;
  }
  for (std::size_t y = 0; y < shape.out_height; ++y) {
    std::size_t const rows = InnerTaps(y * window.stride_y, window.kernel_y, window.padding_t, shape.height);
    for (std::size_t x = 0; x < shape.out_width; ++x) {
      std::size_t const columns = InnerTaps(x * window.stride_x, window.kernel_x, window.padding_l, shape.width);
      *divisors++ = Lowered(static_cast<float>(area), area - rows * columns);
    }
  }
}

// The rows or columns of an output of adaptive pooling.
struct Region {
  std::uint32_t begin, end;
};

Region RegionOf(std::size_t extent, std::size_t out_extent, std::size_t index) {
  float const step = static_cast<float>(extent) / static_cast<float>(out_extent);
  return {rows::Saturated<std::uint32_t>(std::floor(static_cast<float>(index) * step)),
          rows::Saturated<std::uint32_t>(std::ceil(static_cast<float>(index + 1) * step))};
}

// Elements from the start of a plane to the end of its last region.
std::size_t Reached(PoolingShape const& shape) {
  std::size_t const rows = RegionOf(shape.height, shape.out_height, shape.out_height - 1).end,
                    columns = RegionOf(shape.width, shape.out_width, shape.out_width - 1).end;
  return rows == 0 ? 0 : (rows - 1) * shape.width + columns;
}

bool HasOutputs(PoolingShape const& shape) {
  return shape.channels != 0 && shape.out_height != 0 && shape.out_width != 0;
}

// Whether each plane as a whole is one region.
bool IsGlobal(PoolingShape const& shape) {
  return shape.out_height == 1 && shape.out_width == 1 && Reached(shape) == shape.height * shape.width &&
         RegionOf(shape.width, 1, 0).end == shape.width;
}

void MeansOfPlanes(float const* x, PoolingShape const& shape, float* y) {
  std::size_t const plane = shape.height * shape.width;
  auto const rows = static_cast<float>(shape.height), columns = static_cast<float>(shape.width);
  rows::SumRows(x, plane, shape.channels, plane, y);
  for (float const* const extent : {&rows, &columns}) {
    rows::CombineRow(rows::Operation::kDiv, {y, false}, {extent, true}, shape.channels, y);
  }
}

// The mean over a region of a plane, behind which `available` elements from its start on stand zeros.
float MeanOfOne(float const* x, std::size_t available, rows::MeanRegion const& region) {
  float sum = 0.0f;
  if (region.column_begin < region.column_end) {
    for (std::size_t r = region.row_begin; r < region.row_end; ++r) {
      std::size_t const end = std::min(r * region.width + region.column_end, available);
      for (std::size_t i = r * region.width + region.column_begin; i < end; ++i) sum += x[i];
    }
  }
  return (sum / static_cast<float>(region.row_end - region.row_begin)) /
         static_cast<float>(region.column_end - region.column_begin);
}

}  // namespace

std::size_t max_pool_scratch_f32(PoolingShape const& shape, PoolingWindow const& window) {
  Slide const slide(shape, WithoutRepeats(window));
  return slide.LaysOut() ? slide.Count() : 0;
}

std::size_t average_pool_scratch_f32(PoolingShape const& shape, PoolingWindow const& window) {
  if (shape.channels == 0) return 0;
  Slide const slide(shape, window);
  return shape.out_height * shape.out_width + (slide.LaysOut() ? slide.Count() : 0);
}

void max_pool_f32(float const* x, PoolingShape const& shape, PoolingWindow const& asked, float* scratch, float* y) {
  PoolingWindow const window = WithoutRepeats(asked);
  std::size_t const plane_count = shape.height * shape.width, out_count = shape.out_height * shape.out_width;
  Slide slide(shape, window);
  bool const lays_out = slide.LaysOut();
  if (lays_out) slide.Start(Maximum::kStart, scratch);
  rows::TapGrid const grid = slide.Grid();
  for (std::size_t c = 0; c < shape.channels; ++c, x += plane_count, y += out_count) {
    if (!lays_out) {
      FoldOneByOne<Maximum>(x, shape, window, y);
    } else {
      slide.Lay(x, scratch);
      rows::MaximumOfTaps(scratch, grid, y);
    }
  }
}

void average_pool_f32(float const* x, PoolingShape const& shape, PoolingWindow const& window, bool count_include_pad,
                      float* scratch, float* y) {
  if (shape.channels == 0) return;
  std::size_t const plane_count = shape.height * shape.width, out_count = shape.out_height * shape.out_width;
  Slide slide(shape, window);
  bool const lays_out = slide.LaysOut();
  float* const divisors = scratch + (lays_out ? slide.Count() : 0);
  FillDivisors(shape, window, count_include_pad, divisors);
  if (lays_out) slide.Start(Sum::kStart, scratch);
  rows::TapGrid const grid = slide.Grid();
  for (std::size_t c = 0; c < shape.channels; ++c, x += plane_count, y += out_count) {
    if (!lays_out) {
      FoldOneByOne<Sum>(x, shape, window, y);
      rows::CombineRow(rows::Operation::kDiv, {y, false}, {divisors, false}, out_count, y);
    } else {
      slide.Lay(x, scratch);
      rows::MeanOfTaps(scratch, grid, divisors, y);
    }
  }
}

std::size_t adaptive_pool_scratch_f32(PoolingShape const& shape) {
  if (!HasOutputs(shape) || IsGlobal(shape) || shape.channels < rows::kChannelsTogether) return 0;
  std::size_t const count = Reached(shape) * rows::kChannelsTogether;
  return count <= kMostFloats ? count : 0;
}

void adaptive_average_pool_f32(float const* x, PoolingShape const& shape, float* scratch, float* y) {
  if (!HasOutputs(shape)) return;
  if (IsGlobal(shape)) return MeansOfPlanes(x, shape, y);
  bool const mixes = adaptive_pool_scratch_f32(shape) != 0;
  std::size_t const plane = shape.height * shape.width, out_plane = shape.out_height * shape.out_width;
  std::size_t const reached = Reached(shape);
  std::vector<Region> columns;
  for (std::size_t q = 0; q < shape.out_width; ++q) columns.push_back(RegionOf(shape.width, shape.out_width, q));
  for (std::size_t c = 0, together; c < shape.channels; c += together, y += together * out_plane) {
    float const* const planes = x + c * plane;
    std::size_t const available = (shape.channels - c) * plane;
    bool const many = mixes && available >= (rows::kChannelsTogether - 1) * plane + reached;
    together = many ? rows::kChannelsTogether : 1;
    if (many) {
      rows::TransposeRows(planes, plane, rows::kChannelsTogether, reached, scratch, rows::kChannelsTogether);
    }
    float* out = y;
    for (std::size_t row = 0; row < shape.out_height; ++row) {
      Region const r = RegionOf(shape.height, shape.out_height, row);
      for (Region const& q : columns) {
        rows::MeanRegion const region = {r.begin, r.end, q.begin, q.end, shape.width};
        if (many) {
          rows::MeanOfRegion(scratch, region, out_plane, out++);
        } else {
          *out++ = MeanOfOne(planes, available, region);
        }
      }
    }
  }
}

}  // namespace talvo::kernel::functional
