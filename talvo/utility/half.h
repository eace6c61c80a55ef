// A 16-bit float (IEEE 754 binary16) as far as the library needs one: storage, conversion and comparison, no
// arithmetic.
#pragma once

#include <cstdint>
#include <cstring>

namespace half_float {

/// Conversion from float drops the mantissa bits that do not fit (truncation towards zero); conversion to float is
/// exact.
class half {
 public:
  half() = default;
  explicit half(float value) : bits_(FromFloat(value)) {}

  /// The half with these bits: one of sign, five of exponent, ten of mantissa.
  static half FromBits(std::uint16_t bits) {
    half result;
    result.bits_ = bits;
    return result;
  }
  std::uint16_t Bits() const { return bits_; }

  operator float() const { return ToFloat(bits_); }

  friend bool operator==(half a, half b) { return float(a) == float(b); }
  friend bool operator!=(half a, half b) { return float(a) != float(b); }
  friend bool operator<(half a, half b) { return float(a) < float(b); }
  friend bool operator>(half a, half b) { return float(a) > float(b); }
  friend bool operator<=(half a, half b) { return float(a) <= float(b); }
  friend bool operator>=(half a, half b) { return float(a) >= float(b); }

 private:
  // 65536 and above become infinity, below the smallest subnormal (2^-24) a signed zero, NaN a quiet NaN.
  static std::uint16_t FromFloat(float value) {
    std::uint32_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    std::uint32_t const sign = (bits >> 16) & 0x8000u, magnitude = bits & 0x7FFFFFFFu;
    std::uint32_t const normal = (magnitude - 0x38000000u) >> 13;
    std::uint32_t const exponent = magnitude >> 23, mantissa = (magnitude & 0x7FFFFFu) | 0x800000u;
    std::uint32_t const subnormal = exponent < 103 ? 0u : mantissa >> ((126 - exponent) & 31u);
    std::uint32_t result = magnitude < 0x38800000u ? subnormal : normal;
    result = magnitude >= 0x47800000u ? 0x7C00u : result;
    result = magnitude > 0x7F800000u ? 0x7E00u | ((magnitude >> 13) & 0x3FFu) : result;
    return static_cast<std::uint16_t>(sign | result);
  }

  static float ToFloat(std::uint16_t half_bits) {
    std::uint32_t const sign = std::uint32_t{half_bits & 0x8000u} << 16, magnitude = half_bits & 0x7FFFu;
    std::uint32_t const normal = (magnitude << 13) + (magnitude >= 0x7C00u ? 0x70000000u : 0x38000000u);
    float const subnormal = static_cast<float>(static_cast<std::int32_t>(magnitude)) * 5.9604644775390625e-8f;  // 2^-24
    std::uint32_t bits;
    std::memcpy(&bits, &subnormal, sizeof bits);
    bits = sign | (magnitude < 0x400u ? bits : normal);
    float value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
  }

  std::uint16_t bits_ = 0;
};

static_assert(sizeof(half) == 2, "a half is stored in files and tensors as two bytes");

}  // namespace half_float
