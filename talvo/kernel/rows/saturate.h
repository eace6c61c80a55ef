// The one rule by which a float becomes an integer that may not hold it. Internal.
#pragma once

#include <limits>

#include "talvo/kernel/rows/instruction_sets.h"

namespace talvo::kernel::rows {

/// `value` cut toward zero and held in the range of Int, of up to 32 bits; NaN gives 0. Selections alone, so that loops
/// over it become vectors.
template <class Int>
TALVO_ROWS_INLINE Int Saturated(float value) {
  constexpr Int kHighest = std::numeric_limits<Int>::max();
  constexpr auto kLow = static_cast<float>(std::numeric_limits<Int>::min());
  float const number = value == value ? value : 0.0f, held = number > kLow ? number : kLow;
  if constexpr (sizeof(Int) < sizeof(int)) {
    constexpr float kHigh = kHighest;
    return static_cast<Int>(static_cast<int>(held < kHigh ? held : kHigh));
  } else {
    constexpr float kEnd = 2.0f * static_cast<float>((kHighest >> 1) + 1);  // the highest itself is no float
    return held < kEnd ? static_cast<Int>(held) : kHighest;
  }
}

}  // namespace talvo::kernel::rows
