#include "talvo/kernel/functional/resampling_support.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <type_traits>
#include <vector>

#include "talvo/kernel/rows/mixed_channels.h"
#include "talvo/kernel/rows/samples.h"
#include "talvo/kernel/rows/transpose.h"
#include "talvo/utility/refuse_support.h"
#include "talvo/utility/restrict_support.h"

namespace talvo::kernel::functional {
namespace {

using rows::FourPixels;
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

// Where an output index lies between two source indices; rest = 1 - weight.
using Position = rows::TwoPixels;

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

// Planes that lie side by side, and how many source columns each output column may bring with it into scratch.
constexpr std::size_t kMixed = rows::kChannelsTogether, kMostColumns = 4;

// The same for kMixed planes. `mixed` holds n results and what is read of the source row, both side by side.
void BlendMixedColumns(float const* x, std::size_t plane, std::vector<Position> const& positions, float* mixed,
                       float* y) {
  std::size_t const n = positions.size(), read = positions.back().high + 1;
  float* const source = mixed + kMixed * n;
  rows::TransposeRows(x, plane, kMixed, read, source, kMixed);
  rows::BlendTwoPixels(source, positions.data(), n, mixed);
  rows::TransposeRows(mixed, kMixed, n, kMixed, y, n);
}

// y[p y_step + j] = low[p n + j] weight + top[p n + j] rest for p < planes, j < n.
void BlendRows(float const* top, float const* low, Position const& row, std::size_t planes, std::size_t n, float* y,
               std::size_t y_step) {
  rows::BlendRows(top, low, row.weight, row.rest, planes, n, y, y_step);
}

// Results are cut toward zero.
void BlendRows(float const* TALVO_RESTRICT top, float const* TALVO_RESTRICT low, Position const& row,
               std::size_t planes, std::size_t n, std::int16_t* TALVO_RESTRICT y, std::size_t y_step) {
  float const weight = row.weight, rest = row.rest;
  for (std::size_t p = 0; p < planes; ++p, top += n, low += n, y += y_step) {
    for (std::size_t j = 0; j < n; ++j) y[j] = static_cast<std::int16_t>(low[j] * weight + top[j] * rest);
  }
}

// Source rows with their columns blended: the two last used ones are kept, since neighbouring output rows lie between
// the same two. blend(index, row) makes row `index`.
template <class Blend>
class BlendedRows {
 public:
  BlendedRows(Blend const& blend, float* first, float* second) : blend_(blend), rows_{first, second} {}

  // In the buffer that does not hold row `kept`.
  float const* Row(std::uint32_t index, std::uint32_t kept) {
    for (int slot : {0, 1})
      if (held_[slot] == index) return rows_[slot];
    int const slot = held_[0] == kept ? 1 : 0;
    blend_(index, rows_[slot]);
    held_[slot] = index;
    return rows_[slot];
  }

 private:
  static constexpr std::uint32_t kNone = 0xFFFFFFFF;
  Blend const& blend_;
  float* rows_[2];
  std::uint32_t held_[2] = {kNone, kNone};
};

// Where a block of outputs lies between source rows and columns, the latter counted from the first that is read. Their
// planes are [out_plane / out_width, out_width].
struct UpsampleBlock {
  std::vector<Position> const &rows, &columns;
  std::size_t out_width, out_plane;
};

// `planes` planes; blend(row, to) as BlendColumns of a source row.
template <typename T, class Blend>
void UpsamplePlanes(std::size_t planes, Blend const& blend, UpsampleBlock const& block, float* scratch, T* y) {
  std::size_t const n = block.columns.size();
  BlendedRows<Blend> blended(blend, scratch, scratch + planes * n);
  for (Position const& row : block.rows) {
    float const* const top = blended.Row(row.low, row.high);
    float const* const low = blended.Row(row.high, row.low);
    BlendRows(top, low, row, planes, n, y, block.out_plane);
    y += block.out_width;
  }
}

// Many planes side by side, else a few that share the cost of reading a position. Returns how many it took.
template <typename T>
std::size_t UpsampleSome(T const* x, ImageSize const& size, std::size_t channels, UpsampleBlock const& block,
                         float* scratch, T* y) {
  std::size_t const width = size.width, plane = size.height * width;
  auto const& columns = block.columns;
  if constexpr (std::is_same_v<T, float>) {
    if (channels >= kMixed && columns.back().high < kMostColumns * columns.size()) {
      float* const mixed = scratch + 2 * kMixed * columns.size();
      auto const blend = [&](std::size_t row, float* to) {
        BlendMixedColumns(x + row * width, plane, columns, mixed, to);
      };
      UpsamplePlanes(kMixed, blend, block, scratch, y);
      return kMixed;
    }
  }
  constexpr std::size_t kFew = 4;
  if (channels >= kFew) {
    auto const blend = [&](std::size_t row, float* to) { BlendColumns<kFew>(x + row * width, plane, columns, to); };
    UpsamplePlanes(kFew, blend, block, scratch, y);
    return kFew;
  }
  auto const blend = [&](std::size_t row, float* to) { BlendColumns<1>(x + row * width, plane, columns, to); };
  UpsamplePlanes(1, blend, block, scratch, y);
  return 1;
}

// By blocks of outputs, so that the positions take little memory however large the output is.
template <typename T>
void UpsampleBilinearOf(T const* x, ImageSize const& size, float scale_y, float scale_x, bool align_corner,
                        std::size_t out_height, std::size_t out_width, T* y) {
  if (size.channels == 0 || out_height == 0 || out_width == 0) return;
  constexpr std::size_t kBlock = 1024;
  BilinearAxis const row_axis = {size.height, out_height, scale_y, align_corner, false};
  BilinearAxis const column_axis = {size.width, out_width, scale_x, align_corner, true};
  std::vector<float> scratch((3 + kMostColumns) * std::min(kMixed, size.channels) * std::min(kBlock, out_width));
  std::size_t const plane = size.height * size.width, out_plane = out_height * out_width;
  for (std::size_t i = 0; i < out_height; i += kBlock) {
    auto const rows = row_axis.Positions(i, std::min(kBlock, out_height - i));
    for (std::size_t j = 0; j < out_width; j += kBlock) {
      auto columns = column_axis.Positions(j, std::min(kBlock, out_width - j));
      std::uint32_t const first = columns.front().low;  // positions never go back
      for (Position& column : columns) column.low -= first, column.high -= first;
      UpsampleBlock const block = {rows, columns, out_width, out_plane};
      T* const out = y + i * out_width + j;
      for (std::size_t c = 0; c < size.channels;) {
        c += UpsampleSome(x + c * plane + first, size, size.channels - c, block, scratch.data(), out + c * out_plane);
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
    Refuse("grid sampling: planes of %zu x %zu pixels have no border to take", size.height, size.width);
  }
  GridReader const reader(size, sampling);
  bool const mixes = GridSampleScratch(size, out_count) != 0;
  auto const nearest = [&](float gx, float gy) { return reader.Nearest(gx, gy); };
  auto const bilinear = [&](float gx, float gy) { return reader.Bilinear(gx, gy); };
  sampling.bilinear ? SampleImage(x, size, grid, out_count, mixes, bilinear, scratch, y)
                    : SampleImage(x, size, grid, out_count, mixes, nearest, scratch, y);
}

}  // namespace talvo::kernel::functional
