#include "talvo/kernel/rows/phase_plane.h"

#include "talvo/kernel/rows/vectors.h"

namespace talvo::kernel::rows {
namespace {

// Rows are short: vectors go down to those of which a row holds one, here and below, and the last one of a row moves
// back and writes some elements again.
template <int kLanes>
TALVO_ROWS_INLINE void CopyRow(float const* from, std::size_t count, float* to) {
  if constexpr (kLanes > 1) {
    if (count < kLanes) return CopyRow<(kLanes > 4 ? kLanes / 2 : 1)>(from, count, to);
  }
  Vector<kLanes> v;
  std::size_t i = 0;
  for (; i + kLanes <= count; i += kLanes) {
    Load<kLanes>(from + i, v);
    Store<kLanes>(v, to + i);
  }
  if (i == count) return;
  Load<kLanes>(from + count - kLanes, v);
  Store<kLanes>(v, to + count - kLanes);
}

// Elements 0, 2, ... go to `even`, the others to `odd`. A row holds two vectors, unless they have four lanes.
template <int kLanes>
TALVO_ROWS_INLINE void SplitRow(float const* from, std::size_t count, float* even, float* odd) {
  constexpr std::size_t kStep = 2 * kLanes;
  std::size_t const pairs = count - count % 2, whole = pairs >= kStep ? pairs : 0;
  for (std::size_t next = 0; next < whole; next += kStep) {
    std::size_t const i = std::min(next, whole - kStep);
    Vector<kLanes> a, b, evens, odds;
    Load<kLanes>(from + i, a);
    Load<kLanes>(from + i + kLanes, b);
    Split<kLanes>(a, b, evens, odds, std::make_integer_sequence<int, kLanes>());
    Store<kLanes>(evens, even + i / 2);
    Store<kLanes>(odds, odd + i / 2);
  }
  for (std::size_t i = whole; i < count; ++i) (i % 2 == 0 ? even : odd)[i / 2] = from[i];
}

template <int kLanes>
TALVO_ROWS_INLINE void SplitRows(float const* from, PhasePlane const& plane, std::size_t pitch, float* to) {
  if constexpr (kLanes > 4) {
    if (plane.width < 2 * kLanes) return SplitRows<kLanes / 2>(from, plane, pitch, to);
  }
  // Not by Place: a plane may take less time than a division by the stride.
  std::size_t const width = plane.width, left = plane.left;
  float* const even = to + left % 2 * plane.phase_pitch + left / 2;
  float* const odd = to + (left + 1) % 2 * plane.phase_pitch + (left + 1) / 2;
  for (std::size_t r = 0; r < plane.height; ++r)
    SplitRow<kLanes>(from + r * width, width, even + r * pitch, odd + r * pitch);
}

TALVO_ROWS_INLINE void SortRow(float const* from, PhasePlane const& plane, float* to) {
  for (std::size_t first = 0; first < std::min(plane.stride, plane.width); ++first) {
    float* phase = to + plane.Place(plane.left + first);
    for (std::size_t x = first; x < plane.width; x += plane.stride) *phase++ = from[x];
  }
}

struct LayPlaneBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(float const* from, PhasePlane const& plane, float* to) {
    std::size_t const width = plane.width, pitch = plane.RowPitch();
    to += plane.top * pitch;
    if (plane.stride == 2) return SplitRows<Set::kLanes>(from, plane, pitch, to);
    for (std::size_t r = 0; r < plane.height; ++r, from += width, to += pitch) {
      if (plane.stride == 1) {
        CopyRow<Set::kLanes>(from, width, to + plane.left);
      } else {
        SortRow(from, plane, to);
      }
    }
  }
};

}  // namespace

Primitive<void(float const*, PhasePlane const&, float*)> const LayPlane{LayPlaneBody()};

}  // namespace talvo::kernel::rows
