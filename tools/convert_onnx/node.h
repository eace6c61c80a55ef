// A node of the graph as its translator sees it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tools/convert_onnx/array.h"

namespace convert_onnx {

/// What an edge of the graph carries: a constant, a tensor that a layer makes while the package runs, nothing (an
/// optional input that is left out), or a reason why it is not there.
struct Value {
  std::string name;  // in the graph
  Shape shape;       // in the graph
  std::shared_ptr<Array const> constant;
  int layer = -1;           // the layer that makes the tensor
  Shape dims;               // of that tensor: as many elements, often other axes
  unsigned int layout = 0;  // of that tensor
  std::string refusal;

  bool IsTensor() const { return layer >= 0; }
  bool IsConstant() const { return constant != nullptr; }
  bool IsAbsent() const { return !IsTensor() && !IsConstant(); }
};

Value Constant(Array array);

/// Attributes with their defaults, and inputs. Refusal, in the accessors: an attribute of another kind, an input that
/// is missing, or that is a constant or a tensor where the other is needed; all with names and values.
class Node {
 public:
  Node(onnx::NodeProto const& proto, int opset, std::string folder);

  bool Has(std::string const& name) const { return Find(name) != nullptr; }
  long long Int(std::string const& name, long long absent) const;
  float Float(std::string const& name, float absent) const;
  std::string Word(std::string const& name, std::string const& absent) const;
  std::vector<long long> Ints(std::string const& name, std::vector<long long> const& absent) const;
  std::vector<float> Floats(std::string const& name) const;
  std::vector<std::string> Words(std::string const& name) const;
  Array Tensor(std::string const& name) const;

  bool Given(std::size_t index) const { return index < inputs.size() && !inputs[index].IsAbsent(); }
  Value const& Input(std::size_t index) const;
  Value const& TensorInput(std::size_t index) const;
  Array const& ConstantInput(std::size_t index) const;
  /// Input `index` or else attribute `name`, whichever this opset uses; empty where neither is there.
  std::vector<long long> IntsAt(std::size_t index, std::string const& name) const;

  onnx::NodeProto const& proto;
  int opset;
  std::vector<Value> inputs;
  std::vector<bool> wanted;  // outputs that somebody reads

 private:
  onnx::AttributeProto const* Find(std::string const& name) const;
  onnx::AttributeProto const* Find(std::string const& name, onnx::AttributeProto::AttributeType type) const;

  std::string folder_;
};

}  // namespace convert_onnx
