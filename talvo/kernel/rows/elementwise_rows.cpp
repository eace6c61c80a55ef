#include "talvo/kernel/rows/elementwise_rows.h"

namespace talvo::kernel::rows {
namespace {

constexpr float kSixth = 0x1.555556p-3f;

// The order of the operands of each comparison decides what becomes of NaN and of the sign of zero.
struct Relu {
  TALVO_ROWS_INLINE float operator()(float x) const { return 0.0f > x ? 0.0f : x; }
};
struct Relu6 {
  TALVO_ROWS_INLINE float operator()(float x) const {
    float const r = 0.0f > x ? 0.0f : x;
    return 6.0f < r ? 6.0f : r;
  }
};
struct HSigmoid {
  TALVO_ROWS_INLINE float operator()(float x) const {
    float t = x + 3.0f;
    t = t > 0.0f ? t : 0.0f;
    t = t < 6.0f ? t : 6.0f;
    return t * kSixth;
  }
};
struct HSwish {
  TALVO_ROWS_INLINE float operator()(float x) const { return HSigmoid()(x) * x; }
};
struct Leaky {
  float alpha;
  TALVO_ROWS_INLINE float operator()(float x) const { return x < 0.0f ? alpha * x : x; }
};
struct Linear {
  float scale, offset;
  TALVO_ROWS_INLINE float operator()(float x) const { return x * scale + offset; }
};

// The compiler tests the second loop for overlap and keeps a scalar one for it; equal ranges, which that test would
// turn away, have a loop of their own.
template <class Step>
TALVO_ROWS_INLINE void MapRow(Step step, float const* x, std::size_t n, float* y) {
  if (x == y) {
    for (std::size_t i = 0; i < n; ++i) y[i] = step(y[i]);
  } else {
    for (std::size_t i = 0; i < n; ++i) y[i] = step(x[i]);
  }
}

template <class Step>
struct MapBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(float const* x, std::size_t n, float* y) {
    MapRow(Step(), x, n, y);
  }
};

struct LeakyBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(float alpha, float const* x, std::size_t n, float* y) {
    MapRow(Leaky{alpha}, x, n, y);
  }
};

struct LinearBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(float scale, float offset, float const* x, std::size_t n, float* y) {
    MapRow(Linear{scale, offset}, x, n, y);
  }
};

struct Add {
  TALVO_ROWS_INLINE float operator()(float a, float b) const { return a + b; }
};
struct Sub {
  TALVO_ROWS_INLINE float operator()(float a, float b) const { return a - b; }
};
struct Mul {
  TALVO_ROWS_INLINE float operator()(float a, float b) const { return a * b; }
};
struct Div {
  TALVO_ROWS_INLINE float operator()(float a, float b) const { return a / b; }
};
// b when either is NaN, and for zeros of two signs.
struct Larger {
  TALVO_ROWS_INLINE float operator()(float a, float b) const { return a > b ? a : b; }
};
struct Smaller {
  TALVO_ROWS_INLINE float operator()(float a, float b) const { return a < b ? a : b; }
};

struct CombineBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(Operation operation, Operand a, Operand b, std::size_t n, float* y) {
    switch (operation) {
      case Operation::kAdd:
        return Combine(Add(), a, b, n, y);
      case Operation::kSub:
        return Combine(Sub(), a, b, n, y);
      case Operation::kMul:
        return Combine(Mul(), a, b, n, y);
      case Operation::kDiv:
        return Combine(Div(), a, b, n, y);
      case Operation::kLarger:
        return Combine(Larger(), a, b, n, y);
      case Operation::kSmaller:
        return Combine(Smaller(), a, b, n, y);
    }
  }

  template <class Step>
  static TALVO_ROWS_INLINE void Combine(Step step, Operand a, Operand b, std::size_t n, float* y) {
    if (a.repeats) {
      float const one = *a.x;
      for (std::size_t i = 0; i < n; ++i) y[i] = step(one, b.x[i]);
    } else if (b.repeats) {
      float const one = *b.x;
      for (std::size_t i = 0; i < n; ++i) y[i] = step(a.x[i], one);
    } else {
      for (std::size_t i = 0; i < n; ++i) y[i] = step(a.x[i], b.x[i]);
    }
  }
};

}  // namespace

Primitive<void(float const*, std::size_t, float*)> const ReluRow{MapBody<Relu>()};
Primitive<void(float const*, std::size_t, float*)> const Relu6Row{MapBody<Relu6>()};
Primitive<void(float const*, std::size_t, float*)> const HSigmoidRow{MapBody<HSigmoid>()};
Primitive<void(float const*, std::size_t, float*)> const HSwishRow{MapBody<HSwish>()};
Primitive<void(float, float const*, std::size_t, float*)> const LeakyRow{LeakyBody()};
Primitive<void(float, float, float const*, std::size_t, float*)> const LinearRow{LinearBody()};
Primitive<void(Operation, Operand, Operand, std::size_t, float*)> const CombineRow{CombineBody()};

}  // namespace talvo::kernel::rows
