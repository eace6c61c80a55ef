#include "talvo/kernel/rows/exponential.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <utility>

#include "talvo/kernel/rows/pack.h"

namespace talvo::kernel::rows {
namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity(), kNaN = std::numeric_limits<float>::quiet_NaN();

// Floats that are computed in double take half a register each. As many vectors at a time as are fastest: more than
// registers hold, so that none waits for a division.
template <class Set, int kBaseline, int kAvx2, int kAvx512>
using FloatsOfDoubles = Pack<float, Set::kLanes / 2,
                             (Set::kLanes == 4   ? kBaseline
                              : Set::kLanes == 8 ? kAvx2
                                                 : kAvx512)>;

// 2^(i/32).
constexpr double kRoots[32] = {0x1.0000000000000p+0, 0x1.059b0d3158574p+0, 0x1.0b5586cf9890fp+0, 0x1.11301d0125b51p+0,
                               0x1.172b83c7d517bp+0, 0x1.1d4873168b9aap+0, 0x1.2387a6e756238p+0, 0x1.29e9df51fdee1p+0,
                               0x1.306fe0a31b715p+0, 0x1.371a7373aa9cbp+0, 0x1.3dea64c123422p+0, 0x1.44e086061892dp+0,
                               0x1.4bfdad5362a27p+0, 0x1.5342b569d4f82p+0, 0x1.5ab07dd485429p+0, 0x1.6247eb03a5585p+0,
                               0x1.6a09e667f3bcdp+0, 0x1.71f75e8ec5f74p+0, 0x1.7a11473eb0187p+0, 0x1.82589994cce13p+0,
                               0x1.8ace5422aa0dbp+0, 0x1.93737b0cdc5e5p+0, 0x1.9c49182a3f090p+0, 0x1.a5503b23e255dp+0,
                               0x1.ae89f995ad3adp+0, 0x1.b7f76f2fb5e47p+0, 0x1.c199bdd85529cp+0, 0x1.cb720dcef9069p+0,
                               0x1.d5818dcfba487p+0, 0x1.dfc97337b9b5fp+0, 0x1.ea4afa2a490dap+0, 0x1.f50765b6e4540p+0};

template <int kLanes>
using DoublesOf = typename RegisterOf<double, kLanes>::Type;
template <int kLanes>
using LongsOf = typename RegisterOf<std::int64_t, kLanes>::Type;

// y = x 2^(k / 32 rounded down).
template <int kLanes>
TALVO_ROWS_INLINE void ScaleByWhole(DoublesOf<kLanes> const& x, LongsOf<kLanes> const& k, DoublesOf<kLanes>& y) {
  y = (DoublesOf<kLanes>)((LongsOf<kLanes>)x + ((k & ~std::int64_t{31}) << 47));
}

// y = 2^(k/32) for whole k.
template <int kLanes, int... kLane>
TALVO_ROWS_INLINE void Power(LongsOf<kLanes> const& k, DoublesOf<kLanes>& y, std::integer_sequence<int, kLane...>) {
  DoublesOf<kLanes> const root = {kRoots[k[kLane] & 31]...};
  ScaleByWhole<kLanes>(root, k, y);
}

// y = table[index % 8].
TALVO_ROWS_INLINE void Permute(DoublesOf<8> const& table, LongsOf<8> const& index, DoublesOf<8>& y) {
#if defined(__clang__)
  y = __builtin_shufflevector(table, index);
#else
  y = __builtin_shuffle(table, index);
#endif
}

// The same for eight lanes, in AVX-512, from tables in registers: 2^(k/32) = 2^(k / 8 / 4) 2^(k % 8 / 32).
TALVO_ROWS_INLINE void PowerOfEight(LongsOf<8> const& k, DoublesOf<8>& y) {
  double const* const r = kRoots;
  DoublesOf<8> const quarters = {r[0], r[8], r[16], r[24], r[0], r[8], r[16], r[24]};
  DoublesOf<8> const parts = {r[0], r[1], r[2], r[3], r[4], r[5], r[6], r[7]};
  DoublesOf<8> quarter, part;
  Permute(quarters, k >> 3, quarter);
  Permute(parts, k, part);
  ScaleByWhole<8>(quarter, k, quarter);
  y = quarter * part;
}

template <int kLanes, int kTimes>
TALVO_ROWS_INLINE Pack<double, kLanes, kTimes> Power(Pack<std::int64_t, kLanes, kTimes> const& k) {
  Pack<double, kLanes, kTimes> y;
  if constexpr (kLanes == 8) {
    TALVO_PACK_EACH PowerOfEight(k.at[u], y.at[u]);
  } else {
    TALVO_PACK_EACH Power<kLanes>(k.at[u], y.at[u], std::make_integer_sequence<int, kLanes>());
  }
  return y;
}

// With z = 32 x / ln 2, k the whole number next to it and r = z - k: e^x = 2^(k/32) p(r), in double, p the cubic with
// the least relative error, rounded to float once. 32 / ln 2 stands in two parts whose products with a float are exact.
// Outside the bounds that last rounding gives 0 and infinity. e^-x where `turned`: constants change their signs, not x.
template <int kLanes, int kTimes>
TALVO_ROWS_INLINE Pack<float, kLanes, kTimes> Exp(Pack<float, kLanes, kTimes> const& x, bool turned) {
  using Floats = Pack<float, kLanes, kTimes>;
  using Doubles = Pack<double, kLanes, kTimes>;
  constexpr float kHighest = 90.0f, kLowest = -105.0f;
  constexpr double kScaleHigh = 0x1.7154765p+5, kScaleLow = 0x1.5c17fp-26;
  float const highest = turned ? -kLowest : kHighest, lowest = turned ? -kHighest : kLowest;
  double const scale_high = turned ? -kScaleHigh : kScaleHigh, scale_low = turned ? -kScaleLow : kScaleLow;
  constexpr double kRound = 0x1.8p+52;  // added to a number, it leaves no place for a fraction
  constexpr double kC1 = 0x1.62e42ff0c52d6p-6, kC2 = 0x1.ebfce50fac4f3p-13, kC3 = 0x1.c6af84b912394p-20;
  Floats const capped = Select<float>(x < highest, x, highest);
  Doubles const held = Convert<double>(Select<float>(Floats(lowest) < capped, capped, lowest));
  Doubles const z = held * scale_high, rounded = z + kRound;
  Doubles const r = (z - (rounded - kRound)) + held * scale_low;
  Doubles const p = ((r * kC3 + kC2) * r + kC1) * r + 1.0;
  Floats const y = Convert<float>(p * Power(BitsAs<std::int64_t>(rounded)));
  return Select<float>(x == x, y, x + x);
}

// e^x, or 1 / (e^-x + 1).
struct ExpStep {
  template <class Set>
  using Floats = FloatsOfDoubles<Set, 10, 8, 4>;

  bool of_sigmoid;

  template <class Floats>
  TALVO_ROWS_INLINE Floats Of(Floats const& x) const {
    Floats const y = Exp(x, of_sigmoid);
    return of_sigmoid ? 1.0f / (y + 1.0f) : y;
  }
};

// tanh |x| is 1 - 2 / (m + 2) with m = e^a - 1, a = 2 |x|, and below 1 it is -m / (m + 2) with a = -2 |x|. All in
// float: a = k ln 2 + r + c with c what the rounded r lacks, and m = 2^k e^(r + c) - 1. Branches are selections.
struct TanhStep {
  template <class Set>
  using Floats = Pack<float, Set::kLanes, 4>;

  // r - (e^(r + c) - 1), from a polynomial in r^2.
  template <class Floats>
  static TALVO_ROWS_INLINE Floats Curvature(Floats const& r, Floats const& c) {
    constexpr float kQ1 = -0x1.111112p-5f, kQ2 = 0x1.a01a02p-10f, kQ3 = -0x1.4ce19ap-14f, kQ4 = 0x1.0cfca8p-18f,
                    kQ5 = -0x1.afdb76p-23f;
    Floats const f = r * 0.5f, h = r * f;
    Floats const q = ((((h * kQ5 + kQ4) * h + kQ3) * h + kQ2) * h + kQ1) * h + 1.0f;
    Floats const s = 3.0f - q * f;
    Floats const e = (q - s) / (6.0f - r * s) * h;
    return ((e - c) * r - c) - h;
  }

  template <class Floats>
  static TALVO_ROWS_INLINE Floats Of(Floats const& x) {
    using Integers = typename Floats::Mask;
    constexpr std::int32_t kSign = INT32_MIN, kRest = INT32_MAX, kExponentShift = 23, kBias = 127;
    constexpr float kSaturated = 10.0f, kInverseLn2 = 0x1.715476p+0f, kLn2High = 0x1.62e3p-1f,
                    kLn2Low = 0x1.2fefa2p-17f;
    Integers const sign = BitsAs<std::int32_t>(x) & kSign;
    Floats const size = BitsAs<float>(BitsAs<std::int32_t>(x) & kRest);
    Integers const below = size < 1.0f, turned = below & kSign;
    Floats const held = Select<float>(size < kSaturated, size, kSaturated);
    Floats const a = BitsAs<float>(BitsAs<std::int32_t>(held + held) | turned);
    Floats const half = BitsAs<float>(BitsAs<std::int32_t>(Floats(0.5f)) | turned);
    Integers const k = Convert<std::int32_t>(a * kInverseLn2 + half);
    Floats const whole = Convert<float>(k);
    Floats const high = a - whole * kLn2High, low = whole * kLn2Low;
    Floats const r = high - low, c = (high - r) - low;
    Floats const e = Curvature(r, c) - r;  // 1 - e^(r + c)
    // m = (from - e) 2^k - less: from = 1 - 2^-k and less = 0 for a > 0; from = less = 1 for k < -1; else from = 0 and
    // less = 1 - 2^k.
    Integers const power = (k + kBias) << kExponentShift, inverse = (2 * kBias << kExponentShift) - power;
    Floats const rest = 1.0f - BitsAs<float>(Select<std::int32_t>(below, power, inverse));
    Integers const far = k < -1;
    Floats const from = Select<float>(below, Select<float>(far, 1.0f, 0.0f), rest);
    Floats const less = Select<float>(below, Select<float>(far, 1.0f, rest), 0.0f);
    Floats const m = (from - e) * BitsAs<float>(power) - less;
    Floats const ratio = Select<float>(below, m, 2.0f) / (m + 2.0f);
    Integers const y = BitsAs<std::int32_t>(Select<float>(below, ratio, 1.0f - ratio)) & kRest;
    return Select<float>(x == x, BitsAs<float>(y | sign), x + x);
  }
};

// x = 2^k (1 + f), log x = k ln 2 + (f - f^2 / 2 + s (f^2 / 2 + R(s^2))) with s = f / (2 + f), R as 2 atanh s - 2 s has
// it. f - f^2 / 2 is exact; to its sum with k ln 2 the rest is added and rounded to odd, so that the rounding to float
// is the only one.
struct LogStep {
  template <class Set>
  using Floats = FloatsOfDoubles<Set, 8, 6, 4>;

  // s (f^2 / 2 + R(s^2)), R with the least error relative to log(1 + f): 2^-59.
  template <class Doubles>
  static TALVO_ROWS_INLINE Doubles Correction(Doubles const& f, Doubles const& half_square) {
    constexpr double kR1 = 0x1.5555555555592p-1, kR2 = 0x1.999999997fdb9p-2, kR3 = 0x1.24924941f11b6p-2,
                     kR4 = 0x1.c71c52095b88ap-3, kR5 = 0x1.74663eea2789fp-3, kR6 = 0x1.39a1ba6f470dbp-3,
                     kR7 = 0x1.2f056736f8b09p-3;
    Doubles const s = f / (f + 2.0), t = s * s;
    Doubles const r = ((((((t * kR7 + kR6) * t + kR5) * t + kR4) * t + kR3) * t + kR2) * t + kR1) * t;
    return s * (half_square + r);
  }

  // What sum = a + b lacks.
  template <class Doubles>
  static TALVO_ROWS_INLINE Doubles ErrorOf(Doubles const& a, Doubles const& b, Doubles const& sum) {
    Doubles const b_of_sum = sum - a;
    return (a - (sum - b_of_sum)) + (b - b_of_sum);
  }

  // a + b, where it is no double the one of its two neighbours whose last bit is set.
  template <class Doubles>
  static TALVO_ROWS_INLINE Doubles AddToOdd(Doubles const& a, Doubles const& b) {
    Doubles const sum = a + b, error = ErrorOf(a, b, sum);
    auto const bits = BitsAs<std::int64_t>(sum), error_bits = BitsAs<std::int64_t>(error);
    auto const inexact = (0 - (error_bits & INT64_MAX)) >> 63, even = (bits & 1) - 1;
    auto const away = ((error_bits ^ bits) >> 63) | 1;  // 1 or, against the sign of the sum, -1
    return BitsAs<double>(bits + (away & inexact & even));
  }

  template <class Floats>
  static TALVO_ROWS_INLINE Floats Of(Floats const& x) {
    using Doubles = typename Floats::template Like<double>;
    constexpr std::uint64_t kOne = 0x3FF0000000000000, kRootOfHalf = 0x3FE6A09E667F3BCD, kTo52 = 0x4330000000000000;
    constexpr double kBias = 0x1p+52 + 1023.0, kLn2High = 0x1.62e42fefap-1, kLn2Low = 0x1.cf79abc9e3b3ap-40;
    auto const bits = BitsAs<std::uint64_t>(Convert<double>(x)), k = (bits - kRootOfHalf + kOne) >> 52;  // biased
    Doubles const f = BitsAs<double>(bits - (k << 52) + kOne) - 1.0, half_square = f * f * 0.5;
    Doubles const whole = BitsAs<double>(k | kTo52) - kBias, high = whole * kLn2High, main = f - half_square;
    Doubles const sum = high + main;
    Doubles const rest = ErrorOf(high, main, sum) + (whole * kLn2Low + Correction(f, half_square));
    Floats const y = Select<float>(x < kInfinity, Convert<float>(AddToOdd(sum, rest)), x + x);
    return Select<float>(x == 0.0f, -kInfinity, Select<float>(x < 0.0f, kNaN, y));
  }
};

// In double: x p(x^2) below 1, q((|x| - 2.5) / 1.5) with the sign of x from there to 4, and from 4 on it rounds to 1.
// p and q interpolate erf(x) / x and erf at Chebyshev's nodes; they are off by less than 4e-10.
struct ErfStep {
  template <class Set>
  using Floats = FloatsOfDoubles<Set, 5, 5, 5>;

  template <int kCount, class Doubles>
  static TALVO_ROWS_INLINE Doubles Polynomial(double const (&c)[kCount], Doubles const& x) {
    Doubles y = c[kCount - 1];
    TALVO_ROWS_UNROLL
    for (int i = kCount - 2; i >= 0; --i) y = y * x + c[i];
    return y;
  }

  template <class Floats>
  static TALVO_ROWS_INLINE Floats Of(Floats const& x) {
    using Integers = typename Floats::Mask;
    constexpr std::int32_t kSign = INT32_MIN, kRest = INT32_MAX;
    constexpr double kP[] = {0x1.20dd750428cb9p+0,  -0x1.812746ade3c08p-2,  0x1.ce2f20a7415c6p-4,
                             -0x1.b82cbae7577a7p-6, 0x1.56588b32275a7p-8,   -0x1.bfe158a7be278p-11,
                             0x1.f57e9cee106c1p-14, -0x1.d2b8522d6f7cbp-17, 0x1.1c41ab6eec487p-20};
    constexpr double kQ[] = {0x1.ffcaa8f4c9beap-1,   0x1.ac4458767afe9p-9,  -0x1.91804e55e3d74p-7,
                             0x1.cdbbbbfd0b1e3p-6,   -0x1.6596c86ddc386p-5, 0x1.7c8022597e3ccp-5,
                             -0x1.051b3ff09563ep-5,  0x1.30df51127474bp-7,  0x1.b47b065264781p-8,
                             -0x1.3f3fd1a7e102cp-7,  0x1.2e6a79848b16bp-8,  0x1.5feb9820628fep-11,
                             -0x1.01b5e5d0d9dc0p-9,  0x1.6133eca39d8ecp-11, 0x1.c270c8e6eec33p-13,
                             -0x1.427bd4eb266a9p-13, 0x1.799dc226a218ap-17};
    Integers const bits = BitsAs<std::int32_t>(x);
    Floats const size = BitsAs<float>(bits & kRest), held = Select<float>(size < 4.0f, size, 4.0f);
    auto const wide = Convert<double>(held);
    Floats const low = Convert<float>(wide * Polynomial(kP, wide * wide));
    Floats const middle = Convert<float>(Polynomial(kQ, (wide - 2.5) * (1 / 1.5)));
    Floats const high = Select<float>(size < 4.0f, middle, 1.0f);
    Floats const y = Select<float>(size < 1.0f, low, high);
    Floats const result = BitsAs<float>(BitsAs<std::int32_t>(y) | (bits & kSign));
    return Select<float>(x == x, result, x + x);
  }
};

template <class Set, class Step>
TALVO_ROWS_INLINE void MapRow(Step const& step, float const* x, std::size_t n, float* y) {
  using Floats = typename Step::template Floats<Set>;
  constexpr std::size_t kBlock = Floats::kCount;
  // Elements from x to y, wrapping: a y that begins inside the first block of x must be read before it is written.
  std::size_t const ahead = (reinterpret_cast<std::uintptr_t>(y) - reinterpret_cast<std::uintptr_t>(x)) / sizeof(float);
  std::size_t const block = 0 < ahead && ahead < kBlock ? ahead : kBlock;
  for (std::size_t i = 0; i < n; i += block) {
    std::size_t const count = std::min(block, n - i);
    bool const whole = count == kBlock;
    float part[kBlock];
    if (!whole) {
      std::fill_n(part, kBlock, 0.0f);
      std::copy_n(x + i, count, part);
    }
    step.Of(Floats::Load(whole ? x + i : part)).Store(whole ? y + i : part);  // once: the step is long
    if (!whole) std::copy_n(part, count, y + i);
  }
}

template <class Step>
struct MapBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(float const* x, std::size_t n, float* y) {
    MapRow<Set>(Step(), x, n, y);
  }
};

// One loop for both, which is long, but for AVX-512: there it is short, and g++ takes selections by a bound that it
// does not know apart.
struct ExponentialBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(bool of_sigmoid, float const* x, std::size_t n, float* y) {
    if constexpr (!std::is_same_v<Set, Avx512>) {
      MapRow<Set>(ExpStep{of_sigmoid}, x, n, y);
    } else if (of_sigmoid) {
      MapRow<Set>(ExpStep{true}, x, n, y);
    } else {
      MapRow<Set>(ExpStep{false}, x, n, y);
    }
  }
};
Primitive<void(bool, float const*, std::size_t, float*)> const ExponentialRow{ExponentialBody()};

template <bool kOfSigmoid>
struct OneOfBoth {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(float const* x, std::size_t n, float* y) {
    ExponentialRow(kOfSigmoid, x, n, y);
  }
};

}  // namespace

Primitive<void(float const*, std::size_t, float*)> const ExpRow{OneOfBoth<false>(), Baseline()};
Primitive<void(float const*, std::size_t, float*)> const SigmoidRow{OneOfBoth<true>(), Baseline()};
Primitive<void(float const*, std::size_t, float*)> const TanhRow{MapBody<TanhStep>()};
Primitive<void(float const*, std::size_t, float*)> const LogRow{MapBody<LogStep>()};
Primitive<void(float const*, std::size_t, float*)> const ErfRow{
    MapBody<ErfStep>(), Avx2()};  // polynomials of two halves: no gain from AVX-512

}  // namespace talvo::kernel::rows
