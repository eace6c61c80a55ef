// The fused step of the primitives: a multiplication and an addition with one rounding, as fmaf defines it, on vectors.
// Its bits are the same with and without an instruction for it. Internal.
#pragma once

#include <cstdint>
#include <utility>

#include "talvo/kernel/rows/vectors.h"

namespace talvo::kernel::rows {

/// By the instruction. For sets that have it alone: clang would round twice without.
template <int kLanes, int... kIndex>
TALVO_ROWS_INLINE void FuseByInstruction(Vector<kLanes> const& a, Vector<kLanes> const& b, Vector<kLanes>& c,
                                         std::integer_sequence<int, kIndex...>) {
#if defined(__clang__)
#pragma clang fp contract(on)
  c = a * b + c;
#else
  c = Vector<kLanes>{__builtin_fmaf(a[kIndex], b[kIndex], c[kIndex])...};
#endif
}

/// In double, without an instruction: the product is exact there, and the sum is rounded to odd, that is to the
/// neighbour with the last bit set, from which rounding to float is as from the exact sum.
template <int kLanes>
TALVO_ROWS_INLINE void FuseInDouble(Vector<kLanes> const& a, Vector<kLanes> const& b, Vector<kLanes>& c) {
  static_assert(kLanes > 1, "a vector");
  typedef double Doubles __attribute__((vector_size(sizeof(double) * kLanes)));
  typedef std::int64_t Bits __attribute__((vector_size(sizeof(double) * kLanes)));
  Doubles const product = __builtin_convertvector(a, Doubles) * __builtin_convertvector(b, Doubles);
  Doubles const start = __builtin_convertvector(c, Doubles);
  Doubles const sum = product + start, of_start = sum - product;
  Doubles const error = (product - (sum - of_start)) + (start - of_start);  // sum + error is exact
  Bits const bits = (Bits)sum, inexact = (error < 0.0) | (error > 0.0), even = (bits & 1) - 1;
  Bits const towards_zero = ((Bits)error ^ bits) < 0;
  c = __builtin_convertvector((Doubles)(bits + ((towards_zero | 1) & inexact & even)), Vector<kLanes>);
}

/// c = a * b + c, rounded once, lane by lane. The set decides how, never the compiler.
template <class Set, int kLanes>
TALVO_ROWS_INLINE void FusedStep(Vector<kLanes> const& a, Vector<kLanes> const& b, Vector<kLanes>& c) {
  if constexpr (kLanes == 1) {
    c = __builtin_fmaf(a, b, c);
  } else if constexpr (Set::kFuses) {
    FuseByInstruction<kLanes>(a, b, c, std::make_integer_sequence<int, kLanes>());
  } else {
    FuseInDouble<kLanes>(a, b, c);
  }
}

}  // namespace talvo::kernel::rows
