// The layers of a conversion as a package: records with their weights, and the kernel of each.
#pragma once

#include <memory>
#include <string>

#include "tools/convert_onnx/convert.h"

namespace convert_onnx {

/// What the binary form, which holds weights as halves, does to them.
struct Rounding {
  double largest = 0;                        // |half - weight| / |weight|, over weights that are normal halves
  std::string layer;                         // where
  std::size_t subnormal = 0, vanishing = 0;  // smaller weights that change, and those that become 0
  std::vector<std::string> overflowing;      // layers with a weight beyond 65504, by name
  std::size_t weight_bytes = 0;              // as float32
};

/// Rounds every weight to the nearest half, ties to even; the writer's cut then changes nothing.
void RoundToHalves(Conversion& conversion);

Rounding MeasureRounding(Conversion const& conversion);

/// A package of one model, `id`, for x86 and arm.
std::shared_ptr<talvo::runtime::TLNModel> MakePackage(Conversion const& conversion, std::string const& id);

}  // namespace convert_onnx
