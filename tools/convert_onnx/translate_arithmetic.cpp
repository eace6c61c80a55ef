#include <algorithm>
#include <cmath>

#include "tools/convert_onnx/fold.h"
#include "tools/convert_onnx/translators.h"

namespace convert_onnx {
namespace {

using Values = std::vector<Value>;

// Before opset 7 the second operand was spread only on demand, from the axis that an attribute named.
Value SecondOperand(Node const& node) {
  Value b = node.Input(1);
  Shape const& a = node.Input(0).shape;
  if (node.opset >= 7 || node.Int("broadcast", 0) == 0 || !node.Has("axis")) return b;
  Shape shape = b.shape;
  std::size_t const axis = Axis(node.Int("axis", 0), a.size());
  if (axis + shape.size() > a.size())
    throw Refusal("attribute axis = " + std::to_string(axis) + " does not fit " + Text(shape));
  shape.resize(a.size() - axis, 1);
  if (!b.IsConstant()) return Builder::As(b, shape);
  Array array = *b.constant;
  array.shape = shape;
  return Constant(array);
}

template <Operator op>
Values Pair(Node const& node, Builder& builder) {
  if (node.inputs.size() != 2) throw Refusal("needs 2 inputs, got " + std::to_string(node.inputs.size()));
  return {builder.Binary(op, node.Input(0), SecondOperand(node))};
}

template <Operator op>
Value Chain(Node const& node, Builder& builder) {
  Value result = node.Input(0);
  for (std::size_t i = 1; i < node.inputs.size(); ++i) {
    if (result.IsConstant() && node.Input(i).IsConstant()) result = builder.Tensor(result);
    result = builder.Binary(op, result, node.Input(i));
    result.name.clear();
  }
  return result;
}

template <Operator op>
Values Many(Node const& node, Builder& builder) {
  return {Chain<op>(node, builder)};
}

Values Mean(Node const& node, Builder& builder) {
  return {builder.Linear(Chain<kAdd>(node, builder), 1 / static_cast<float>(node.inputs.size()), 0)};
}

enum class Before { kNothing, kAbsolute, kSquare };

template <Before before, bool mean>
Values Sum(Node const& node, Builder& builder) {
  Value x = node.TensorInput(0);
  Reduction const reduction = ReductionOf(node, x.shape);
  if (before == Before::kAbsolute) x = builder.Absolute(x);
  if (before == Before::kSquare) x = builder.Combine(kMul, x, x);
  return {Builder::As(builder.Reduce(x, reduction.axes, mean), reduction.shape)};
}

enum class Behind { kRoot, kLogarithm };

template <Behind behind>
Values SumAndThen(Node const& node, Builder& builder) {
  Value x = node.TensorInput(0);
  Reduction const reduction = ReductionOf(node, x.shape);
  if (behind == Behind::kRoot) x = builder.Combine(kMul, x, x);
  Value const sum = Builder::As(builder.Reduce(x, reduction.axes, false), reduction.shape);
  return {behind == Behind::kRoot ? builder.SquareRoot(sum) : builder.Logarithm(sum)};
}

// m + log(sum e^(x - m)) with m the maximum.
Values LogSumExp(Node const& node, Builder& b) {
  Value const& x = node.TensorInput(0);
  Reduction const reduction = ReductionOf(node, x.shape);
  Value const largest = b.Maximum(x, reduction.axes);
  Value const sum = b.Reduce(b.Exponential(b.Combine(kSub, x, largest)), reduction.axes, false);
  return {Builder::As(b.Combine(kAdd, largest, b.Logarithm(sum)), reduction.shape)};
}

Values Largest(Node const& node, Builder& builder) {
  Reduction const reduction = ReductionOf(node, node.TensorInput(0).shape);
  return {Builder::As(builder.Maximum(node.TensorInput(0), reduction.axes), reduction.shape)};
}

Values Smallest(Node const& node, Builder& builder) {
  Reduction const reduction = ReductionOf(node, node.TensorInput(0).shape);
  Value const turned = builder.Maximum(builder.Negative(node.TensorInput(0)), reduction.axes);
  return {Builder::As(builder.Negative(turned), reduction.shape)};
}

// Halves of an axis are multiplied until one element is left.
Values ProductOf(Node const& node, Builder& builder) {
  Value x = node.TensorInput(0);
  Reduction const reduction = ReductionOf(node, x.shape);
  for (std::size_t const axis : reduction.axes) {
    for (long long extent = x.shape[axis]; extent > 1; extent = x.shape[axis]) {
      long long const half = extent / 2;
      Value product = builder.Combine(kMul, builder.Slice(x, axis, 0, half, 1), builder.Slice(x, axis, half, half, 1));
      x = extent % 2 != 0 ? builder.Join({product, builder.Slice(x, axis, extent - 1, 1, 1)}, axis) : product;
    }
  }
  return {Builder::As(x, reduction.shape)};
}

}  // namespace

void AddArithmetic(Translators& table) {
  table.insert({{"Add", Pair<kAdd>},
                {"Div", Pair<kDiv>},
                {"Max", Many<kMax>},
                {"Mean", Mean},
                {"Min", Many<kMin>},
                {"Mul", Pair<kMul>},
                {"ReduceL1", Sum<Before::kAbsolute, false>},
                {"ReduceL2", SumAndThen<Behind::kRoot>},
                {"ReduceLogSum", SumAndThen<Behind::kLogarithm>},
                {"ReduceLogSumExp", LogSumExp},
                {"ReduceMax", Largest},
                {"ReduceMean", Sum<Before::kNothing, true>},
                {"ReduceMin", Smallest},
                {"ReduceProd", ProductOf},
                {"ReduceSum", Sum<Before::kNothing, false>},
                {"ReduceSumSquare", Sum<Before::kSquare, false>},
                {"Sub", Pair<kSub>},
                {"Sum", Many<kAdd>}});
}

}  // namespace convert_onnx
