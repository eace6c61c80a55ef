#include "tools/convert_onnx/node.h"

#include <utility>

namespace convert_onnx {

using onnx::AttributeProto;

Value Constant(Array array) {
  Value value;
  value.shape = array.shape;
  value.constant = std::make_shared<Array const>(std::move(array));
  return value;
}

Node::Node(onnx::NodeProto const& node, int version, std::string folder)
    : proto(node),
      opset(version),
      wanted(static_cast<std::size_t>(node.output_size()), true),
      folder_(std::move(folder)) {}

AttributeProto const* Node::Find(std::string const& name) const {
  for (AttributeProto const& attribute : proto.attribute()) {
    if (attribute.name() == name) return &attribute;
  }
  return nullptr;
}

AttributeProto const* Node::Find(std::string const& name, AttributeProto::AttributeType type) const {
  AttributeProto const* const found = Find(name);
  // Old files leave the kind out.
  if (found != nullptr && found->type() != type && found->type() != AttributeProto::UNDEFINED) {
    throw Refusal("attribute " + name + " is of another kind");
  }
  return found;
}

long long Node::Int(std::string const& name, long long absent) const {
  auto const* const found = Find(name, AttributeProto::INT);
  return found != nullptr ? found->i() : absent;
}

float Node::Float(std::string const& name, float absent) const {
  auto const* const found = Find(name, AttributeProto::FLOAT);
  return found != nullptr ? found->f() : absent;
}

std::string Node::Word(std::string const& name, std::string const& absent) const {
  auto const* const found = Find(name, AttributeProto::STRING);
  return found != nullptr ? found->s() : absent;
}

std::vector<long long> Node::Ints(std::string const& name, std::vector<long long> const& absent) const {
  auto const* const found = Find(name, AttributeProto::INTS);
  return found != nullptr ? std::vector<long long>(found->ints().begin(), found->ints().end()) : absent;
}

std::vector<float> Node::Floats(std::string const& name) const {
  auto const* const found = Find(name, AttributeProto::FLOATS);
  return found != nullptr ? std::vector<float>(found->floats().begin(), found->floats().end()) : std::vector<float>();
}

std::vector<std::string> Node::Words(std::string const& name) const {
  auto const* const found = Find(name, AttributeProto::STRINGS);
  return found != nullptr ? std::vector<std::string>(found->strings().begin(), found->strings().end())
                          : std::vector<std::string>();
}

Array Node::Tensor(std::string const& name) const {
  auto const* const found = Find(name, AttributeProto::TENSOR);
  if (found == nullptr) throw Refusal("attribute " + name + " is missing");
  return ReadTensor(found->t(), folder_);
}

Value const& Node::Input(std::size_t index) const {
  if (!Given(index)) throw Refusal("input " + std::to_string(index) + " is missing");
  return inputs[index];
}

Value const& Node::TensorInput(std::size_t index) const {
  Value const& value = Input(index);
  if (!value.IsTensor()) throw Refusal("input " + std::to_string(index) + " (" + value.name + ") is a constant");
  return value;
}

Array const& Node::ConstantInput(std::size_t index) const {
  Value const& value = Input(index);
  if (!value.IsConstant()) {
    throw Refusal("input " + std::to_string(index) + " (" + value.name + ") is not constant; give it with --bind");
  }
  return *value.constant;
}

std::vector<long long> Node::IntsAt(std::size_t index, std::string const& name) const {
  return Given(index) ? ConstantInput(index).Integers() : Ints(name, {});
}

}  // namespace convert_onnx
