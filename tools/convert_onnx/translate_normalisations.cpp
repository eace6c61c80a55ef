#include <algorithm>
#include <cmath>

#include "tools/convert_onnx/translators.h"

namespace convert_onnx {
namespace {

using Values = std::vector<Value>;

Values BatchNormalization(Node const& node, Builder& builder) {
  Value const& x = node.TensorInput(0);
  if (node.Int("training_mode", 0) != 0) throw Refusal("attribute training_mode = 1");
  if (node.Int("spatial", 1) != 1) throw Refusal("attribute spatial = 0");
  for (std::size_t i = 1; i < node.wanted.size(); ++i) {
    if (node.wanted[i]) throw Refusal("output " + std::to_string(i) + " belongs to training");
  }
  auto const epsilon = static_cast<double>(node.Float("epsilon", 1e-5f));
  Shape const per_channel(x.shape.size() > 1 ? x.shape.size() - 1 : 1, 1);
  Array scale = node.ConstantInput(1), shift = node.ConstantInput(2);
  Array const &mean = node.ConstantInput(3), &variance = node.ConstantInput(4);
  long long const channels = x.shape.size() > 1 ? x.shape[1] : 1;
  for (std::size_t i = 1; i < 5; ++i) {
    if (static_cast<long long>(node.ConstantInput(i).values.size()) != channels) {
      throw Refusal(std::to_string(node.inputs[i].constant->values.size()) + " values for " + std::to_string(channels) +
                    " channels");
    }
  }
  for (std::size_t c = 0; c < scale.values.size(); ++c) {
    scale.values[c] /= std::sqrt(variance.values[c] + epsilon);
    shift.values[c] -= mean.values[c] * scale.values[c];
  }
  scale.shape = shift.shape = per_channel;
  scale.shape[0] = shift.shape[0] = channels;
  return {builder.Affine(x, scale, shift)};
}

// The mean over some axes, what is left without it, and the root of the mean of its squares and epsilon.
struct Moments {
  Value mean, rest, deviation;
};

Moments MomentsOf(Value const& x, std::vector<std::size_t> const& axes, float epsilon, Builder& b) {
  Value const mean = b.Reduce(x, axes, true), rest = b.Combine(kSub, x, mean);
  Value const variance = b.Reduce(b.Combine(kMul, rest, rest), axes, true);
  return {mean, rest, b.SquareRoot(b.Linear(variance, 1, epsilon))};
}

std::vector<std::size_t> AxesFrom(std::size_t first, Value const& x) {
  std::vector<std::size_t> axes;
  for (std::size_t axis = first; axis < x.shape.size(); ++axis) axes.push_back(axis);
  return axes;
}

Values InstanceNormalization(Node const& node, Builder& b) {
  Value const& x = node.TensorInput(0);
  Array scale = node.ConstantInput(1), shift = node.ConstantInput(2);
  if (x.shape.size() < 3) throw Refusal("an input of shape " + Text(x.shape) + " has no planes");
  for (Array* const array : {&scale, &shift}) {
    if (static_cast<long long>(array->values.size()) != x.shape[1]) {
      throw Refusal(std::to_string(array->values.size()) + " values for " + std::to_string(x.shape[1]) + " channels");
    }
    array->shape.assign(x.shape.size() - 1, 1);
    array->shape[0] = x.shape[1];
  }
  Moments const m = MomentsOf(x, AxesFrom(2, x), node.Float("epsilon", 1e-5f), b);
  return {b.Affine(b.Combine(kDiv, m.rest, m.deviation), scale, shift)};
}

Values LayerNormalization(Node const& node, Builder& b) {
  Value const& x = node.TensorInput(0);
  std::size_t const axis = Axis(node.Int("axis", -1), x.shape.size());
  Array const &scale = node.ConstantInput(1), shift = node.Given(2) ? node.ConstantInput(2) : Scalar(0);
  if (BroadcastShape(scale.shape, x.shape) != x.shape || BroadcastShape(shift.shape, x.shape) != x.shape)
    throw Refusal("scales " + Text(scale.shape) + " and shifts " + Text(shift.shape) + " do not fit " + Text(x.shape));
  Moments const m = MomentsOf(x, AxesFrom(axis, x), node.Float("epsilon", 1e-5f), b);
  Values outputs{b.Affine(b.Combine(kDiv, m.rest, m.deviation), scale, shift)};
  if (node.wanted.size() > 1) outputs.push_back(m.mean);
  if (node.wanted.size() > 2) outputs.push_back(b.Inverse(m.deviation));
  return outputs;
}

Values MeanVarianceNormalization(Node const& node, Builder& b) {
  Value const& x = node.TensorInput(0);
  std::vector<std::size_t> axes;
  for (long long const axis : node.Ints("axes", {0, 2, 3})) axes.push_back(Axis(axis, x.shape.size()));
  Moments const m = MomentsOf(x, axes, 0, b);
  return {b.Combine(kDiv, m.rest, b.Linear(m.deviation, 1, 1e-9f))};
}

// x / (bias + alpha / size * sum of the squares of the channels around)^beta; the sum is a pooling over channels.
Values LocalResponse(Node const& node, Builder& b) {
  Value const& x = node.TensorInput(0);
  long long const size = node.Int("size", 0);
  if (size < 1 || size > 65535 || x.shape.size() < 2) throw Refusal("attribute size = " + std::to_string(size));
  Window window;
  window.kernel_y = size, window.top = (size - 1) / 2, window.bottom = size / 2;
  Value const planes = b.Flat(b.Combine(kMul, x, x), {x.shape[0], x.shape[1], Product(x.shape, 2, x.shape.size())});
  Value const mean = Builder::As(b.Pool(planes, false, window, true), x.shape);
  Value const base = b.Linear(mean, node.Float("alpha", 1e-4f), node.Float("bias", 1));
  float const beta = node.Float("beta", 0.75f);
  if (beta == 1) return {b.Combine(kDiv, x, base)};
  Value const root = b.SquareRoot(base);
  if (beta == 0.5f) return {b.Combine(kDiv, x, root)};
  if (beta == 0.75f) return {b.Combine(kDiv, x, b.Combine(kMul, root, b.SquareRoot(root)))};
  b.Approximate("powers as e^(y log x) hold for bases above 0, to 2e-7 |y log x| of the result");
  return {b.Combine(kMul, x, b.Exponential(b.Linear(b.Logarithm(base), -beta, 0)))};
}

Values LpNormalization(Node const& node, Builder& b) {
  Value const& x = node.TensorInput(0);
  long long const p = node.Int("p", 2);
  if (p != 1 && p != 2) throw Refusal("attribute p = " + std::to_string(p));
  Value const sizes = p == 1 ? b.Absolute(x) : b.Combine(kMul, x, x);
  Value const sum = b.Reduce(sizes, {Axis(node.Int("axis", -1), x.shape.size())}, false);
  return {b.Combine(kDiv, x, p == 1 ? sum : b.SquareRoot(sum))};
}

}  // namespace

void AddNormalisations(Translators& table) {
  table.insert({{"BatchNormalization", BatchNormalization},
                {"InstanceNormalization", InstanceNormalization},
                {"LRN", LocalResponse},
                {"LayerNormalization", LayerNormalization},
                {"LpNormalization", LpNormalization},
                {"MeanVarianceNormalization", MeanVarianceNormalization}});
}

}  // namespace convert_onnx
