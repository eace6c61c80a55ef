// Nodes whose inputs are all known while converting: constants and the arithmetic of shapes.
#pragma once

#include <optional>
#include <vector>

#include "tools/convert_onnx/node.h"

namespace convert_onnx {

/// The outputs of a node that needs no layer: its inputs are constant, or it asks for a shape alone. Nothing where
/// layers have to do it. Refusal: every input is constant and the operator is not computed here.
std::optional<std::vector<Value>> FoldConstants(Node const& node);

/// Begin, count and step along one axis.
struct Range {
  std::size_t axis;
  long long begin, count, step;
};

/// What a Slice node takes of `shape`.
std::vector<Range> SliceRanges(Node const& node, Shape const& shape);

// The shapes to which nodes of these operators bring a tensor of `shape`.
Shape ReshapedShape(Node const& node, Shape const& shape);
Shape FlattenedShape(Node const& node, Shape const& shape);
Shape SqueezedShape(Node const& node, Shape const& shape);
Shape UnsqueezedShape(Node const& node, Shape const& shape);

struct Reduction {
  std::vector<std::size_t> axes;
  Shape shape;  // of the result
};

/// What a reducing node makes of `shape`.
Reduction ReductionOf(Node const& node, Shape const& shape);

/// The axes of a Transpose node. Refusal: no permutation.
std::vector<std::size_t> Permutation(Node const& node, std::size_t rank);

}  // namespace convert_onnx
