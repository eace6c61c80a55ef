// Several vectors that go through a long chain of operations in step, statement by statement: one vector alone would
// wait for its own results.
#pragma once

#include <cstddef>
#include <cstdint>

#include "talvo/kernel/rows/instruction_sets.h"

namespace talvo::kernel::rows {

/// A vector of kLanes elements of T, a number of 4 or 8 bytes.
template <class T, int kLanes>
struct RegisterOf {
  // g++ drops a dependent attribute in a `using`.
  typedef T Type __attribute__((vector_size(sizeof(T) * kLanes)));
  typedef T Unaligned __attribute__((vector_size(sizeof(T) * kLanes), aligned(sizeof(T)), may_alias));
};

#define TALVO_PACK_EACH TALVO_ROWS_UNROLL for (int u = 0; u < kTimes; ++u)
#define TALVO_PACK_OPERATOR(Result, op)                                       \
  friend TALVO_ROWS_INLINE Result operator op(Pack const& a, Pack const& b) { \
    Result y;                                                                 \
    TALVO_PACK_EACH y.at[u] = a.at[u] op b.at[u];                             \
    return y;                                                                 \
  }

/// kTimes vectors of kLanes elements. The operators work element by element as those of T do, where the registers take
/// them; a scalar stands for itself in every element.
template <class T, int kLanes, int kTimes>
struct Pack {
  static constexpr std::size_t kCount = std::size_t{kLanes} * kTimes;
  template <class Other>
  using Like = Pack<Other, kLanes, kTimes>;
  /// Of a comparison of elements of 4 bytes: all bits set where it holds.
  using Mask = Like<std::int32_t>;
  using Register = typename RegisterOf<T, kLanes>::Type;
  using Unaligned = typename RegisterOf<T, kLanes>::Unaligned;
  Register at[kTimes];

  Pack() = default;
  TALVO_ROWS_INLINE Pack(T x) { TALVO_PACK_EACH at[u] = x - Register{}; }  // NOLINT: implicit, for `pack * x`

  TALVO_PACK_OPERATOR(Pack, +)
  TALVO_PACK_OPERATOR(Pack, -)
  TALVO_PACK_OPERATOR(Pack, *)
  TALVO_PACK_OPERATOR(Pack, /)
  TALVO_PACK_OPERATOR(Pack, &)
  TALVO_PACK_OPERATOR(Pack, |)
  TALVO_PACK_OPERATOR(Pack, ^)
  TALVO_PACK_OPERATOR(Mask, <)
  TALVO_PACK_OPERATOR(Mask, ==)

  TALVO_ROWS_INLINE Pack operator<<(int bits) const {
    Pack y;
    TALVO_PACK_EACH y.at[u] = at[u] << bits;
    return y;
  }
  TALVO_ROWS_INLINE Pack operator>>(int bits) const {
    Pack y;
    TALVO_PACK_EACH y.at[u] = at[u] >> bits;
    return y;
  }

  static TALVO_ROWS_INLINE Pack Load(T const* p) {
    Pack y;
    TALVO_PACK_EACH y.at[u] = reinterpret_cast<Unaligned const*>(p + u * kLanes)[0];
    return y;
  }
  TALVO_ROWS_INLINE void Store(T* p) const { TALVO_PACK_EACH reinterpret_cast<Unaligned*>(p + u * kLanes)[0] = at[u]; }
};

/// mask ? a : b.
template <class T, int kLanes, int kTimes>
TALVO_ROWS_INLINE Pack<T, kLanes, kTimes> Select(
    Pack<std::int32_t, kLanes, kTimes> const& mask,
    typename Pack<std::int32_t, kLanes, kTimes>::template Like<T> const& a,
    typename Pack<std::int32_t, kLanes, kTimes>::template Like<T> const& b) {
  Pack<T, kLanes, kTimes> y;
  TALVO_PACK_EACH y.at[u] = mask.at[u] ? a.at[u] : b.at[u];
  return y;
}

/// The value of each element as a To; an integer is cut towards zero.
template <class To, class From, int kLanes, int kTimes>
TALVO_ROWS_INLINE Pack<To, kLanes, kTimes> Convert(Pack<From, kLanes, kTimes> const& x) {
  Pack<To, kLanes, kTimes> y;
  TALVO_PACK_EACH y.at[u] = __builtin_convertvector(x.at[u], typename RegisterOf<To, kLanes>::Type);
  return y;
}

/// The bits of each element as a To of the same size.
template <class To, class From, int kLanes, int kTimes>
TALVO_ROWS_INLINE Pack<To, kLanes, kTimes> BitsAs(Pack<From, kLanes, kTimes> const& x) {
  static_assert(sizeof(To) == sizeof(From), "the same bits under another type");
  Pack<To, kLanes, kTimes> y;
  TALVO_PACK_EACH y.at[u] = (typename RegisterOf<To, kLanes>::Type)x.at[u];
  return y;
}

}  // namespace talvo::kernel::rows
