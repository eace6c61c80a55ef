// Data for trying things out.
#pragma once

#include <vector>

#include "talvo/utility/export.h"
#include "talvo/utility/half.h"

namespace talvo::utility {

/// `count` values from `low` to `high`, other ones on each call. The distribution is uniform, whatever the name says.
TALVO_API std::vector<float> GenerateNormalDistribution_float(float low, float high, unsigned int count);
TALVO_API std::vector<half_float::half> GenerateNormalDistribution_half(float low, float high, unsigned int count);

/// `count` times the same value.
TALVO_API std::vector<float> GenerateConstantDistribution_float(float value, unsigned int count);
TALVO_API std::vector<half_float::half> GenerateConstantDistribution_half(float value, unsigned int count);

}  // namespace talvo::utility
