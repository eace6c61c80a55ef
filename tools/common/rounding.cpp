#include "tools/common/rounding.h"

#include <cmath>
#include <cstring>
#include <sstream>

#include "talvo/serialization/layer_info_activation.h"
#include "talvo/serialization/layer_info_conv.h"
#include "talvo/serialization/weights.h"
#include "talvo/utility/base64.h"
#include "talvo/utility/half.h"

namespace tools {

using namespace talvo::runtime;

namespace {

constexpr float kSmallestNormalHalf = 6.103515625e-05f;

// The binary form keeps the text of these.
bool KeepsText(LayerInfo const& record) {
  return dynamic_cast<ActivationInfo const*>(&record) != nullptr ||
         dynamic_cast<SQFCConv2dInfo const*>(&record) != nullptr ||
         dynamic_cast<SQFCConv2dFoldedBNInfo const*>(&record) != nullptr;
}

// Halves have 10 bits behind the first one, and steps of 2^-24 below 2^-14.
float NearestHalf(float value) {
  if (value == 0 || !std::isfinite(value)) return value;
  int exponent = 0;
  std::frexp(value, &exponent);
  float const step = std::ldexp(1.0f, std::max(exponent - 11, -24));
  return std::nearbyint(value / step) * step;
}

void Add(RoundedWeight const& weight, Rounding& rounding) {
  float const size = std::abs(weight.value);
  if (size < kSmallestNormalHalf) {
    if (weight.held != weight.value) ++(weight.held == 0 ? rounding.vanishing : rounding.subnormal);
    return;
  }
  double const error = std::abs(double{weight.held} - double{weight.value}) / double{size};
  if (error > rounding.largest) rounding.largest = error, rounding.where = weight;
}

std::string RoundArray(std::string const& text, bool nearest, RoundedWeight at, Rounding& rounding) {
  std::string bytes = Base64Decode(text);
  bool overflows = false;
  for (std::size_t i = 0; i + sizeof(float) <= bytes.size(); i += sizeof(float)) {
    std::memcpy(&at.value, bytes.data() + i, sizeof(float));
    at.held = half_float::half(nearest ? NearestHalf(at.value) : at.value);
    at.element = i / sizeof(float);
    std::memcpy(bytes.data() + i, &at.held, sizeof(float));
    if (!std::isfinite(at.value)) continue;
    if (std::isfinite(at.held)) {
      Add(at, rounding);
    } else if (!overflows) {
      rounding.overflowing.push_back(at);
      overflows = true;
    }
  }
  return Base64Encode(reinterpret_cast<unsigned char const*>(bytes.data()), bytes.size());
}

}  // namespace

Rounding RoundToHalves(TLNModel& package, bool nearest) {
  Rounding rounding;
  for (std::string const& model : package.model_arr->squential_ids) {
    auto const& layers = package.model_arr->models.at(model)->layers;
    for (std::string const& id : package.model_arr->models.at(model)->squential_ids) {
      LayerInfo& record = *layers.at(id);
      if (KeepsText(record)) continue;
      ForEachWeight(record, [&](char const* key, std::string& text) {
        text = RoundArray(text, nearest, {model, id, key, 0, 0, 0}, rounding);
      });
    }
  }
  return rounding;
}

std::string RoundingText(Rounding const& rounding) {
  std::ostringstream text;
  text << "largest rounding of the binary form: ";
  RoundedWeight const& at = rounding.where;
  if (at.layer.empty()) {
    text << "none";
  } else {
    text << rounding.largest << ", of element " << at.element << " of " << at.key << " of layer " << at.layer << ", "
         << at.value << " held as " << at.held;
  }
  text << "; of weights below 6.1e-05 " << rounding.subnormal << " change and " << rounding.vanishing << " become 0";
  return text.str();
}

std::string OverflowText(RoundedWeight const& weight) {
  std::ostringstream text;
  text << "layer " << weight.layer << ": " << weight.key << " element " << weight.element << " is " << weight.value
       << ", the binary form holds numbers to 65504; write a .json package";
  return text.str();
}

}  // namespace tools
