#include "talvo/kernel/native/permute.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "talvo/utility/log.h"
#include "talvo/utility/restrict.h"

namespace talvo::kernel::native {
namespace {

using utility::Assert;
using Byte = unsigned char;

// One axis of the copy; steps in bytes.
struct Axis {
  std::size_t extent, source_step, destination_step;
};
using Axes = std::vector<Axis>;

void Check(std::vector<unsigned int> const& dims, std::vector<unsigned int> const& axes) {
  std::vector<bool> seen(axes.size());
  for (unsigned int axis : axes) {
    Assert(axis < axes.size() && !seen[axis], "permute: axis %u is out of range or repeated among %zu axes", axis,
           axes.size());
    seen[axis] = true;
  }
  std::uint64_t count = std::count(dims.begin(), dims.end(), 0u) == 0;
  for (unsigned int extent : dims) {
    count *= extent;
    Assert(count <= 0xFFFFFFFFu, "permute: dims of more than 4294967295 elements");
  }
}

// The axes in the destination's order. Axes of extent 1 are left out, neighbours that stay neighbours are one axis.
Axes MergedAxes(std::vector<unsigned int> const& dims, std::size_t element_bytes,
                std::vector<unsigned int> const& order) {
  std::vector<std::size_t> source_steps(dims.size());
  std::size_t step = element_bytes;
  for (std::size_t axis = dims.size(); axis-- > 0; step *= dims[axis]) source_steps[axis] = step;
  Axes merged;
  for (unsigned int axis : order) {
    if (dims[axis] == 1) continue;
    if (!merged.empty() && merged.back().source_step == source_steps[axis] * dims[axis]) {
      merged.back().extent *= dims[axis];
      merged.back().source_step = source_steps[axis];
    } else {
      merged.push_back({dims[axis], source_steps[axis], 0});
    }
  }
  step = element_bytes;
  for (std::size_t k = merged.size(); k-- > 0; step *= merged[k].extent) merged[k].destination_step = step;
  return merged;
}

// Calls visit(source, destination) for each index of the axes, the last of them fastest.
template <class Visit>
void ForEach(Axes const& axes, Byte const* source, Byte* destination, Visit const& visit) {
  std::vector<std::size_t> index(axes.size());
  for (;;) {
    visit(source, destination);
    std::size_t k = axes.size();
    for (; k > 0; --k) {
      Axis const& axis = axes[k - 1];
      source += axis.source_step;
      destination += axis.destination_step;
      if (++index[k - 1] < axis.extent) break;
      index[k - 1] = 0;
      source -= axis.source_step * axis.extent;
      destination -= axis.destination_step * axis.extent;
    }
    if (k == 0) return;
  }
}

// A square tile of T is held in vectors of 16 bytes, one for each row.
template <class T>
constexpr std::size_t kLanes = 16 / sizeof(T);
template <class T>
struct VectorOf {
  typedef T Type __attribute__((vector_size(16)));
};
template <class T>
using Vector = typename VectorOf<T>::Type;

// The lanes of a and b in turn, from lane `first` on.
template <std::size_t first>
Vector<std::uint8_t> Interleave(Vector<std::uint8_t> const& a, Vector<std::uint8_t> const& b) {
  constexpr int f = first;
  return __builtin_shufflevector(a, b, f, f + 16, f + 1, f + 17, f + 2, f + 18, f + 3, f + 19, f + 4, f + 20, f + 5,
                                 f + 21, f + 6, f + 22, f + 7, f + 23);
}
template <std::size_t first>
Vector<std::uint16_t> Interleave(Vector<std::uint16_t> const& a, Vector<std::uint16_t> const& b) {
  constexpr int f = first;
  return __builtin_shufflevector(a, b, f, f + 8, f + 1, f + 9, f + 2, f + 10, f + 3, f + 11);
}
template <std::size_t first>
Vector<std::uint32_t> Interleave(Vector<std::uint32_t> const& a, Vector<std::uint32_t> const& b) {
  constexpr int f = first;
  return __builtin_shufflevector(a, b, f, f + 4, f + 1, f + 5);
}
template <std::size_t first>
Vector<std::uint64_t> Interleave(Vector<std::uint64_t> const& a, Vector<std::uint64_t> const& b) {
  constexpr int f = first;
  return __builtin_shufflevector(a, b, f, f + 2);
}

// Interleaving row i with row i + n/2 rotates the bits of (row, lane) by one place; log2(n) times swap row and lane.
template <class T>
void TransposeTile(Byte const* TALVO_RESTRICT source, std::size_t source_step, Byte* TALVO_RESTRICT destination,
                   std::size_t destination_step) {
  constexpr std::size_t n = kLanes<T>;
  Vector<T> rows[n], next[n];
  for (std::size_t i = 0; i < n; ++i) std::memcpy(&rows[i], source + i * source_step, 16);
  for (std::size_t round = 1; round < n; round *= 2) {
    for (std::size_t i = 0; i < n / 2; ++i) {
      next[2 * i] = Interleave<0>(rows[i], rows[i + n / 2]);
      next[2 * i + 1] = Interleave<n / 2>(rows[i], rows[i + n / 2]);
    }
    std::copy(next, next + n, rows);
  }
  for (std::size_t i = 0; i < n; ++i) std::memcpy(destination + i * destination_step, &rows[i], 16);
}

// A plane of elements: row r begins at source + r * source_step and is contiguous, column c goes to
// destination + c * destination_step and is contiguous there.
struct Plane {
  Byte const* source;
  std::size_t source_step, rows, columns;
  Byte* destination;
  std::size_t destination_step;

  // The rectangle of up to `row_count` rows and `column_count` columns from (row, column) on.
  Plane Rectangle(std::size_t row, std::size_t row_count, std::size_t column, std::size_t column_count,
                  std::size_t element_bytes) const {
    return {source + row * source_step + column * element_bytes,
            source_step,
            std::min(row_count, rows - row),
            std::min(column_count, columns - column),
            destination + column * destination_step + row * element_bytes,
            destination_step};
  }
};

// `bytes` is a std::size_t, or a std::integral_constant for a copy without a call.
template <class Bytes>
void MoveOneByOne(Plane const& plane, Bytes bytes) {
  for (std::size_t column = 0; column < plane.columns; ++column)
    for (std::size_t row = 0; row < plane.rows; ++row)
      std::memcpy(plane.destination + column * plane.destination_step + row * bytes,
                  plane.source + row * plane.source_step + column * bytes, bytes);
}

template <class T>
struct TileMover {
  static constexpr std::integral_constant<std::size_t, sizeof(T)> bytes{};

  void operator()(Plane const& plane) const {
    constexpr std::size_t n = kLanes<T>;
    std::size_t const whole_rows = plane.rows / n * n, whole_columns = plane.columns / n * n;
    for (std::size_t column = 0; column < whole_columns; column += n) {
      for (std::size_t row = 0; row < whole_rows; row += n) {
        Plane const tile = plane.Rectangle(row, n, column, n, bytes);
        TransposeTile<T>(tile.source, tile.source_step, tile.destination, tile.destination_step);
      }
    }
    MoveOneByOne(plane.Rectangle(0, whole_rows, whole_columns, n, bytes), bytes);
    MoveOneByOne(plane.Rectangle(whole_rows, n, 0, plane.columns, bytes), bytes);
  }
};

struct ElementMover {
  std::size_t bytes;

  void operator()(Plane const& plane) const { MoveOneByOne(plane, bytes); }
};

// Moves a plane in blocks whose lines stay in the nearest cache until they are read and written whole.
template <class Mover>
void MovePlane(Plane const& plane, Mover const& mover) {
  constexpr std::size_t kBlock = 64;
  for (std::size_t row = 0; row < plane.rows; row += kBlock)
    for (std::size_t column = 0; column < plane.columns; column += kBlock)
      mover(plane.Rectangle(row, kBlock, column, kBlock, mover.bytes));
}

// One axis is contiguous in the source, the last one in the destination: they span a plane for each index of the rest.
template <class Mover>
void MovePlanes(Axes axes, Byte const* source, Byte* destination, Mover const& mover) {
  auto const contiguous =
      std::find_if(axes.begin(), axes.end(), [&](Axis const& axis) { return axis.source_step == mover.bytes; });
  Axis const column_axis = *contiguous, row_axis = axes.back();
  axes.pop_back();
  axes.erase(contiguous);
  ForEach(axes, source, destination, [&](Byte const* from, Byte* to) {
    MovePlane({from, row_axis.source_step, row_axis.extent, column_axis.extent, to, column_axis.destination_step},
              mover);
  });
}

void Permute(Axes axes, std::size_t element_bytes, Byte const* source, Byte* destination) {
  if (!axes.empty() && axes.back().source_step == element_bytes) {  // rows stay rows: a row is one element
    element_bytes *= axes.back().extent;
    axes.pop_back();
  }
  if (axes.empty()) {
    std::memcpy(destination, source, element_bytes);
    return;
  }
  switch (element_bytes) {
    case 1:
      return MovePlanes(std::move(axes), source, destination, TileMover<std::uint8_t>());
    case 2:
      return MovePlanes(std::move(axes), source, destination, TileMover<std::uint16_t>());
    case 4:
      return MovePlanes(std::move(axes), source, destination, TileMover<std::uint32_t>());
    case 8:
      return MovePlanes(std::move(axes), source, destination, TileMover<std::uint64_t>());
    default:
      return MovePlanes(std::move(axes), source, destination, ElementMover{element_bytes});
  }
}

}  // namespace

void Transform_MainMemory_Permute_Fallback(void const* source, std::vector<unsigned int> dims,
                                           unsigned int element_bytes, std::vector<unsigned int> axes,
                                           void* destination) {
  Assert(source != nullptr, "Input shared pointer is null.");
  Assert(destination != nullptr, "Output shared pointer is null.");
  Assert(element_bytes != 0, "bytes per element must be >= 1.");
  Assert(dims.size() == axes.size(), "dimensions of shape must be equal to tranpose axes's.");
  Check(dims, axes);
  if (std::count(dims.begin(), dims.end(), 0u) != 0) return;
  Permute(MergedAxes(dims, element_bytes, axes), element_bytes, static_cast<Byte const*>(source),
          static_cast<Byte*>(destination));
}

}  // namespace talvo::kernel::native
