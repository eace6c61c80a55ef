// What a conversion is told.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tools/common/kernels.h"
#include "tools/convert_onnx/array.h"

namespace convert_onnx {

using tools::Kernels;

struct Options {
  std::map<std::string, Shape> shapes;  // of graph inputs
  std::map<std::string, Array> bound;   // graph inputs that become constants
  std::vector<std::string> outputs;     // where to cut; the graph's own where empty
  Kernels kernels = Kernels::kPortable;
  bool approximate = false;  // compositions that hold in a range, or to a bound wider than rounding
  bool narrow = false;       // double and half data as float
  // What bounds the memory of a conversion: elements of a tensor, of all constants, and of all weights; layers.
  std::size_t most_elements = 1ull << 28, most_layers = 1u << 17;
};

}  // namespace convert_onnx
