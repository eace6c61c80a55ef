// Vectors of bytes in lanes of 16. Shuffles of bytes stay in their lane, so that one instruction serves all lanes of a
// vector; a primitive gives each lane its own group of pixels. Internal.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "talvo/kernel/rows/instruction_sets.h"

namespace talvo::kernel::rows {

using Byte = unsigned char;

constexpr int kLaneBytes = 16;

/// A vector of kLanes lanes, 1, 2 or 4, as bytes, words of 16 bits and quads of 32 bits.
template <int kLanes>
struct LanesOf {
  // g++ drops a dependent attribute in a `using`.
  typedef Byte BytesType __attribute__((vector_size(kLaneBytes * kLanes)));
  typedef std::uint16_t WordsType __attribute__((vector_size(kLaneBytes * kLanes)));
  typedef std::uint32_t QuadsType __attribute__((vector_size(kLaneBytes * kLanes)));
};
template <int kLanes>
using Bytes = typename LanesOf<kLanes>::BytesType;
template <int kLanes>
using Words = typename LanesOf<kLanes>::WordsType;
template <int kLanes>
using Quads = typename LanesOf<kLanes>::QuadsType;

/// Every byte of a vector of kLanes lanes.
template <int kLanes>
using LaneIndices = std::make_integer_sequence<int, kLaneBytes * kLanes>;

/// Lanes of a vector of the set.
template <class Set>
constexpr int kByteLanes = Set::kLanes* static_cast<int>(sizeof(float)) / kLaneBytes;

/// Shuffles of bytes need an instruction that the baseline of x86-64 lacks; there the plain loops stand.
template <class Set>
constexpr bool kShuffles = !std::is_same_v<Set, Baseline>;

template <int kLanes, int... kIndex>
TALVO_ROWS_INLINE void Concatenate(Bytes<kLanes> const& low, Bytes<kLanes> const& high, Bytes<2 * kLanes>& v,
                                   std::integer_sequence<int, kIndex...>) {
  v = __builtin_shufflevector(low, high, kIndex...);
}

/// Lane l = the 16 bytes at p + l * step, at any address.
template <int kLanes>
TALVO_ROWS_INLINE void LoadLanes(Byte const* p, std::ptrdiff_t step, Bytes<kLanes>& v) {
  if constexpr (kLanes == 1) {
    std::memcpy(&v, p, sizeof(v));
  } else {
    Bytes<kLanes / 2> low, high;
    LoadLanes<kLanes / 2>(p, step, low);
    LoadLanes<kLanes / 2>(p + kLanes / 2 * step, step, high);
    Concatenate<kLanes / 2>(low, high, v, LaneIndices<kLanes>());
  }
}

template <int kLane, int kLanes, int... kIndex>
TALVO_ROWS_INLINE void TakeLane(Bytes<kLanes> const& v, Bytes<1>& lane, std::integer_sequence<int, kIndex...>) {
  lane = __builtin_shufflevector(v, v, (kLaneBytes * kLane + kIndex)...);
}

/// The first bytes of lane kLane to p.
template <int kLane, int kLanes>
TALVO_ROWS_INLINE void StoreLane(Bytes<kLanes> const& v, Byte* p, std::size_t bytes = kLaneBytes) {
  Bytes<1> lane;
  TakeLane<kLane, kLanes>(v, lane, LaneIndices<1>());
  std::memcpy(p, &lane, bytes);
}

/// Byte i of each lane of y = byte Place::Of(i) of the same lane of x.
template <class Place, int kLanes, int... kIndex>
TALVO_ROWS_INLINE void ShuffleLanes(Bytes<kLanes> const& x, Bytes<kLanes>& y, std::integer_sequence<int, kIndex...>) {
  y = __builtin_shufflevector(x, x, (kIndex / kLaneBytes * kLaneBytes + Place::Of(kIndex % kLaneBytes))...);
}

/// Byte i of each lane = that of x[Choice::Of(i)]; three vectors.
template <class Choice, int kLanes, int... kIndex>
TALVO_ROWS_INLINE void Select(Bytes<kLanes> const (&x)[3], Bytes<kLanes>& y, std::integer_sequence<int, kIndex...>) {
  constexpr Bytes<kLanes> kFirst = {(Choice::Of(kIndex % kLaneBytes) == 0 ? Byte{255} : Byte{0})...};
  constexpr Bytes<kLanes> kSecond = {(Choice::Of(kIndex % kLaneBytes) == 1 ? Byte{255} : Byte{0})...};
  y = (x[0] & kFirst) | (x[1] & kSecond) | (x[2] & ~(kFirst | kSecond));
}

/// Quads of each lane: low = a[0], b[0], a[1], b[1], high = a[2], b[2], a[3], b[3].
template <int kLanes, int... kIndex>
TALVO_ROWS_INLINE void InterleaveQuads(Quads<kLanes> const& a, Quads<kLanes> const& b, Quads<kLanes>& low,
                                       Quads<kLanes>& high, std::integer_sequence<int, kIndex...>) {
  low = __builtin_shufflevector(a, b, (kIndex / 4 * 4 + kIndex % 4 / 2 + kIndex % 2 * 4 * kLanes)...);
  high = __builtin_shufflevector(a, b, (kIndex / 4 * 4 + kIndex % 4 / 2 + 2 + kIndex % 2 * 4 * kLanes)...);
}

}  // namespace talvo::kernel::rows
