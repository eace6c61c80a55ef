#include <algorithm>

#include "tools/convert_onnx/fold.h"
#include "tools/convert_onnx/translators.h"

namespace convert_onnx {
namespace {

using Values = std::vector<Value>;

template <Shape (*shape)(Node const&, Shape const&)>
Values Reshaping(Node const& node, Builder&) {
  Value const& x = node.TensorInput(0);
  return {Builder::As(x, shape(node, x.shape))};
}

Values Identity(Node const& node, Builder&) { return {node.TensorInput(0)}; }

Values Cast(Node const& node, Builder& builder) {
  auto const to = static_cast<int>(node.Int("to", 0));
  if (!builder.Holds(to)) throw Refusal("attribute to = " + TypeName(to) + "; tensors are float32");
  return {builder.Tensor(node.Input(0))};
}

// The type of a tensor is that of all tensors.
Values CastLike(Node const& node, Builder& builder) {
  Value const& like = node.Input(1);
  if (like.IsConstant() && !builder.Holds(like.constant->type))
    throw Refusal("input target_type is of type " + TypeName(like.constant->type) + "; tensors are float32");
  return {builder.Tensor(node.Input(0))};
}

Values Dropout(Node const& node, Builder&) {
  bool const drops = !node.Given(1) || node.ConstantInput(1).values != std::vector<double>{0};
  if (drops && node.Given(2) && node.ConstantInput(2).values != std::vector<double>{0})
    throw Refusal("input training_mode is true");
  Values outputs{node.TensorInput(0)};
  if (node.wanted.size() > 1) outputs.push_back(Unmade("output mask is bool; tensors are float32"));
  return outputs;
}

Values Transpose(Node const& node, Builder& builder) {
  Value const& x = node.TensorInput(0);
  return {builder.Permute(x, Permutation(node, x.shape.size()))};
}

Values Concat(Node const& node, Builder& builder) {
  Values parts;
  std::size_t const axis = Axis(node.Int("axis", 1), node.Input(0).shape.size());
  for (std::size_t i = 0; i < node.inputs.size(); ++i) {
    Shape same = node.Input(i).shape;
    if (same.size() == node.inputs[0].shape.size()) same[axis] = node.inputs[0].shape[axis];
    if (same != node.inputs[0].shape) {
      throw Refusal("shapes " + Text(node.inputs[0].shape) + " and " + Text(node.inputs[i].shape) + " do not join");
    }
    parts.push_back(builder.Tensor(node.inputs[i]));
  }
  return {builder.Join(parts, axis)};
}

Value TakeRange(Value const& x, Range const& range, Builder& builder) {
  if (range.step > 0) return builder.Slice(x, range.axis, range.begin, range.count, range.step);
  std::vector<long long> places;
  for (long long i = 0; i < range.count; ++i) places.push_back(range.begin + i * range.step);
  return builder.Take(x, range.axis, places);
}

Values Slice(Node const& node, Builder& builder) {
  Value result = node.TensorInput(0);
  for (Range const& range : SliceRanges(node, result.shape)) result = TakeRange(result, range, builder);
  return {result};
}

Values Split(Node const& node, Builder& builder) {
  Value const& x = node.TensorInput(0);
  std::size_t const axis = Axis(node.Int("axis", 0), x.shape.size());
  auto parts = node.IntsAt(1, "split");
  int const outputs = node.proto.output_size();  // those that nobody reads too
  if (parts.empty()) {
    if (outputs == 0 || x.shape[axis] % outputs != 0)
      throw Refusal("an extent of " + std::to_string(x.shape[axis]) + " in " + std::to_string(outputs) + " parts");
    parts.assign(static_cast<std::size_t>(outputs), x.shape[axis] / outputs);
  }
  long long at = 0;
  Values made;
  for (long long const part : parts) {
    if (part < 1 || part > x.shape[axis] - at)
      throw Refusal("a part of " + std::to_string(part) + " from " + std::to_string(at) + " of " +
                    std::to_string(x.shape[axis]));
    made.push_back(builder.Slice(x, axis, at, part, 1));
    at += part;
  }
  return made;
}

Values Gather(Node const& node, Builder& builder) {
  Value const& x = node.TensorInput(0);
  Array const& indices = node.ConstantInput(1);
  std::size_t const axis = Axis(node.Int("axis", 0), x.shape.size());
  Shape shape = x.shape;
  shape.erase(shape.begin() + static_cast<std::ptrdiff_t>(axis));
  shape.insert(shape.begin() + static_cast<std::ptrdiff_t>(axis), indices.shape.begin(), indices.shape.end());
  return {Builder::As(builder.Take(x, axis, indices.Integers()), shape)};
}

// The source positions of one padded axis.
std::vector<long long> PaddedPlaces(std::string const& mode, long long extent, long long before, long long behind) {
  if (mode != "edge" && mode != "reflect") throw Refusal("attribute mode = " + mode);
  if (mode == "reflect" && std::max(before, behind) >= extent)
    throw Refusal("a reflection wider than the extent " + std::to_string(extent));
  std::vector<long long> places;
  for (long long i = -before; i < extent + behind; ++i) {
    long long const inside = std::clamp(i, 0ll, extent - 1);
    places.push_back(mode == "edge" ? inside : 2 * inside - i);
  }
  return places;
}

Value PadConstant(Value const& x, std::size_t axis, long long before, long long behind, float fill, Builder& builder) {
  Values parts;
  Shape shape = x.shape;
  if (before > 0) shape[axis] = before, parts.push_back(builder.Filled(shape, fill));
  parts.push_back(x);
  if (behind > 0) shape[axis] = behind, parts.push_back(builder.Filled(shape, fill));
  return builder.Join(parts, axis);
}

Values Pad(Node const& node, Builder& builder) {
  Value x = node.TensorInput(0);
  auto const pads = node.opset < 2 ? node.Ints("paddings", {}) : node.IntsAt(1, "pads");
  std::size_t const rank = x.shape.size();
  if (pads.size() != 2 * rank) throw Refusal(std::to_string(pads.size()) + " pads, needs " + std::to_string(2 * rank));
  std::string const mode = node.Word("mode", "constant");
  float fill = node.Float("value", 0);
  if (node.Given(2)) {
    if (node.ConstantInput(2).values.size() != 1) throw Refusal("input constant_value is no scalar");
    fill = node.ConstantInput(2).Floats()[0];
  }
  for (std::size_t axis = 0; axis < rank; ++axis) {
    long long const before = pads[axis], behind = pads[rank + axis];
    if (std::max(before, behind) > 65535 || std::min(before, behind) < -65535)
      throw Refusal("pads of " + std::to_string(before) + " and " + std::to_string(behind));
    long long const cut = std::max(-before, 0ll);
    if (before < 0 || behind < 0) x = builder.Slice(x, axis, cut, x.shape[axis] - cut - std::max(-behind, 0ll), 1);
    if (before <= 0 && behind <= 0) continue;
    if (mode == "constant") {
      x = PadConstant(x, axis, before, behind, fill, builder);
    } else {
      x = builder.Take(x, axis, PaddedPlaces(mode, x.shape[axis], std::max(before, 0ll), std::max(behind, 0ll)));
    }
  }
  return {x};
}

Values Expand(Node const& node, Builder& builder) {
  Value const& x = node.TensorInput(0);
  Shape const shape = BroadcastShape(x.shape, node.ConstantInput(1).Integers());
  if (Count(shape) == Count(x.shape)) return {Builder::As(x, shape)};
  return {builder.Combine(kMul, x, builder.Filled(shape, 1))};
}

Values Tile(Node const& node, Builder& builder) {
  if (node.opset < 6) throw Refusal("opset " + std::to_string(node.opset) + "; tiles are known from 6 on");
  Value x = node.TensorInput(0);
  auto const repeats = node.ConstantInput(1).Integers();
  if (repeats.size() != x.shape.size()) throw Refusal(std::to_string(repeats.size()) + " repeats for " + Text(x.shape));
  for (std::size_t axis = 0; axis < repeats.size(); ++axis) {
    if (repeats[axis] < 1 || repeats[axis] > 8)
      throw Refusal("repeats = " + std::to_string(repeats[axis]) + "; 1 to 8 fit");
    if (repeats[axis] > 1) x = builder.Join(Values(static_cast<std::size_t>(repeats[axis]), x), axis);
  }
  return {x};
}

struct Blocks {
  long long block, batch, channels, height, width;
};

Blocks BlocksOf(Node const& node) {
  Shape const& shape = node.TensorInput(0).shape;
  long long const block = node.Int("blocksize", 0);
  if (shape.size() != 4 || block < 1 || block > 65535)
    throw Refusal("blocksize = " + std::to_string(block) + " of " + Text(shape));
  return {block, shape[0], shape[1], shape[2], shape[3]};
}

Values DepthToSpace(Node const& node, Builder& builder) {
  auto const [b, n, c, h, w] = BlocksOf(node);
  if (c % (b * b) != 0) throw Refusal("blocksize = " + std::to_string(b) + " and " + std::to_string(c) + " channels");
  long long const out = c / b / b;
  std::string const mode = node.Word("mode", "DCR");
  if (mode != "DCR" && mode != "CRD") throw Refusal("attribute mode = " + mode);
  Value const& x = node.TensorInput(0);
  Value const made = mode == "CRD" ? builder.Permute(Builder::As(x, {n, out, b, b, h, w}), {0, 1, 4, 2, 5, 3})
                                   : builder.Permute(Builder::As(x, {n, b, b, out, h, w}), {0, 3, 4, 1, 5, 2});
  return {Builder::As(made, {n, out, h * b, w * b})};
}

Values SpaceToDepth(Node const& node, Builder& builder) {
  auto const [b, n, c, h, w] = BlocksOf(node);
  if (h % b != 0 || w % b != 0)
    throw Refusal("blocksize = " + std::to_string(b) + " of " + Text(node.TensorInput(0).shape));
  Value const made = builder.Permute(Builder::As(node.TensorInput(0), {n, c, h / b, b, w / b, b}), {0, 3, 5, 1, 2, 4});
  return {Builder::As(made, {n, c * b * b, h / b, w / b})};
}

}  // namespace

void AddStructure(Translators& table) {
  table.insert({{"Cast", Cast},
                {"CastLike", CastLike},
                {"Concat", Concat},
                {"DepthToSpace", DepthToSpace},
                {"Dropout", Dropout},
                {"Expand", Expand},
                {"Flatten", Reshaping<FlattenedShape>},
                {"Gather", Gather},
                {"Identity", Identity},
                {"Pad", Pad},
                {"Reshape", Reshaping<ReshapedShape>},
                {"Slice", Slice},
                {"SpaceToDepth", SpaceToDepth},
                {"Split", Split},
                {"Squeeze", Reshaping<SqueezedShape>},
                {"Tile", Tile},
                {"Transpose", Transpose},
                {"Unsqueeze", Reshaping<UnsqueezedShape>}});
}

}  // namespace convert_onnx
