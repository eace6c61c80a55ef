#include "talvo/kernel/functional/resampling_support.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "talvo/utility/refuse_support.h"
#include "talvo/utility/restrict_support.h"

namespace talvo::kernel::functional {
namespace {

using utility::Refuse;

// y[i] = x[index[i]] for i < n.
template <typename T>
void GatherRow(T const* TALVO_RESTRICT x, std::uint32_t const* TALVO_RESTRICT index, std::size_t n,
               T* TALVO_RESTRICT y) {
  for (std::size_t i = 0; i < n; ++i) y[i] = x[index[i]];
}

// y[i] = x[i / 2] for i < n.
template <typename T>
void DoubleRow(T const* TALVO_RESTRICT x, std::size_t n, T* TALVO_RESTRICT y) {
  for (std::size_t i = 0; i < n / 2; ++i) {
    T const value = x[i];
    y[2 * i] = value;
    y[2 * i + 1] = value;
  }
  if (n % 2 != 0) y[n - 1] = x[n / 2];
}

// floor(i / scale) for i < n. Assert: one of them is not below extent.
std::vector<std::uint32_t> NearestIndices(std::size_t extent, float scale, std::size_t n) {
  std::vector<std::uint32_t> indices(n);
  for (std::size_t i = 0; i < n; ++i) {
    float const position = std::floor(static_cast<float>(i) / scale);
    if (!(position < static_cast<float>(extent))) {
      Refuse("nearest upsampling by %g: output index %zu of %zu lies beyond the extent %zu", scale, i, n, extent);
    }
    indices[i] = static_cast<std::uint32_t>(position);
  }
  return indices;
}

template <typename T>
void UpsampleNearestOf(T const* x, ImageSize const& size, std::vector<std::uint32_t> const& rows,
                       std::vector<std::uint32_t> const& columns, T* y) {
  std::size_t const n = columns.size();
  bool doubled = true;
  for (std::size_t j = 0; j < n; ++j) doubled = doubled && columns[j] == j / 2;
  for (std::size_t c = 0; c < size.channels; ++c, x += size.height * size.width) {
    for (std::size_t i = 0; i < rows.size(); ++i, y += n) {
      T const* const row = x + rows[i] * size.width;
      if (i != 0 && rows[i] == rows[i - 1]) {
        std::memcpy(y, y - n, n * sizeof(T));
      } else if (doubled) {
        DoubleRow(row, n, y);
      } else {
        GatherRow(row, columns.data(), n, y);
      }
    }
  }
}

// Where an output index lies between two source indices: low (1 - weight) + high weight.
struct Position {
  std::uint32_t low, high;
  float weight, rest;  // rest = 1 - weight
};

// The positions of output indices along one axis. `ends_alone`: a position on the first or last index takes that one
// alone; else its neighbour takes part, with weight 0, read inside the extent.
struct BilinearAxis {
  std::size_t extent, out_extent;
  float scale;
  bool align_corner, ends_alone;

  // Of n output indices from `first` on. Assert: one of them is not below the extent.
  std::vector<Position> Positions(std::size_t first, std::size_t n) const {
    float const last = static_cast<float>(static_cast<std::int64_t>(extent) - 1);
    float const aligned_ratio = out_extent > 1 ? last / static_cast<float>(out_extent - 1) : 0.0f;
    float const ratio = align_corner ? aligned_ratio : 1.0f / scale;
    float const offset = align_corner ? 0.0f : ratio * 0.5f - 0.5f;
    std::vector<Position> positions(n);
    for (std::size_t i = 0; i < n; ++i) {
      float const place = static_cast<float>(first + i) * ratio + offset, whole = std::trunc(place);
      if (!(whole < static_cast<float>(extent))) {
        Refuse("bilinear upsampling by %g: output index %zu of %zu lies beyond the extent %zu", scale, first + i,
               out_extent, extent);
      }
      bool const between = ends_alone ? place > 0.0f && place < last : place >= 0.0f && place <= last;
      auto const low = static_cast<std::uint32_t>(whole);
      auto const inside = static_cast<std::uint32_t>(extent - 1);
      float const weight = place >= 0.0f ? place - whole : 0.0f;
      positions[i] = {std::min(low, inside), std::min(low + (between ? 1 : 0), inside), weight, 1.0f - weight};
    }
    return positions;
  }
};

// y[p n + j] = x[high] weight + x[low] rest of plane p for each of n positions j. Planes that share a position share
// the cost of reading it.
template <std::size_t kPlanes, typename T>
void BlendColumns(T const* TALVO_RESTRICT x, std::size_t plane, std::vector<Position> const& positions,
                  float* TALVO_RESTRICT y) {
  std::size_t const n = positions.size();
  Position const* const position = positions.data();
  for (std::size_t j = 0; j < n; ++j) {
    Position const at = position[j];
    for (std::size_t p = 0; p < kPlanes; ++p) {
      T const* const row = x + p * plane;
      y[p * n + j] = static_cast<float>(row[at.high]) * at.weight + static_cast<float>(row[at.low]) * at.rest;
    }
  }
}

// y[j] = low[j] weight + top[j] rest for j < n; a result for an integer is cut toward zero.
template <typename T>
void BlendRows(float const* TALVO_RESTRICT top, float const* TALVO_RESTRICT low, float weight, float rest,
               std::size_t n, T* TALVO_RESTRICT y) {
  for (std::size_t j = 0; j < n; ++j) y[j] = static_cast<T>(low[j] * weight + top[j] * rest);
}

// One source row of kPlanes planes with its columns blended: the two last used ones are kept, since neighbouring output
// rows lie between the same two.
template <std::size_t kPlanes, typename T>
class BlendedRows {
 public:
  BlendedRows(T const* x, ImageSize const& size, std::vector<Position> const& columns, float* scratch)
      : x_(x), size_(size), columns_(columns), rows_{scratch, scratch + kPlanes * columns.size()} {}

  // Row `index` of each plane, in the buffer that does not hold row `kept`.
  float const* Row(std::uint32_t index, std::uint32_t kept) {
    for (int slot : {0, 1})
      if (held_[slot] == index) return rows_[slot];
    int const slot = held_[0] == kept ? 1 : 0;
    BlendColumns<kPlanes>(x_ + index * size_.width, size_.height * size_.width, columns_, rows_[slot]);
    held_[slot] = index;
    return rows_[slot];
  }

 private:
  static constexpr std::uint32_t kNone = 0xFFFFFFFF;
  T const* x_;
  ImageSize size_;
  std::vector<Position> const& columns_;
  float* rows_[2];
  std::uint32_t held_[2] = {kNone, kNone};
};

// A block of outputs of kPlanes planes, [out_plane / out_width, out_width] each, of which y is the first.
template <std::size_t kPlanes, typename T>
void UpsamplePlanes(T const* x, ImageSize const& size, std::vector<Position> const& rows,
                    std::vector<Position> const& columns, float* scratch, std::size_t out_width, std::size_t out_plane,
                    T* y) {
  std::size_t const n = columns.size();
  BlendedRows<kPlanes, T> blended(x, size, columns, scratch);
  for (std::size_t i = 0; i < rows.size(); ++i) {
    Position const& row = rows[i];
    float const* const top = blended.Row(row.low, row.high);
    float const* const low = blended.Row(row.high, row.low);
    for (std::size_t p = 0; p < kPlanes; ++p)
      BlendRows(top + p * n, low + p * n, row.weight, row.rest, n, y + p * out_plane + i * out_width);
  }
}

// By blocks of outputs, so that the positions take little memory however large the output is.
template <typename T>
void UpsampleBilinearOf(T const* x, ImageSize const& size, float scale_y, float scale_x, bool align_corner,
                        std::size_t out_height, std::size_t out_width, T* y) {
  if (size.channels == 0 || out_height == 0 || out_width == 0) return;
  constexpr std::size_t kPlanes = 4, kBlock = 4096;
  BilinearAxis const row_axis = {size.height, out_height, scale_y, align_corner, false};
  BilinearAxis const column_axis = {size.width, out_width, scale_x, align_corner, true};
  std::vector<float> scratch(2 * kPlanes * std::min(kBlock, out_width));
  std::size_t const plane = size.height * size.width, out_plane = out_height * out_width;
  for (std::size_t i = 0; i < out_height; i += kBlock) {
    auto const rows = row_axis.Positions(i, std::min(kBlock, out_height - i));
    for (std::size_t j = 0; j < out_width; j += kBlock) {
      auto const columns = column_axis.Positions(j, std::min(kBlock, out_width - j));
      T* const block = y + i * out_width + j;
      std::size_t c = 0;
      for (; c + kPlanes <= size.channels; c += kPlanes) {
        UpsamplePlanes<kPlanes>(x + c * plane, size, rows, columns, scratch.data(), out_width, out_plane,
                                block + c * out_plane);
      }
      for (; c < size.channels; ++c) {
        UpsamplePlanes<1>(x + c * plane, size, rows, columns, scratch.data(), out_width, out_plane,
                          block + c * out_plane);
      }
    }
  }
}

// y[i count + row] = x[row stride + i] for row < count, i < n: rows become phases. kCount 0: count is not known here.
template <std::size_t kCount, typename T>
void InterleaveRows(T const* TALVO_RESTRICT x, std::size_t stride, std::size_t count, std::size_t n,
                    T* TALVO_RESTRICT y) {
  std::size_t const rows = kCount != 0 ? kCount : count;
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t row = 0; row < rows; ++row) y[i * rows + row] = x[row * stride + i];
}

// y[row stride + i] = x[i count + row] for row < count, i < n: the reverse.
template <std::size_t kCount, typename T>
void SplitPhases(T const* TALVO_RESTRICT x, std::size_t stride, std::size_t count, std::size_t n, T* TALVO_RESTRICT y) {
  std::size_t const rows = kCount != 0 ? kCount : count;
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t row = 0; row < rows; ++row) y[row * stride + i] = x[i * rows + row];
}

template <typename T>
void PixelShuffleOf(T const* x, ImageSize const& size, std::size_t r, T* y) {
  std::size_t const plane = size.height * size.width;
  if (plane == 0) return;  // there may be any number of empty rows
  auto* const interleave = r == 2 ? InterleaveRows<2, T> : r == 3 ? InterleaveRows<3, T> : InterleaveRows<0, T>;
  for (std::size_t c = 0; c < size.channels; c += r * r, x += r * r * plane)
    for (std::size_t i = 0; i < size.height; ++i)
      for (std::size_t dy = 0; dy < r; ++dy, y += size.width * r)
        interleave(x + dy * r * plane + i * size.width, plane, r, size.width, y);
}

template <typename T>
void PixelUnshuffleOf(T const* x, ImageSize const& size, std::size_t k, T* y) {
  std::size_t const height = size.height / k, width = size.width / k, plane = height * width;
  if (plane == 0) return;
  auto* const split = k == 2 ? SplitPhases<2, T> : k == 3 ? SplitPhases<3, T> : SplitPhases<0, T>;
  for (std::size_t c = 0; c < size.channels; ++c, x += size.height * size.width)
    for (std::size_t dy = 0; dy < k; ++dy, y += k * plane)
      for (std::size_t i = 0; i < height; ++i) split(x + (i * k + dy) * size.width, plane, k, width, y + i * width);
}

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

// Offsets of four pixels in a plane and their weights.
struct GridSampleAt {
  static constexpr std::uint32_t kZero = 0xFFFFFFFF;  // no pixel: 0
  std::uint32_t top_left = kZero, top_right = kZero, low_left = kZero, low_right = kZero;
  float weight_x = 0.0f, weight_y = 0.0f;
};

std::uint32_t PixelOffset(std::int64_t row, std::int64_t column, std::int64_t width) {
  return row == kOutside || column == kOutside ? GridSampleAt::kZero : static_cast<std::uint32_t>(row * width + column);
}

class GridReader {
 public:
  GridReader(ImageSize const& size, GridSampling const& sampling)
      : height_(static_cast<std::int64_t>(size.height)),
        width_(static_cast<std::int64_t>(size.width)),
        sampling_(sampling) {}

  std::uint32_t Nearest(float gx, float gy) const {
    return PixelOffset(NearestPixel(std::floor(Scaled(gy, height_)), height_, sampling_.border),
                       NearestPixel(std::floor(Scaled(gx, width_)), width_, sampling_.border), width_);
  }

  GridSampleAt Bilinear(float gx, float gy) const {
    float const x = sampling_.align_corners ? Scaled(gx, width_ - 1) : Scaled(gx, width_) - 0.5f;
    float const y = sampling_.align_corners ? Scaled(gy, height_ - 1) : Scaled(gy, height_) - 0.5f;
    if (sampling_.border) return At(ClampedAxis(x, width_), ClampedAxis(y, height_));
    float const first = sampling_.align_corners ? 0.0f : -1.0f;
    std::int64_t const less = sampling_.align_corners ? 1 : 0;
    bool const inside =
        x >= first && y >= first && x <= static_cast<float>(width_ - less) && y <= static_cast<float>(height_ - less);
    return inside ? At(FadingAxis(x, width_), FadingAxis(y, height_)) : GridSampleAt();
  }

 private:
  static float Scaled(float g, std::int64_t extent) { return (g + 1.0f) * 0.5f * static_cast<float>(extent); }

  GridSampleAt At(GridAxis const& x, GridAxis const& y) const {
    return {PixelOffset(y.low, x.low, width_),
            PixelOffset(y.low, x.high, width_),
            PixelOffset(y.high, x.low, width_),
            PixelOffset(y.high, x.high, width_),
            x.weight,
            y.weight};
  }

  std::int64_t height_, width_;
  GridSampling sampling_;
};

float Pixel(float const* plane, std::uint32_t offset) { return offset == GridSampleAt::kZero ? 0.0f : plane[offset]; }

void SampleRow(float const* plane, std::vector<std::uint32_t> const& pixels, float* y) {
  std::size_t const n = pixels.size();
  for (std::size_t j = 0; j < n; ++j) y[j] = Pixel(plane, pixels[j]);
}

void SampleRow(float const* plane, std::vector<GridSampleAt> const& samples, float* y) {
  std::size_t const n = samples.size();
  for (std::size_t j = 0; j < n; ++j) {
    GridSampleAt const& at = samples[j];
    float const wx = at.weight_x, wy = at.weight_y;
    float const low = Pixel(plane, at.low_right) * wx + (1.0f - wx) * Pixel(plane, at.low_left);
    float const top = Pixel(plane, at.top_right) * wx + Pixel(plane, at.top_left) * (1.0f - wx);
    y[j] = low * wy + (1.0f - wy) * top;
  }
}

// Row by row, since the positions of a row serve all channels. read(gx, gy) gives what SampleRow takes.
template <class Read>
void SampleImage(float const* x, ImageSize const& size, float const* grid, std::size_t out_height,
                 std::size_t out_width, Read const& read, float* y) {
  std::vector<decltype(read(0.0f, 0.0f))> samples(out_width);
  for (std::size_t i = 0; i < out_height; ++i, grid += 2 * out_width) {
    for (std::size_t j = 0; j < out_width; ++j) samples[j] = read(grid[2 * j], grid[2 * j + 1]);
    for (std::size_t c = 0; c < size.channels; ++c)
      SampleRow(x + c * size.height * size.width, samples, y + (c * out_height + i) * out_width);
  }
}

}  // namespace

unsigned int UpsampledExtent(unsigned int extent, float scale) {
  constexpr float kEnd = 0x1p32f;
  float const scaled = std::floor(static_cast<float>(extent) * scale + 0.5f);
  if (!(scale >= 0.0f && scaled < kEnd)) {
    Refuse("upsampling by %g: an extent of %u does not become one of 32 bits", scale, extent);
  }
  return static_cast<unsigned int>(scaled);
}

void UpsampleNearest(void const* x, ImageSize const& size, unsigned int element_bytes, float scale_y, float scale_x,
                     std::size_t out_height, std::size_t out_width, void* y) {
  if (size.channels == 0 || out_height == 0 || out_width == 0) return;
  auto const rows = NearestIndices(size.height, scale_y, out_height);
  auto const columns = NearestIndices(size.width, scale_x, out_width);
  switch (element_bytes) {
    case 1:
      return UpsampleNearestOf(static_cast<unsigned char const*>(x), size, rows, columns,
                               static_cast<unsigned char*>(y));
    case 2:
      return UpsampleNearestOf(static_cast<std::int16_t const*>(x), size, rows, columns, static_cast<std::int16_t*>(y));
    case 4:
      return UpsampleNearestOf(static_cast<float const*>(x), size, rows, columns, static_cast<float*>(y));
    default:
      Refuse("nearest upsampling: elements of %u bytes, needs 1, 2 or 4", element_bytes);
  }
}

void UpsampleBilinear(float const* x, ImageSize const& size, float scale_y, float scale_x, bool align_corner,
                      std::size_t out_height, std::size_t out_width, float* y) {
  UpsampleBilinearOf(x, size, scale_y, scale_x, align_corner, out_height, out_width, y);
}

void UpsampleBilinear(std::int16_t const* x, ImageSize const& size, float scale_y, float scale_x, bool align_corner,
                      std::size_t out_height, std::size_t out_width, std::int16_t* y) {
  UpsampleBilinearOf(x, size, scale_y, scale_x, align_corner, out_height, out_width, y);
}

void PixelShuffle(float const* x, ImageSize const& size, std::size_t r, float* y) { PixelShuffleOf(x, size, r, y); }

void PixelShuffle(std::int16_t const* x, ImageSize const& size, std::size_t r, std::int16_t* y) {
  PixelShuffleOf(x, size, r, y);
}

void PixelUnshuffle(float const* x, ImageSize const& size, std::size_t k, float* y) { PixelUnshuffleOf(x, size, k, y); }

void PixelUnshuffle(std::int16_t const* x, ImageSize const& size, std::size_t k, std::int16_t* y) {
  PixelUnshuffleOf(x, size, k, y);
}

void GridSample(float const* x, ImageSize const& size, float const* grid, std::size_t out_height, std::size_t out_width,
                GridSampling const& sampling, float* y) {
  if (size.channels == 0 || out_height == 0 || out_width == 0) return;
  if (sampling.border && (size.height == 0 || size.width == 0)) {
    Refuse("grid sampling: planes of %zu x %zu pixels have no border to take", size.height, size.width);
  }
  GridReader const reader(size, sampling);
  if (sampling.bilinear) {
    SampleImage(
        x, size, grid, out_height, out_width, [&](float gx, float gy) { return reader.Bilinear(gx, gy); }, y);
  } else {
    SampleImage(
        x, size, grid, out_height, out_width, [&](float gx, float gy) { return reader.Nearest(gx, gy); }, y);
  }
}

}  // namespace talvo::kernel::functional
