// Vectors of floats for the primitives, in the compilers' own vector types: a + b and a * b work on them lane by lane.
#pragma once

#include <cstddef>
#include <utility>

#include "talvo/kernel/rows/instruction_sets.h"

namespace talvo::kernel::rows {

/// A vector of kLanes floats, 1, 2, 4, 8 or 16.
template <int kLanes>
struct VectorOf {
  // g++ drops a dependent attribute in a `using`.
  typedef float Type __attribute__((vector_size(sizeof(float) * kLanes)));
  typedef float Unaligned __attribute__((vector_size(sizeof(float) * kLanes), aligned(sizeof(float)), may_alias));
};
template <int kLanes>
using Vector = typename VectorOf<kLanes>::Type;

/// v = p[0 .. kLanes), at any address.
template <int kLanes>
TALVO_ROWS_INLINE void Load(float const* p, Vector<kLanes>& v) {
  v = *reinterpret_cast<typename VectorOf<kLanes>::Unaligned const*>(p);
}

/// p[0 .. kLanes) = v, at any address.
template <int kLanes>
TALVO_ROWS_INLINE void Store(Vector<kLanes> const& v, float* p) {
  *reinterpret_cast<typename VectorOf<kLanes>::Unaligned*>(p) = v;
}

/// x in every lane, bit by bit.
template <int kLanes>
TALVO_ROWS_INLINE void Splat(float x, Vector<kLanes>& v) {
  for (int lane = 0; lane < kLanes; ++lane) v[lane] = x;
}

/// low = a[0], b[0], a[1], b[1], ..., high = the same of the upper halves.
template <int kLanes, int... kIndex>
TALVO_ROWS_INLINE void Interleave(Vector<kLanes> const& a, Vector<kLanes> const& b, Vector<kLanes>& low,
                                  Vector<kLanes>& high, std::integer_sequence<int, kIndex...>) {
  low = __builtin_shufflevector(a, b, (kIndex / 2 + (kIndex % 2) * kLanes)...);
  high = __builtin_shufflevector(a, b, (kIndex / 2 + kLanes / 2 + (kIndex % 2) * kLanes)...);
}

/// even = p[0], p[2], ..., odd = p[1], p[3], ... of the 2 kLanes floats a, b.
template <int kLanes, int... kIndex>
TALVO_ROWS_INLINE void Split(Vector<kLanes> const& a, Vector<kLanes> const& b, Vector<kLanes>& even,
                             Vector<kLanes>& odd, std::integer_sequence<int, kIndex...>) {
  even = __builtin_shufflevector(a, b, (2 * kIndex)...);
  odd = __builtin_shufflevector(a, b, (2 * kIndex + 1)...);
}

/// Transposes kLanes vectors of kLanes floats in place: lane j of rows[i] and lane i of rows[j] change places.
template <int kLanes>
TALVO_ROWS_INLINE void TransposeSquare(Vector<kLanes> (&rows)[kLanes]) {
  for (int step = 1; step < kLanes; step *= 2) {
    Vector<kLanes> mixed[kLanes];
    for (int i = 0; i < kLanes / 2; ++i) {
      Interleave<kLanes>(rows[i], rows[i + kLanes / 2], mixed[2 * i], mixed[2 * i + 1],
                         std::make_integer_sequence<int, kLanes>());
    }
    for (int i = 0; i < kLanes; ++i) rows[i] = mixed[i];
  }
}

/// to[c * to_stride + r] = from[r * from_stride + c] for r < rows, c < columns; the ranges do not overlap.
template <int kLanes>
TALVO_ROWS_INLINE void Transpose(float const* from, std::size_t from_stride, std::size_t rows, std::size_t columns,
                                 float* to, std::size_t to_stride) {
  std::size_t const whole_rows = rows - rows % kLanes, whole_columns = columns - columns % kLanes;
  for (std::size_t c = 0; c < whole_columns; c += kLanes) {
    for (std::size_t r = 0; r < whole_rows; r += kLanes) {
      Vector<kLanes> square[kLanes];
      for (std::size_t i = 0; i < kLanes; ++i) Load<kLanes>(from + (r + i) * from_stride + c, square[i]);
      TransposeSquare<kLanes>(square);
      for (std::size_t i = 0; i < kLanes; ++i) Store<kLanes>(square[i], to + (c + i) * to_stride + r);
    }
  }
  for (std::size_t c = 0; c < columns; ++c) {
    for (std::size_t r = c < whole_columns ? whole_rows : 0; r < rows; ++r) {
      to[c * to_stride + r] = from[r * from_stride + c];
    }
  }
}

}  // namespace talvo::kernel::rows
