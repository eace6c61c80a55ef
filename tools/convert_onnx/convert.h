// From a parsed graph to the layers of a package.
#pragma once

#include <iosfwd>
#include <map>
#include <string>
#include <vector>

#include "tools/convert_onnx/builder.h"

namespace convert_onnx {

struct Conversion {
  std::vector<Layer> layers;                 // what an output needs, in order, each with a name of its own
  std::vector<std::string> inputs, outputs;  // names of layers
  std::vector<Shape> input_shapes;           // of `inputs`
  std::vector<std::string> recorded;         // the graph's inputs without initialisers, in order
  std::vector<std::string> refusals;         // one line for each node; where there is one, the layers are not complete
  std::vector<std::string> notes;            // what is approximate
  std::vector<std::string> folded;           // nodes computed while converting
  std::size_t dropped = 0;                   // nodes that nobody reads
};

/// Reads a model. Refusal: bytes that are none, or are cut short.
onnx::ModelProto ReadModel(std::istream& bytes);
onnx::ModelProto ReadModel(std::string const& path);

/// `folder` is where external data lies. Refusal: a graph that is none (a value that nothing before its reader makes,
/// as with cycles), and an input whose shape or type does not fit.
Conversion Convert(onnx::ModelProto const& model, std::string const& folder, Options const& options);

}  // namespace convert_onnx
