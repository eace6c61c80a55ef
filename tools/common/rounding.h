// What the binary form, which holds weights as halves, does to them.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "talvo/serialization/model_info.h"

namespace tools {

struct RoundedWeight {
  std::string model, layer, key;
  std::size_t element = 0;
  float value = 0, held = 0;
};

struct Rounding {
  double largest = 0;                        // |held - value| / |value|, over weights that are normal halves
  RoundedWeight where;                       // its place; no layer where nothing changes
  std::size_t subnormal = 0, vanishing = 0;  // smaller weights that change, and those that become 0
  std::vector<RoundedWeight> overflowing;    // of each array the first that becomes infinite
};

/// Rounds every weight that the binary form holds as a half: to the nearest, ties to even, or towards 0, as the writer
/// does, which then changes nothing.
Rounding RoundToHalves(talvo::runtime::TLNModel& package, bool nearest);

/// "largest rounding of the binary form: ...", one line without its end.
std::string RoundingText(Rounding const& rounding);

/// "layer L: KEY element N is 70000, ...", for a weight that overflows.
std::string OverflowText(RoundedWeight const& weight);

}  // namespace tools
