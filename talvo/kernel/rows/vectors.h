// Vectors of floats for the primitives, in the compilers' own vector types: a + b and a * b work on them lane by lane.
#pragma once

#include <cstddef>
#include <utility>

#include "talvo/kernel/rows/instruction_sets.h"

namespace talvo::kernel::rows {

/// A vector of kLanes floats, 1, 4, 8 or 16.
template <int kLanes>
struct VectorOf {
  // g++ drops a dependent attribute in a `using`.
  typedef float Type __attribute__((vector_size(sizeof(float) * kLanes)));
  typedef float Unaligned __attribute__((vector_size(sizeof(float) * kLanes), aligned(sizeof(float)), may_alias));
};
template <>
struct VectorOf<1> {
  using Type = float;
  using Unaligned = float;
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

template <int kLanes, int... kIndex>
TALVO_ROWS_INLINE void Spread(Vector<kLanes> const& x, Vector<kLanes>& v, std::integer_sequence<int, kIndex...>) {
  v = __builtin_shufflevector(x, x, (0 * kIndex)...);
}

/// x in every lane. In arithmetic the scalar does it by itself: `v * x`.
template <int kLanes>
TALVO_ROWS_INLINE void Splat(float x, Vector<kLanes>& v) {
  if constexpr (kLanes == 1) {
    v = x;
  } else {
    Vector<kLanes> first = {};
    first[0] = x;  // g++ would fill a vector of equal lanes one by one, since it lowers it before it knows the target
    Spread<kLanes>(first, v, std::make_integer_sequence<int, kLanes>());
  }
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

/// low and high halves of each run of four: with kGroup 1 low = a0 b0 a1 b1, high = a2 b2 a3 b3 and so on through the
/// vector; with kGroup 2 low = a0 a1 b0 b1, high = a2 a3 b2 b3.
template <int kLanes, int kGroup, int... kIndex>
TALVO_ROWS_INLINE void InterleaveFours(Vector<kLanes> const& a, Vector<kLanes> const& b, Vector<kLanes>& low,
                                       Vector<kLanes>& high, std::integer_sequence<int, kIndex...>) {
  low = __builtin_shufflevector(
      a, b, (kIndex / 4 * 4 + kIndex % 4 / (2 * kGroup) * kGroup + kIndex % kGroup + kIndex / kGroup % 2 * kLanes)...);
  high = __builtin_shufflevector(
      a, b,
      (kIndex / 4 * 4 + 2 + kIndex % 4 / (2 * kGroup) * kGroup + kIndex % kGroup + kIndex / kGroup % 2 * kLanes)...);
}

/// even = the runs of four 0, 2, ... of the 2 kLanes floats a, b, odd = the runs 1, 3, ...
template <int kLanes, int... kIndex>
TALVO_ROWS_INLINE void SplitFours(Vector<kLanes> const& a, Vector<kLanes> const& b, Vector<kLanes>& even,
                                  Vector<kLanes>& odd, std::integer_sequence<int, kIndex...>) {
  even = __builtin_shufflevector(a, b, (kIndex / 4 * 8 + kIndex % 4)...);
  odd = __builtin_shufflevector(a, b, (kIndex / 4 * 8 + 4 + kIndex % 4)...);
}

/// Transposes kLanes vectors of kLanes floats in place: lane j of rows[i] and lane i of rows[j] change places. Runs of
/// four first, within which processors shuffle cheaply.
template <int kLanes>
TALVO_ROWS_INLINE void TransposeSquare(Vector<kLanes> (&rows)[kLanes]) {
  constexpr auto kAll = std::make_integer_sequence<int, kLanes>();
  Vector<kLanes> fours[kLanes];  // run k of fours[q + c] is column 4 k + c of the rows q .. q + 3
  TALVO_ROWS_UNROLL
  for (int q = 0; q < kLanes; q += 4) {
    Vector<kLanes> a, b, c, d;
    InterleaveFours<kLanes, 1>(rows[q], rows[q + 1], a, b, kAll);
    InterleaveFours<kLanes, 1>(rows[q + 2], rows[q + 3], c, d, kAll);
    InterleaveFours<kLanes, 2>(a, c, fours[q], fours[q + 1], kAll);
    InterleaveFours<kLanes, 2>(b, d, fours[q + 2], fours[q + 3], kAll);
  }
  TALVO_ROWS_UNROLL
  for (int c = 0; c < 4; ++c) {
    if constexpr (kLanes == 4) {
      rows[c] = fours[c];
    } else if constexpr (kLanes == 8) {
      SplitFours<kLanes>(fours[c], fours[4 + c], rows[c], rows[4 + c], kAll);
    } else {
      Vector<kLanes> even_top, odd_top, even_bottom, odd_bottom;
      SplitFours<kLanes>(fours[c], fours[4 + c], even_top, odd_top, kAll);
      SplitFours<kLanes>(fours[8 + c], fours[12 + c], even_bottom, odd_bottom, kAll);
      SplitFours<kLanes>(even_top, even_bottom, rows[c], rows[8 + c], kAll);
      SplitFours<kLanes>(odd_top, odd_bottom, rows[4 + c], rows[12 + c], kAll);
    }
  }
}

}  // namespace talvo::kernel::rows
