// Seeded test data, and comparison bit by bit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace talvo::test {

/// `count` values from [-1, 1), the same for the same seed on every machine.
std::vector<float> Floats(std::uint32_t seed, std::size_t count);

/// `count` values: NaN, infinities, signed zeros, denormals and huge ones in turn, then as Floats.
std::vector<float> SpecialFloats(std::uint32_t seed, std::size_t count);

/// `count` bytes, the same for the same seed on every machine.
std::vector<unsigned char> Bytes(std::uint32_t seed, std::size_t count);

/// The text in which layer records hold weights.
std::string WeightText(std::vector<float> const& values);

/// Fails the test at the first difference in the bits; two NaNs count as equal.
void ExpectSameBits(std::vector<float> const& want, std::vector<float> const& got);
void ExpectSameBits(float const* want, float const* got, std::size_t count);

/// Fails the test where |want - got| exceeds 4 n epsilon times `scale`: the tolerance for a sum of n products in
/// another order, whose products are at most `scale` in sum of magnitudes.
void ExpectNearSum(std::vector<float> const& want, std::vector<float> const& got, std::size_t n, float scale);

}  // namespace talvo::test
