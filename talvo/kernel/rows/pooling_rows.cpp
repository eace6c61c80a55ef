#include "talvo/kernel/rows/pooling_rows.h"

#include <limits>

#include "talvo/kernel/rows/vectors.h"

namespace talvo::kernel::rows {
namespace {

constexpr float kLowest = std::numeric_limits<float>::lowest();

struct MaximumFold {
  static constexpr float kStart = kLowest;
  template <class V>
  static TALVO_ROWS_INLINE void Add(V const& v, V& best) {
    best = v <= best ? best : v;
  }
};

struct SumFold {
  static constexpr float kStart = 0.0f;
  template <class V>
  static TALVO_ROWS_INLINE void Add(V const& v, V& sum) {
    sum += v;
  }
};

// The fold of the taps at kLanes neighbouring outputs from `at`.
template <class Fold, int kLanes>
TALVO_ROWS_INLINE void FoldVector(float const* const* taps, std::size_t tap_count, std::size_t at,
                                  Vector<kLanes>& result) {
  Splat<kLanes>(Fold::kStart, result);
  for (std::size_t tap = 0; tap < tap_count; ++tap) {
    Vector<kLanes> v;
    Load<kLanes>(taps[tap] + at, v);
    Fold::Add(v, result);
  }
}

template <class Fold>
TALVO_ROWS_INLINE float FoldOne(float const* const* taps, std::size_t tap_count, std::size_t at) {
  float result = Fold::kStart;
  for (std::size_t tap = 0; tap < tap_count; ++tap) Fold::Add(taps[tap][at], result);
  return result;
}

// Where the vector behind `at` starts: the last one moves back and computes some outputs again.
template <int kLanes>
TALVO_ROWS_INLINE std::size_t StartAt(std::size_t at, std::size_t count) {
  return at + kLanes <= count ? at : count - kLanes;
}

struct MaximumBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(float const* const* taps, std::size_t tap_count, std::size_t count, float* y) {
    constexpr int kLanes = Set::kLanes;
    if (count < kLanes) {
      for (std::size_t i = 0; i < count; ++i) y[i] = FoldOne<MaximumFold>(taps, tap_count, i);
      return;
    }
    for (std::size_t i = 0; i < count; i += kLanes) {
      std::size_t const at = StartAt<kLanes>(i, count);
      Vector<kLanes> best;
      FoldVector<MaximumFold, kLanes>(taps, tap_count, at, best);
      Store<kLanes>(best, y + at);
    }
  }
};

struct MeanBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(float const* const* taps, std::size_t tap_count, float const* divisors,
                                    std::size_t count, float* y) {
    constexpr int kLanes = Set::kLanes;
    if (count < kLanes) {
      for (std::size_t i = 0; i < count; ++i) y[i] = FoldOne<SumFold>(taps, tap_count, i) / divisors[i];
      return;
    }
    for (std::size_t i = 0; i < count; i += kLanes) {
      std::size_t const at = StartAt<kLanes>(i, count);
      Vector<kLanes> sum, divisor;
      FoldVector<SumFold, kLanes>(taps, tap_count, at, sum);
      Load<kLanes>(divisors + at, divisor);
      sum /= divisor;
      Store<kLanes>(sum, y + at);
    }
  }
};

struct SplitBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(float const* from, std::size_t count, std::size_t stride, std::size_t pitch,
                                    float* to) {
    if (stride == 2) {
      RunPairs<Set::kLanes>(from, count, pitch, to);
      return;
    }
    for (std::size_t phase = 0; phase < stride && phase < count; ++phase) {
      float* const row = to + phase * pitch;
      for (std::size_t i = phase, k = 0; i < count; i += stride, ++k) row[k] = from[i];
    }
  }

  template <int kLanes>
  static TALVO_ROWS_INLINE void RunPairs(float const* from, std::size_t count, std::size_t pitch, float* to) {
    std::size_t i = 0;
    for (; i + 2 * kLanes <= count; i += 2 * kLanes) {
      Vector<kLanes> a, b, even, odd;
      Load<kLanes>(from + i, a);
      Load<kLanes>(from + i + kLanes, b);
      Split<kLanes>(a, b, even, odd, std::make_integer_sequence<int, kLanes>());
      Store<kLanes>(even, to + i / 2);
      Store<kLanes>(odd, to + pitch + i / 2);
    }
    for (; i < count; ++i) to[i % 2 * pitch + i / 2] = from[i];
  }
};

}  // namespace

Primitive<void(float const* const*, std::size_t, std::size_t, float*)> const MaximumOfTaps{MaximumBody()};
Primitive<void(float const* const*, std::size_t, float const*, std::size_t, float*)> const MeanOfTaps{MeanBody()};
Primitive<void(float const*, std::size_t, std::size_t, std::size_t, float*)> const SplitPhases{SplitBody()};

}  // namespace talvo::kernel::rows
