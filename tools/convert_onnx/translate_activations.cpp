#include <algorithm>
#include <cmath>
#include <limits>

#include "tools/convert_onnx/translators.h"

namespace convert_onnx {
namespace {

using Values = std::vector<Value>;

constexpr char kSigmoid[] = "Sigmoid_Fallback_Float_M1", kTanh[] = "TanH_Fallback_Float_M1",
               kHSwish[] = "HSwish_Fallback_Float_M1", kHSigmoid[] = "HSigmoid_Fallback_Float_M1",
               kRelu6[] = "ReLU6_Fallback_Float_M1", kErf[] = "Erf_Fallback_Float_M1";

template <char const* kernel, unsigned short type>
Values One(Node const& node, Builder& builder) {
  return {builder.Unary(node.TensorInput(0), kernel, type)};
}

Values Relu(Node const& node, Builder& builder) { return {builder.Relu(node.TensorInput(0))}; }

Values LeakyRelu(Node const& node, Builder& builder) {
  return {builder.Slope(node.TensorInput(0), node.Float("alpha", 0.01f))};
}

// The kernel is relu6(x + 3) / 6; one sixth and one half need nothing before it.
Values HardSigmoid(Node const& node, Builder& builder) {
  auto const snapped = [](float value, float whole) { return std::abs(value - whole) < 1e-6f ? whole : value; };
  float const scale = snapped(6 * node.Float("alpha", 0.2f), 1), shift = snapped(6 * node.Float("beta", 0.5f) - 3, 0);
  return {builder.Unary(builder.Linear(node.TensorInput(0), scale, shift), kHSigmoid)};
}

Values PRelu(Node const& node, Builder& builder) {
  Value const& x = node.TensorInput(0);
  Array slope = node.ConstantInput(1);
  if (node.opset < 7) {
    slope.shape.assign(std::max<std::size_t>(x.shape.size(), 2) - 1, 1);
    slope.shape[0] = static_cast<long long>(slope.values.size());
  }
  if (BroadcastShape(slope.shape, x.shape) != x.shape)
    throw Refusal("slopes " + Text(slope.shape) + " do not fit " + Text(x.shape));
  return {builder.Slopes(x, slope)};
}

// gamma * relu(x) + gamma alpha (exp(min(x, 0) / divisor) - 1).
Value Exponentials(Value const& x, Builder& b, float alpha, float gamma, float divisor) {
  Value const below = b.Negative(b.Relu(b.Negative(x)));
  Value const curve = b.Linear(b.ExponentialMinusOne(b.Linear(below, 1 / divisor, 0)), gamma * alpha, 0);
  return b.Combine(kAdd, b.Linear(b.Relu(x), gamma, 0), curve);
}

Values Elu(Node const& node, Builder& builder) {
  return {Exponentials(node.TensorInput(0), builder, node.Float("alpha", 1), 1, 1)};
}

Values Celu(Node const& node, Builder& builder) {
  float const alpha = node.Float("alpha", 1);
  return {Exponentials(node.TensorInput(0), builder, alpha, 1, alpha)};
}

Values Selu(Node const& node, Builder& builder) {
  bool const old = node.opset < 6;
  return {Exponentials(node.TensorInput(0), builder, node.Float("alpha", old ? 1.6732f : 1.67326319217681884765625f),
                       node.Float("gamma", old ? 1.0507f : 1.05070102214813232421875f), 1)};
}

constexpr float kInfinity = std::numeric_limits<float>::infinity();

// An operand is held above the threshold where the step is 0: infinity times 0 is NaN.
Value Above(Value const& x, float threshold, float shift, Builder& b) {
  return b.Combine(kMul, b.Step(b.Linear(x, 1, -threshold)), b.Linear(b.Clip(x, threshold, kInfinity), 1, shift));
}

Values ThresholdedRelu(Node const& node, Builder& builder) {
  return {Above(node.TensorInput(0), node.Float("alpha", 1), 0, builder)};
}

Values Shrink(Node const& node, Builder& b) {
  float const bias = node.Float("bias", 0), lambda = node.Float("lambd", 0.5f);
  Value const& x = node.TensorInput(0);
  return {b.Combine(kSub, Above(x, lambda, -bias, b), Above(b.Negative(x), lambda, -bias, b))};
}

Values Softsign(Node const& node, Builder& builder) {
  Value const& x = node.TensorInput(0);
  return {builder.Combine(kDiv, x, builder.Linear(builder.Absolute(x), 1, 1))};
}

float Bound(Node const& node, std::size_t index, char const* name, float absent) {
  if (!node.Given(index)) return node.Float(name, absent);
  Array const& array = node.ConstantInput(index);
  if (array.values.size() != 1) throw Refusal("input " + std::to_string(index) + " is no scalar");
  return array.Floats()[0];
}

Values Clip(Node const& node, Builder& builder) {
  constexpr float kOpen = 3.4e38f;  // the lowest and highest float32 stand for no bound
  float const low = Bound(node, 1, "min", -kInfinity), high = Bound(node, 2, "max", kInfinity);
  Value const& x = node.TensorInput(0);
  if (low == 0 && high == 6) return {builder.Unary(x, kRelu6)};
  if (low == 0 && high >= kOpen) return {builder.Relu(x)};
  return {builder.Clip(x, low > -kOpen ? low : -kInfinity, high < kOpen ? high : kInfinity)};
}

Values Sign(Node const& node, Builder& b) {
  return {b.Combine(kSub, b.Step(node.TensorInput(0)), b.Step(b.Negative(node.TensorInput(0))))};
}

Values Absolute(Node const& node, Builder& builder) { return {builder.Absolute(node.TensorInput(0))}; }
Values Exponential(Node const& node, Builder& builder) { return {builder.Exponential(node.TensorInput(0))}; }
Values Negative(Node const& node, Builder& builder) { return {builder.Negative(node.TensorInput(0))}; }

Values SquareRoot(Node const& node, Builder& builder) { return {builder.SquareRoot(node.TensorInput(0))}; }
Values Logarithm(Node const& node, Builder& builder) { return {builder.Logarithm(node.TensorInput(0))}; }
Values Reciprocal(Node const& node, Builder& builder) { return {builder.Inverse(node.TensorInput(0))}; }

Value Cosh(Value const& x, Builder& b) {
  return b.Linear(b.Combine(kAdd, b.Exponential(x), b.Exponential(b.Negative(x))), 0.5f, 0);
}

Values HyperbolicCosine(Node const& node, Builder& builder) { return {Cosh(node.TensorInput(0), builder)}; }

// tanh(x) cosh(x), which cancels nothing.
Values HyperbolicSine(Node const& node, Builder& b) {
  Value const& x = node.TensorInput(0);
  return {b.Combine(kMul, b.Unary(x, kTanh, 5), Cosh(x, b))};
}

// max(x, 0) + log(1 + e^-|x|).
Values Softplus(Node const& node, Builder& b) {
  Value const& x = node.TensorInput(0);
  return {b.Combine(kAdd, b.Relu(x), b.LogarithmOfOneMore(b.Exponential(b.Negative(b.Absolute(x)))))};
}

// The softmax family takes one axis from opset 13 on, before that all axes from one on.
std::pair<std::size_t, std::size_t> SoftmaxAxes(Node const& node, Shape const& shape) {
  bool const old = node.opset < 13;
  std::size_t const axis = Axis(node.Int("axis", old ? 1 : -1), shape.size());
  return {axis, old ? shape.size() : axis + 1};
}

Values Softmax(Node const& node, Builder& builder) {
  auto const [begin, end] = SoftmaxAxes(node, node.TensorInput(0).shape);
  return {builder.Softmax(node.TensorInput(0), begin, end)};
}

// With d = x - max x: d - log(sum e^d).
Values LogSoftmax(Node const& node, Builder& b) {
  Value const& x = node.TensorInput(0);
  auto const [begin, end] = SoftmaxAxes(node, x.shape);
  std::vector<std::size_t> axes;
  for (std::size_t axis = begin; axis < end; ++axis) axes.push_back(axis);
  Value const d = b.Combine(kSub, x, b.Maximum(x, axes));
  return {b.Combine(kSub, d, b.Logarithm(b.Reduce(b.Exponential(d), axes, false)))};
}

// 1 at the first of the largest: at those with no largest before them.
Values Hardmax(Node const& node, Builder& b) {
  Value const& x = node.TensorInput(0);
  auto const [begin, end] = SoftmaxAxes(node, x.shape);
  long long const extent = Product(x.shape, begin, end);
  Value const rows = Builder::As(x, {Product(x.shape, 0, begin), extent, Product(x.shape, end, x.shape.size())});
  Value const largest = b.Linear(b.Step(b.Combine(kSub, b.Maximum(rows, {1}), rows)), -1, 1);
  Floats before(Count({extent, extent}), 0.0f);
  for (long long i = 0; i < extent; ++i) {
    for (long long j = 0; j < i; ++j) before[static_cast<std::size_t>(i * extent + j)] = 1;
  }
  Value const first = b.Linear(b.Step(b.Along(largest, 1, before, extent)), -1, 1);
  return {Builder::As(b.Combine(kMul, largest, first), x.shape)};
}

Values Round(Node const& node, Builder& builder) { return {builder.Round(node.TensorInput(0))}; }

Values Floor(Node const& node, Builder& b) {
  Value const round = b.Round(node.TensorInput(0));
  return {b.Combine(kSub, round, b.Step(b.Combine(kSub, round, node.TensorInput(0))))};
}

Values Ceil(Node const& node, Builder& b) {
  Value const round = b.Round(node.TensorInput(0));
  return {b.Combine(kAdd, round, b.Step(b.Combine(kSub, node.TensorInput(0), round)))};
}

}  // namespace

void AddActivations(Translators& table) {
  table.insert({{"Abs", Absolute},
                {"Ceil", Ceil},
                {"Celu", Celu},
                {"Clip", Clip},
                {"Cosh", HyperbolicCosine},
                {"Elu", Elu},
                {"Erf", One<kErf, 0>},
                {"Exp", Exponential},
                {"Floor", Floor},
                {"HardSigmoid", HardSigmoid},
                {"HardSwish", One<kHSwish, 0>},
                {"Hardmax", Hardmax},
                {"LeakyRelu", LeakyRelu},
                {"Log", Logarithm},
                {"LogSoftmax", LogSoftmax},
                {"Neg", Negative},
                {"PRelu", PRelu},
                {"Reciprocal", Reciprocal},
                {"Relu", Relu},
                {"Round", Round},
                {"Selu", Selu},
                {"Shrink", Shrink},
                {"Sigmoid", One<kSigmoid, 0>},
                {"Sign", Sign},
                {"Sinh", HyperbolicSine},
                {"Softmax", Softmax},
                {"Softplus", Softplus},
                {"Softsign", Softsign},
                {"Sqrt", SquareRoot},
                {"Tanh", One<kTanh, 5>},
                {"ThresholdedRelu", ThresholdedRelu}});
}

}  // namespace convert_onnx
