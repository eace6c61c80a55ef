#include "talvo/kernel/rows/conversion_rows.h"

#include <cmath>
#include <cstring>

#include "talvo/utility/restrict_support.h"

namespace talvo::kernel::rows {
namespace {

template <typename To, typename From>
TALVO_ROWS_INLINE To BitsAs(From from) {
  static_assert(sizeof(To) == sizeof(From), "the same bits under another type");
  To to;
  std::memcpy(&to, &from, sizeof to);
  return to;
}

// Without branches and without a shift that varies, which the baseline lacks: at and above 2^-14 the cut bits of the
// float win, below it the multiple of 2^-24, each by being the larger one. Of a NaN the cut bits keep the payload.
TALVO_ROWS_INLINE std::uint16_t HalfBits(float value) {
  constexpr float kFirstNormal = 0x1p-14f, kSubnormalSteps = 0x1p24f;
  constexpr std::int32_t kExponentShift = 0x38000000;  // 127 - 15 in the exponent of a float
  constexpr std::int32_t kInfinity = 0x7C00, kQuietNan = 0x7E00;
  auto const bits = BitsAs<std::int32_t>(value), magnitude_bits = bits & 0x7FFFFFFF;
  auto const magnitude = BitsAs<float>(magnitude_bits);
  std::int32_t const cut = (magnitude_bits - kExponentShift) >> 13, normal = cut < kInfinity ? cut : kInfinity;
  float const small = magnitude < kFirstNormal ? magnitude : kFirstNormal;
  auto const subnormal = static_cast<std::int32_t>(small * kSubnormalSteps);
  std::int32_t const number = normal > subnormal ? normal : subnormal;
  std::int32_t const result = magnitude != magnitude ? cut | kQuietNan : number;
  return static_cast<std::uint16_t>(((bits >> 16) & 0x8000) | result);
}

TALVO_ROWS_INLINE float HalfValue(std::uint16_t half_bits) {
  constexpr float kSubnormalStep = 0x1p-24f;
  std::int32_t const sign = static_cast<std::int32_t>(std::uint32_t{half_bits & 0x8000u} << 16),
                     magnitude = half_bits & 0x7FFF;
  std::int32_t const normal = (magnitude << 13) + (magnitude >= 0x7C00 ? 0x70000000 : 0x38000000);
  auto const subnormal = BitsAs<std::int32_t>(static_cast<float>(magnitude) * kSubnormalStep);
  return BitsAs<float>(sign | (magnitude < 0x400 ? subnormal : normal));
}

struct FloatToHalfBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(float const* TALVO_RESTRICT x, std::size_t n, std::uint16_t* TALVO_RESTRICT y) {
    for (std::size_t i = 0; i < n; ++i) y[i] = HalfBits(x[i]);
  }
};

struct HalfToFloatBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(std::uint16_t const* TALVO_RESTRICT x, std::size_t n, float* TALVO_RESTRICT y) {
    for (std::size_t i = 0; i < n; ++i) y[i] = HalfValue(x[i]);
  }
};

// Clamping before rounding changes no result, since the bounds are whole. To add the largest float below a half and to
// cut is to round: a half itself would carry 0.49999997 up to 1.
template <typename Q>
struct QuantiseBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(float const* TALVO_RESTRICT x, float scale, float low, float high, std::size_t n,
                                    Q* TALVO_RESTRICT y) {
    constexpr float kBelowHalf = 0x1.fffffep-2f;
    for (std::size_t i = 0; i < n; ++i) {
      float const scaled = x[i] * scale;
      float held = scaled < high ? scaled : high;
      held = held > low ? held : low;
      auto const rounded = static_cast<std::int32_t>(held + std::copysign(kBelowHalf, held));
      y[i] = static_cast<Q>(scaled == scaled ? rounded : 0);
    }
  }
};

template <typename Q>
struct DequantiseBody {
  template <class Set>
  static TALVO_ROWS_INLINE void Run(Q const* TALVO_RESTRICT x, float scale, std::size_t n, float* TALVO_RESTRICT y) {
    for (std::size_t i = 0; i < n; ++i) y[i] = static_cast<float>(x[i]) * scale;
  }
};

}  // namespace

Primitive<void(float const*, std::size_t, std::uint16_t*)> const FloatToHalfRow{FloatToHalfBody()};
Primitive<void(std::uint16_t const*, std::size_t, float*)> const HalfToFloatRow{HalfToFloatBody()};
Primitive<void(float const*, float, float, float, std::size_t, std::int16_t*)> const QuantiseInt16Row{
    QuantiseBody<std::int16_t>()};
Primitive<void(float const*, float, float, float, std::size_t, std::int8_t*)> const QuantiseInt8Row{
    QuantiseBody<std::int8_t>()};
Primitive<void(std::int16_t const*, float, std::size_t, float*)> const DequantiseInt16Row{
    DequantiseBody<std::int16_t>(), Avx2()};  // it waits for memory
Primitive<void(std::int8_t const*, float, std::size_t, float*)> const DequantiseInt8Row{DequantiseBody<std::int8_t>(),
                                                                                        Avx2()};

}  // namespace talvo::kernel::rows
