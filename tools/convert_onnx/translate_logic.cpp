// Truth values, which tensors hold as 0 and 1, and what is chosen by them.
#include <algorithm>
#include <cmath>

#include "tools/convert_onnx/translators.h"

namespace convert_onnx {
namespace {

using Values = std::vector<Value>;

// A constant of truth values as the numbers 0 and 1.
Value Truth(Value const& value) {
  if (!value.IsConstant()) return value;
  Array array = *value.constant;
  array.type = onnx::TensorProto::FLOAT;
  for (double& v : array.values) v = v != 0;
  return Constant(array);
}

// NaN becomes 0: of a NaN the maximum keeps the second operand.
Value WithoutNaN(Value const& value, Builder& b) {
  return b.Combine(kMax, value, b.Filled(Shape(value.shape.size(), 1), 0));
}

// 1 where p > q, 0 elsewhere and for NaN: a difference is 0 for equal numbers alone, and NaN for equal infinities.
Value IsGreater(Value const& p, Value const& q, Builder& b) {
  return WithoutNaN(b.Step(b.Combine(kSub, b.Tensor(p), b.Tensor(q))), b);
}

// 1 where neither is NaN.
Value AreNumbers(Value const& p, Value const& q, Builder& b) {
  Value const sum = b.Combine(kAdd, b.Clip(b.Tensor(p), -1, 1), b.Clip(b.Tensor(q), -1, 1));
  return WithoutNaN(b.Linear(sum, 0, 1), b);
}

Values Greater(Node const& node, Builder& b) { return {IsGreater(node.Input(0), node.Input(1), b)}; }
Values Less(Node const& node, Builder& b) { return {IsGreater(node.Input(1), node.Input(0), b)}; }

Values GreaterOrEqual(Node const& node, Builder& b) {
  Value const &p = node.Input(0), &q = node.Input(1);
  return {b.Combine(kSub, AreNumbers(p, q, b), IsGreater(q, p, b))};
}

Values LessOrEqual(Node const& node, Builder& b) {
  Value const &p = node.Input(0), &q = node.Input(1);
  return {b.Combine(kSub, AreNumbers(p, q, b), IsGreater(p, q, b))};
}

Values Equal(Node const& node, Builder& b) {
  Value const &p = node.Input(0), &q = node.Input(1);
  Value const different = b.Combine(kAdd, IsGreater(p, q, b), IsGreater(q, p, b));
  return {b.Combine(kSub, AreNumbers(p, q, b), different)};
}

Values Not(Node const& node, Builder& b) { return {b.Linear(node.TensorInput(0), -1, 1)}; }

template <Operator op>
Values Both(Node const& node, Builder& b) {
  return {b.Combine(op, b.Tensor(Truth(node.Input(0))), b.Tensor(Truth(node.Input(1))))};
}

bool IsInfinite(Value const& value) {
  return value.IsConstant() && value.constant->values.size() == 1 && std::isinf(value.constant->values[0]);
}

// Infinity where the truth value is 1, else 0.
Value Open(Value const& truth, Builder& b) {
  Value const tensor = b.Tensor(truth);
  return b.Combine(kDiv, tensor, b.Linear(tensor, -1, 1));
}

// x where the truth value is 1, else 0; a NaN stays wherever it is.
Value Chosen(Value const& truth, Value const& x, Builder& b) {
  if (IsInfinite(x)) {
    Value const open = Open(truth, b);
    return x.constant->values[0] > 0 ? open : b.Negative(open);
  }
  if (x.IsConstant()) return b.Combine(kMul, b.Tensor(truth), b.Tensor(x));
  Value const open = Open(truth, b);
  return b.Combine(kMin, b.Combine(kMax, b.Negative(open), x), open);
}

Values Where(Node const& node, Builder& b) {
  Value const truth = Truth(node.Input(0));
  Value other = b.Tensor(truth);
  other = b.Linear(other, -1, 1);
  return {b.Combine(kAdd, Chosen(truth, node.Input(1), b), Chosen(other, node.Input(2), b))};
}

}  // namespace

void AddLogic(Translators& table) {
  table.insert({{"And", Both<kMul>},
                {"Equal", Equal},
                {"Greater", Greater},
                {"GreaterOrEqual", GreaterOrEqual},
                {"Less", Less},
                {"LessOrEqual", LessOrEqual},
                {"Not", Not},
                {"Or", Both<kMax>},
                {"Where", Where}});
}

}  // namespace convert_onnx
