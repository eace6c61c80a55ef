#include "talvo/kernel/functional/resampling_support.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "talvo/kernel/functional/resampling_rows_support.h"
#include "talvo/kernel/rows/mixed_channels.h"
#include "talvo/kernel/rows/samples.h"
#include "talvo/kernel/rows/transpose.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::kernel::functional {
namespace {

using utility::Refuse;

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

// Planes that lie side by side, and how many source columns each output column may bring with it into scratch.
constexpr std::size_t kMixed = rows::kChannelsTogether, kMostColumns = 4;

// BlendColumns for kMixed planes. `mixed` holds n results and what is read of the source row, both side by side.
void BlendMixedColumns(float const* x, std::size_t plane, std::vector<Position> const& positions, float* mixed,
                       float* y) {
  std::size_t const n = positions.size(), read = positions.back().high + 1;
  float* const source = mixed + kMixed * n;
  rows::TransposeRows(x, plane, kMixed, read, source, kMixed);
  rows::BlendTwoPixels(source, positions.data(), n, mixed);
  rows::TransposeRows(mixed, kMixed, n, kMixed, y, n);
}

// Where a block of outputs lies between source rows and columns, the latter counted from the first that is read. x is
// [width] rows in planes of `plane` elements, y likewise.
struct UpsampleBlock {
  std::vector<Position> const &rows, &columns;
  std::size_t width, plane, out_width, out_plane;
  bool shorts;  // 16-bit integers, otherwise floats
};

// `planes` planes of a block, from the element at x to that at y. Source rows whose columns are blended are kept, the
// two last used ones, since neighbouring output rows lie between the same two. The scratch behind them serves
// BlendMixedColumns.
class UpsampledPlanes {
 public:
  UpsampledPlanes(UpsampleBlock const& block, std::size_t planes, void const* x, float* scratch)
      : block_(block),
        planes_(planes),
        x_(x),
        rows_{scratch, scratch + planes * block.columns.size()},
        mixed_(scratch + 2 * planes * block.columns.size()) {}

  void Run(void* y) {
    std::size_t const n = block_.columns.size();
    std::size_t next = 0;
    for (Position const& row : block_.rows) {
      float const* const top = Row(row.low, row.high);
      float const* const low = Row(row.high, row.low);
      if (block_.shorts) {
        BlendRows(top, low, row.weight, row.rest, planes_, n, static_cast<std::int16_t*>(y) + next, block_.out_plane);
      } else {
        rows::BlendRows(top, low, row.weight, row.rest, planes_, n, static_cast<float*>(y) + next, block_.out_plane);
      }
      next += block_.out_width;
    }
  }

 private:
  static constexpr std::uint32_t kNone = 0xFFFFFFFF;

  // Row `index`, in the buffer that does not hold row `kept`.
  float const* Row(std::uint32_t index, std::uint32_t kept) {
    for (int slot : {0, 1})
      if (held_[slot] == index) return rows_[slot];
    int const slot = held_[0] == kept ? 1 : 0;
    Fill(index * block_.width, rows_[slot]);
    held_[slot] = index;
    return rows_[slot];
  }

  void Fill(std::size_t first, float* to) {
    auto const& columns = block_.columns;
    if (block_.shorts) {
      return BlendColumns(static_cast<std::int16_t const*>(x_) + first, planes_, block_.plane, columns.data(),
                          columns.size(), to);
    }
    float const* const from = static_cast<float const*>(x_) + first;
    if (planes_ == kMixed) return BlendMixedColumns(from, block_.plane, columns, mixed_, to);
    BlendColumns(from, planes_, block_.plane, columns.data(), columns.size(), to);
  }

  UpsampleBlock const& block_;
  std::size_t const planes_;
  void const* const x_;
  float* const rows_[2];
  float* const mixed_;
  std::uint32_t held_[2] = {kNone, kNone};
};

// Many planes side by side, else a few that share the cost of reading a position.
std::size_t PlanesTogether(UpsampleBlock const& block, std::size_t channels) {
  bool const narrow = block.columns.back().high < kMostColumns * block.columns.size();
  if (!block.shorts && channels >= kMixed && narrow) return kMixed;
  return channels >= kFewPlanes ? kFewPlanes : 1;
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
  if (element_bytes != 1 && element_bytes != 2 && element_bytes != 4)
    Refuse("nearest upsampling: elements of %u bytes, needs 1, 2 or 4", element_bytes);
  bool doubled = true;
  for (std::size_t j = 0; j < out_width; ++j) doubled = doubled && columns[j] == j / 2;
  MoveRow const move = (doubled ? DoubleOf : GatherOf)(element_bytes);
  std::size_t const row_bytes = size.width * element_bytes, out_bytes = out_width * element_bytes;
  auto const* plane = static_cast<unsigned char const*>(x);
  auto* to = static_cast<unsigned char*>(y);
  for (std::size_t c = 0; c < size.channels; ++c, plane += size.height * row_bytes) {
    for (std::size_t i = 0; i < out_height; ++i, to += out_bytes) {
      unsigned char const* const row = plane + rows[i] * row_bytes;
      if (i != 0 && rows[i] == rows[i - 1]) {
        std::memcpy(to, to - out_bytes, out_bytes);
      } else {
        move(row, columns.data(), out_width, to);
      }
    }
  }
}

// By blocks of outputs, so that the positions take little memory however large the output is.
void UpsampleBilinear(void const* x, bool shorts, ImageSize const& size, Bilinear const& to, void* y) {
  if (size.channels == 0 || to.out_height == 0 || to.out_width == 0) return;
  constexpr std::size_t kBlock = 1024;
  BilinearAxis const row_axis = {size.height, to.out_height, to.scale_y, to.align_corner, false};
  BilinearAxis const column_axis = {size.width, to.out_width, to.scale_x, to.align_corner, true};
  std::vector<float> scratch((3 + kMostColumns) * std::min(kMixed, size.channels) * std::min(kBlock, to.out_width));
  std::size_t const plane = size.height * size.width, out_plane = to.out_height * to.out_width;
  std::size_t const element_bytes = shorts ? sizeof(std::int16_t) : sizeof(float);
  auto const* const from = static_cast<unsigned char const*>(x);
  for (std::size_t i = 0; i < to.out_height; i += kBlock) {
    auto const rows = row_axis.Positions(i, std::min(kBlock, to.out_height - i));
    for (std::size_t j = 0; j < to.out_width; j += kBlock) {
      auto columns = column_axis.Positions(j, std::min(kBlock, to.out_width - j));
      std::uint32_t const first = columns.front().low;  // positions never go back
      for (Position& column : columns) column.low -= first, column.high -= first;
      UpsampleBlock const block = {rows, columns, size.width, plane, to.out_width, out_plane, shorts};
      auto* const out = static_cast<unsigned char*>(y) + (i * to.out_width + j) * element_bytes;
      for (std::size_t c = 0; c < size.channels;) {
        std::size_t const planes = PlanesTogether(block, size.channels - c);
        UpsampledPlanes(block, planes, from + (c * plane + first) * element_bytes, scratch.data())
            .Run(out + c * out_plane * element_bytes);
        c += planes;
      }
    }
  }
}

void PixelShuffle(void const* x, ImageSize const& size, unsigned int element_bytes, std::size_t r, void* y) {
  std::size_t const plane = size.height * size.width, row = size.width * r;
  if (plane == 0) return;  // there may be any number of empty rows
  PhaseRows const rows = {plane, r, size.width, size.height, size.width, r * row};
  auto const* const from = static_cast<unsigned char const*>(x);
  auto* const to = static_cast<unsigned char*>(y);
  for (std::size_t c = 0; c < size.channels; c += r)  // r of them make every r-th row of a plane
    InterleaveRows(element_bytes, from + c * plane * element_bytes, rows,
                   to + (c / (r * r) * r * r * plane + c / r % r * row) * element_bytes);
}

void PixelUnshuffle(void const* x, ImageSize const& size, unsigned int element_bytes, std::size_t k, void* y) {
  std::size_t const height = size.height / k, width = size.width / k, plane = height * width;
  if (plane == 0) return;
  PhaseRows const rows = {plane, k, width, height, k * size.width, width};
  auto const* from = static_cast<unsigned char const*>(x);
  auto* to = static_cast<unsigned char*>(y);
  for (std::size_t c = 0; c < size.channels; ++c, from += size.height * size.width * element_bytes)
    for (std::size_t dy = 0; dy < k; ++dy, to += k * plane * element_bytes)
      SplitPhases(element_bytes, from + dy * size.width * element_bytes, rows, to);
}

}  // namespace talvo::kernel::functional
