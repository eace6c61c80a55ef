#include "talvo/utility/generator.h"

#include <random>

namespace talvo::utility {
namespace {

using half_float::half;

constexpr float kUnit = 4.656613e-10f;  // 2^-31

std::vector<half> ToHalf(std::vector<float> const& values) {
  std::vector<half> halves;
  halves.reserve(values.size());
  for (float value : values) halves.emplace_back(value);
  return halves;
}

}  // namespace

std::vector<float> GenerateNormalDistribution_float(float low, float high, unsigned int count) {
  std::random_device seed("/dev/urandom");
  std::minstd_rand random(seed());  // multiplier 48271, modulus 2^31 - 1, a state of 0 becomes 1
  std::vector<float> values(count);
  // Uniform, whatever the name says; draws are 1 to 2^31 - 2.
  for (float& value : values) value = static_cast<float>(random() - 1) * kUnit * (high - low) + low;
  return values;
}

std::vector<half> GenerateNormalDistribution_half(float low, float high, unsigned int count) {
  return ToHalf(GenerateNormalDistribution_float(low, high, count));
}

std::vector<float> GenerateConstantDistribution_float(float value, unsigned int count) {
  return std::vector<float>(count, value);
}

std::vector<half> GenerateConstantDistribution_half(float value, unsigned int count) {
  return std::vector<half>(count, half(value));
}

}  // namespace talvo::utility
