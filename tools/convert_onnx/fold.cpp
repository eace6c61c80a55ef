#include "tools/convert_onnx/fold.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>

namespace convert_onnx {
namespace {

using onnx::TensorProto;
using Folder = std::function<Array(Node const&)>;

template <class Function>
Folder Each(Function function) {
  return [function](Node const& node) {
    Array result = node.ConstantInput(0);
    for (double& value : result.values) value = Rounded(function(value), result.type);
    return result;
  };
}

template <class Function>
Folder Pairs(Function function, bool truth = false) {
  return [function, truth](Node const& node) {
    Array const &a = node.ConstantInput(0), &b = node.ConstantInput(1);
    if (node.inputs.size() != 2 || (node.opset < 7 && node.Has("broadcast")))
      throw Refusal("constants in this form are not computed");
    Array result{BroadcastShape(a.shape, b.shape), truth ? int{TensorProto::BOOL} : a.type, {}};
    auto const left = BroadcastOffsets(a.shape, result.shape), right = BroadcastOffsets(b.shape, result.shape);
    for (std::size_t i = 0; i < left.size(); ++i) {
      result.values.push_back(Rounded(function(a.values[left[i]], b.values[right[i]], a.IsFloat()), result.type));
    }
    return result;
  };
}

double Divide(double a, double b, bool floating) {
  if (!floating && b == 0) throw Refusal("a whole number is divided by 0");
  return a / b;  // rounding to a whole type truncates
}

Array Reshaped(Array const& array, Shape const& shape) {
  if (Count(shape) != array.values.size())
    throw Refusal("shape " + Text(array.shape) + " cannot become " + Text(shape));
  return {shape, array.type, array.values};
}

Array Picked(Array const& array, Shape const& shape, std::function<std::size_t(Shape const&)> const& offset) {
  Array result{shape, array.type, {}};
  Shape at(shape.size(), 0);
  for (std::size_t i = 0, count = Count(shape); i < count; ++i) {
    result.values.push_back(array.values[offset(at)]);
    for (std::size_t axis = shape.size(); axis-- > 0;) {
      if (++at[axis] < shape[axis]) break;
      at[axis] = 0;
    }
  }
  return result;
}

std::size_t Offset(Shape const& shape, Shape const& at) {
  long long offset = 0;
  for (std::size_t axis = 0; axis < shape.size(); ++axis) offset = offset * shape[axis] + at[axis];
  return static_cast<std::size_t>(offset);
}

Array Transposed(Node const& node) {
  Array const& array = node.ConstantInput(0);
  auto const axes = Permutation(node, array.shape.size());
  Shape shape;
  for (std::size_t const axis : axes) shape.push_back(array.shape[axis]);
  return Picked(array, shape, [&](Shape const& at) {
    Shape source(at.size());
    for (std::size_t i = 0; i < axes.size(); ++i) source[axes[i]] = at[i];
    return Offset(array.shape, source);
  });
}

Array Sliced(Node const& node) {
  Array array = node.ConstantInput(0);
  for (Range const& range : SliceRanges(node, array.shape)) {
    Shape shape = array.shape;
    shape[range.axis] = range.count;
    array = Picked(array, shape, [&](Shape at) {
      at[range.axis] = range.begin + at[range.axis] * range.step;
      return Offset(array.shape, at);
    });
  }
  return array;
}

Array Gathered(Node const& node) {
  Array const &array = node.ConstantInput(0), &indices = node.ConstantInput(1);
  std::size_t const axis = Axis(node.Int("axis", 0), array.shape.size());
  std::vector<long long> const places = indices.Integers();
  long long const extent = array.shape[axis];
  for (long long const place : places) {
    if (place < -extent || place >= extent)
      throw Refusal("index " + std::to_string(place) + " is none of " + std::to_string(extent));
  }
  Shape shape = array.shape, flat = array.shape;
  shape.erase(shape.begin() + static_cast<std::ptrdiff_t>(axis));
  shape.insert(shape.begin() + static_cast<std::ptrdiff_t>(axis), indices.shape.begin(), indices.shape.end());
  flat[axis] = static_cast<long long>(places.size());
  Array const result = Picked(array, flat, [&](Shape at) {
    long long const place = places[static_cast<std::size_t>(at[axis])];
    at[axis] = place < 0 ? place + extent : place;
    return Offset(array.shape, at);
  });
  return Reshaped(result, shape);
}

Array Concatenated(Node const& node) {
  Array result = node.ConstantInput(0);
  std::size_t const axis = Axis(node.Int("axis", 1), result.shape.size());
  long long const outer = Product(result.shape, 0, axis);
  Shape shape = result.shape;
  shape[axis] = 0;
  for (Value const& input : node.inputs) {
    if (!input.IsConstant() || input.shape.size() != shape.size()) throw Refusal("ranks differ");
    Shape same = input.shape;
    same[axis] = result.shape[axis];
    if (same != result.shape)
      throw Refusal("shapes " + Text(result.shape) + " and " + Text(input.shape) + " do not join");
    shape[axis] += input.shape[axis];
  }
  result.values.clear();
  for (long long o = 0; o < outer; ++o) {
    for (Value const& input : node.inputs) {
      auto const& from = input.constant->values;
      auto const each = static_cast<std::ptrdiff_t>(from.size()) / outer;
      result.values.insert(result.values.end(), from.begin() + o * each, from.begin() + (o + 1) * each);
    }
  }
  result.shape = shape;
  return result;
}

Array Cast(Node const& node) {
  Array result = node.ConstantInput(0);
  result.type = static_cast<int>(node.Int("to", 0));
  for (double& value : result.values) value = Rounded(value, result.type);
  return result;
}

Array Expanded(Node const& node) {
  Array const& array = node.ConstantInput(0);
  Array result{BroadcastShape(array.shape, node.ConstantInput(1).Integers()), array.type, {}};
  for (std::size_t const offset : BroadcastOffsets(array.shape, result.shape))
    result.values.push_back(array.values[offset]);
  return result;
}

Array Chosen(Node const& node) {
  Array const &c = node.ConstantInput(0), &a = node.ConstantInput(1), &b = node.ConstantInput(2);
  Array result{BroadcastShape(BroadcastShape(c.shape, a.shape), b.shape), a.type, {}};
  auto const which = BroadcastOffsets(c.shape, result.shape), left = BroadcastOffsets(a.shape, result.shape),
             right = BroadcastOffsets(b.shape, result.shape);
  for (std::size_t i = 0; i < which.size(); ++i) {
    result.values.push_back(c.values[which[i]] != 0 ? a.values[left[i]] : b.values[right[i]]);
  }
  return result;
}

// Takes the sign of the divisor, or that of the dividend with fmod = 1.
Array Remainders(Node const& node) {
  bool const truncated = node.Int("fmod", 0) != 0;
  return Pairs([truncated](double a, double b, bool floating) {
    if (!floating && b == 0) throw Refusal("a whole number is divided by 0");
    double const rest = std::fmod(a, b);
    return truncated || rest == 0 || (rest < 0) == (b < 0) ? rest : rest + b;
  })(node);
}

template <class Function>
Folder Reduced(Function function) {
  return [function](Node const& node) {
    Array const& array = node.ConstantInput(0);
    Reduction const reduction = ReductionOf(node, array.shape);
    Shape kept = array.shape;
    for (std::size_t const axis : reduction.axes) kept[axis] = 1;
    std::vector<std::optional<double>> folded(Count(kept));
    auto const places = BroadcastOffsets(kept, array.shape);
    for (std::size_t i = 0; i < places.size(); ++i) {
      auto& value = folded[places[i]];
      value = value ? Rounded(function(*value, array.values[i]), array.type) : array.values[i];
    }
    Array result{reduction.shape, array.type, {}};
    for (auto const& value : folded) {
      if (!value) throw Refusal("a reduction of no elements");
      result.values.push_back(*value);
    }
    return result;
  };
}

// The last axis of the indices names places of the leading axes; what stands there is replaced.
Array Scattered(Node const& node) {
  Array result = node.ConstantInput(0);
  Array const &indices = node.ConstantInput(1), &updates = node.ConstantInput(2);
  if (node.Word("reduction", "none") != "none") throw Refusal("attribute reduction = " + node.Word("reduction", ""));
  std::size_t const rank = result.shape.size(),
                    depth = indices.shape.empty() ? 0 : static_cast<std::size_t>(indices.shape.back());
  if (depth == 0 || depth > rank) throw Refusal("indices " + Text(indices.shape) + " of " + Text(result.shape));
  std::size_t const inner = static_cast<std::size_t>(Product(result.shape, depth, rank));
  std::vector<long long> const places = indices.Integers();
  if (places.size() / depth * inner != updates.values.size())
    throw Refusal("updates " + Text(updates.shape) + " do not fit indices " + Text(indices.shape));
  for (std::size_t i = 0; i * depth < places.size(); ++i) {
    Shape at(rank, 0);
    for (std::size_t axis = 0; axis < depth; ++axis) {
      long long const place = places[i * depth + axis], extent = result.shape[axis];
      if (place < -extent || place >= extent)
        throw Refusal("index " + std::to_string(place) + " is none of " + std::to_string(extent));
      at[axis] = place < 0 ? place + extent : place;
    }
    std::copy_n(updates.values.begin() + static_cast<std::ptrdiff_t>(i * inner), inner,
                result.values.begin() + static_cast<std::ptrdiff_t>(Offset(result.shape, at)));
  }
  return result;
}

Array Filled(Node const& node) {
  Array result = node.Has("value") ? node.Tensor("value") : Scalar(0);
  if (result.values.size() != 1)
    throw Refusal("attribute value holds " + std::to_string(result.values.size()) + " elements, needs 1");
  result.shape = node.ConstantInput(0).Integers();
  result.values.assign(Count(result.shape), result.values[0]);
  return result;
}

Array Tiled(Node const& node) {
  Array const& array = node.ConstantInput(0);
  auto const repeats = node.ConstantInput(1).Integers();
  if (repeats.size() != array.shape.size()) throw Refusal("repeats do not fit " + Text(array.shape));
  Shape shape = array.shape;
  for (std::size_t axis = 0; axis < shape.size(); ++axis) shape[axis] = Times(shape[axis], repeats[axis]);
  return Picked(array, shape, [&](Shape at) {
    for (std::size_t axis = 0; axis < at.size(); ++axis) at[axis] %= array.shape[axis];
    return Offset(array.shape, at);
  });
}

Array Counted(Node const& node) {
  for (std::size_t i = 0; i < 3; ++i) {
    if (node.ConstantInput(i).values.size() != 1) throw Refusal("input " + std::to_string(i) + " is no scalar");
  }
  double const start = node.inputs[0].constant->values[0], limit = node.inputs[1].constant->values[0],
               delta = node.inputs[2].constant->values[0];
  double const count = std::max(0.0, std::ceil((limit - start) / delta));
  Array result{{ToInteger(count)}, node.inputs[0].constant->type, {}};
  if (std::isnan(count)) throw Refusal("a range from " + Text(start) + " to " + Text(limit) + " by " + Text(delta));
  Count(result.shape);
  for (long long i = 0; i < result.shape[0]; ++i) {
    result.values.push_back(Rounded(start + static_cast<double>(i) * delta, result.type));
  }
  return result;
}

Array ConstantOf(Node const& node) {
  if (node.Has("value")) return node.Tensor("value");
  Array result;
  if (node.Has("value_float")) return Scalar(static_cast<double>(node.Float("value_float", 0)));
  if (node.Has("value_int")) return {{}, TensorProto::INT64, {static_cast<double>(node.Int("value_int", 0))}};
  if (node.Has("value_floats")) {
    for (float const v : node.Floats("value_floats")) result.values.push_back(static_cast<double>(v));
  } else if (node.Has("value_ints")) {
    result.type = TensorProto::INT64;
    for (long long const v : node.Ints("value_ints", {})) result.values.push_back(static_cast<double>(v));
  } else {
    throw Refusal("a constant that is no tensor of numbers");
  }
  result.shape = {static_cast<long long>(result.values.size())};
  return result;
}

std::map<std::string, Folder> const& Folders() {
  static std::map<std::string, Folder> const folders = {
      {"Abs", Each([](double a) { return std::abs(a); })},
      {"Add", Pairs([](double a, double b, bool) { return a + b; })},
      {"And", Pairs([](double a, double b, bool) { return a != 0 && b != 0; }, true)},
      {"Cast", Cast},
      {"Ceil", Each([](double a) { return std::ceil(a); })},
      {"Concat", Concatenated},
      {"Constant", ConstantOf},
      {"ConstantOfShape", Filled},
      {"Div", Pairs(Divide)},
      {"Equal", Pairs([](double a, double b, bool) { return a == b; }, true)},
      {"Exp", Each([](double a) { return std::exp(a); })},
      {"Expand", Expanded},
      {"Flatten", [](Node const& n) { return Reshaped(n.ConstantInput(0), FlattenedShape(n, n.inputs[0].shape)); }},
      {"Floor", Each([](double a) { return std::floor(a); })},
      {"Gather", Gathered},
      {"Greater", Pairs([](double a, double b, bool) { return a > b; }, true)},
      {"GreaterOrEqual", Pairs([](double a, double b, bool) { return a >= b; }, true)},
      {"Identity", [](Node const& n) { return n.ConstantInput(0); }},
      {"Less", Pairs([](double a, double b, bool) { return a < b; }, true)},
      {"LessOrEqual", Pairs([](double a, double b, bool) { return a <= b; }, true)},
      {"Log", Each([](double a) { return std::log(a); })},
      {"Max", Pairs([](double a, double b, bool) { return a > b || std::isnan(a) ? a : b; })},
      {"Min", Pairs([](double a, double b, bool) { return a < b || std::isnan(a) ? a : b; })},
      {"Mod", Remainders},
      {"Mul", Pairs([](double a, double b, bool) { return a * b; })},
      {"Neg", Each([](double a) { return -a; })},
      {"Not", Each([](double a) { return a == 0; })},
      {"Or", Pairs([](double a, double b, bool) { return a != 0 || b != 0; }, true)},
      {"Pow", Pairs([](double a, double b, bool) { return std::pow(a, b); })},
      {"Range", Counted},
      {"Reciprocal", Each([](double a) { return 1 / a; })},
      {"ReduceMax", Reduced([](double a, double b) { return a > b || std::isnan(a) ? a : b; })},
      {"ReduceMin", Reduced([](double a, double b) { return a < b || std::isnan(a) ? a : b; })},
      {"ReduceProd", Reduced([](double a, double b) { return a * b; })},
      {"ReduceSum", Reduced([](double a, double b) { return a + b; })},
      {"Relu", Each([](double a) { return a < 0 ? 0 : a; })},
      {"Reshape", [](Node const& n) { return Reshaped(n.ConstantInput(0), ReshapedShape(n, n.inputs[0].shape)); }},
      {"ScatterND", Scattered},
      {"Sigmoid", Each([](double a) { return 1 / (1 + std::exp(-a)); })},
      {"Slice", Sliced},
      {"Sqrt", Each([](double a) { return std::sqrt(a); })},
      {"Squeeze", [](Node const& n) { return Reshaped(n.ConstantInput(0), SqueezedShape(n, n.inputs[0].shape)); }},
      {"Sub", Pairs([](double a, double b, bool) { return a - b; })},
      {"Tanh", Each([](double a) { return std::tanh(a); })},
      {"Tile", Tiled},
      {"Transpose", Transposed},
      {"Unsqueeze", [](Node const& n) { return Reshaped(n.ConstantInput(0), UnsqueezedShape(n, n.inputs[0].shape)); }},
      {"Where", Chosen},
  };
  return folders;
}

// Shape and Size need no elements.
std::optional<Array> OfShapeAlone(Node const& node) {
  std::string const& type = node.proto.op_type();
  if (type != "Shape" && type != "Size") return std::nullopt;
  Shape const& shape = node.Input(0).shape;
  if (type == "Size") return Array{{}, TensorProto::INT64, {static_cast<double>(Count(shape))}};
  auto const rank = static_cast<long long>(shape.size());
  auto const bound = [&](char const* name, long long absent) {
    long long const at = node.Int(name, absent);
    return std::clamp(at < 0 ? at + rank : at, 0ll, rank);
  };
  Array result{{}, TensorProto::INT64, {}};
  for (long long i = bound("start", 0), end = bound("end", rank); i < end; ++i) {
    result.values.push_back(static_cast<double>(shape[static_cast<std::size_t>(i)]));
  }
  result.shape = {static_cast<long long>(result.values.size())};
  return result;
}

}  // namespace

std::optional<std::vector<Value>> FoldConstants(Node const& node) {
  if (auto const shape = OfShapeAlone(node)) return std::vector<Value>{Constant(*shape)};
  bool const known = std::none_of(node.inputs.begin(), node.inputs.end(), [](Value const& v) { return v.IsTensor(); });
  if (!known) return std::nullopt;
  auto const found = Folders().find(node.proto.op_type());
  if (found == Folders().end())
    throw Refusal("every input is constant, and this operator is not computed while converting");
  return std::vector<Value>{Constant(found->second(node))};
}

std::vector<Range> SliceRanges(Node const& node, Shape const& shape) {
  auto const starts = node.IntsAt(1, "starts"), ends = node.IntsAt(2, "ends");
  auto axes = node.IntsAt(3, "axes"),
       steps = node.Given(4) ? node.ConstantInput(4).Integers() : std::vector<long long>();
  if (axes.empty()) {
    for (std::size_t i = 0; i < starts.size(); ++i) axes.push_back(static_cast<long long>(i));
  }
  if (steps.empty()) steps.assign(starts.size(), 1);
  if (starts.size() != ends.size() || starts.size() != axes.size() || starts.size() != steps.size()) {
    throw Refusal("starts, ends, axes and steps are of different length");
  }
  std::vector<Range> ranges;
  for (std::size_t i = 0; i < starts.size(); ++i) {
    std::size_t const axis = Axis(axes[i], shape.size());
    for (Range const& before : ranges) {
      if (before.axis == axis) throw Refusal("axis " + std::to_string(axis) + " is cut twice");
    }
    long long const extent = shape[axis], step = steps[i];
    if (step == 0 || step < -2147483647 || step > 2147483647) throw Refusal("a step of " + std::to_string(step));
    auto const bound = [&](long long at) {
      if (at < 0) at = at < -extent ? -1 : at + extent;
      return step > 0 ? std::clamp(at, 0ll, extent) : std::clamp(at, -1ll, extent - 1);
    };
    long long const begin = step < 0 && starts[i] < -extent ? -1 : bound(starts[i]), end = bound(ends[i]);
    long long const span = step > 0 ? end - begin : begin - end, size = step > 0 ? step : -step;
    ranges.push_back({axis, begin, span > 0 ? (span + size - 1) / size : 0, step});
  }
  return ranges;
}

Reduction ReductionOf(Node const& node, Shape const& shape) {
  auto const given = node.IntsAt(1, "axes");
  std::vector<bool> reduced(shape.size(), given.empty() && node.Int("noop_with_empty_axes", 0) == 0);
  for (long long const axis : given) reduced[Axis(axis, shape.size())] = true;
  Reduction reduction;
  for (std::size_t i = 0; i < shape.size(); ++i) {
    if (reduced[i]) reduction.axes.push_back(i);
    if (!reduced[i] || node.Int("keepdims", 1) != 0) reduction.shape.push_back(reduced[i] ? 1 : shape[i]);
  }
  return reduction;
}

Shape ReshapedShape(Node const& node, Shape const& shape) {
  Shape result = node.IntsAt(1, "shape");
  long long known = 1, open = -1;
  for (std::size_t i = 0; i < result.size(); ++i) {
    if (result[i] == 0 && node.Int("allowzero", 0) == 0) {
      if (i >= shape.size()) throw Refusal("shape copies axis " + std::to_string(i) + " of " + Text(shape));
      result[i] = shape[i];
    }
    if (result[i] == -1 && open < 0) {
      open = static_cast<long long>(i);
    } else if (result[i] < 0) {
      throw Refusal("shape holds " + std::to_string(result[i]));
    } else if (__builtin_mul_overflow(known, result[i], &known)) {
      throw Refusal("a shape of more than 2^63 elements");
    }
  }
  if (open >= 0) {
    auto const count = static_cast<long long>(Count(shape));
    if (known == 0 || count % known != 0)
      throw Refusal("shape " + Text(shape) + " does not divide by " + std::to_string(known));
    result[static_cast<std::size_t>(open)] = count / known;
  }
  return result;
}

Shape FlattenedShape(Node const& node, Shape const& shape) {
  long long const axis = node.Int("axis", 1), rank = static_cast<long long>(shape.size());
  std::size_t const at = axis == rank ? shape.size() : Axis(axis, shape.size());
  return {Product(shape, 0, at), Product(shape, at, shape.size())};
}

Shape SqueezedShape(Node const& node, Shape const& shape) {
  std::vector<bool> dropped(shape.size(), false);
  auto const axes = node.IntsAt(1, "axes");
  for (long long const axis : axes) dropped[Axis(axis, shape.size())] = true;
  Shape result;
  for (std::size_t i = 0; i < shape.size(); ++i) {
    if (dropped[i] && shape[i] != 1) throw Refusal("axis " + std::to_string(i) + " of " + Text(shape) + " is not 1");
    if (axes.empty() ? shape[i] != 1 : !dropped[i]) result.push_back(shape[i]);
  }
  return result;
}

Shape UnsqueezedShape(Node const& node, Shape const& shape) {
  auto const axes = node.IntsAt(1, "axes");
  std::size_t const rank = shape.size() + axes.size();
  std::vector<bool> made(rank, false);
  for (long long const axis : axes) {
    std::size_t const at = Axis(axis, rank);
    if (made[at]) throw Refusal("axis " + std::to_string(axis) + " stands twice");
    made[at] = true;
  }
  Shape result;
  auto next = shape.begin();
  for (std::size_t i = 0; i < rank; ++i) result.push_back(made[i] ? 1 : *next++);
  return result;
}

std::vector<std::size_t> Permutation(Node const& node, std::size_t rank) {
  std::vector<long long> reversed;
  for (std::size_t i = rank; i-- > 0;) reversed.push_back(static_cast<long long>(i));
  std::vector<std::size_t> axes;
  for (long long const axis : node.Ints("perm", reversed)) axes.push_back(Axis(axis, rank));
  std::vector<std::size_t> sorted = axes;
  std::sort(sorted.begin(), sorted.end());
  for (std::size_t i = 0; i < sorted.size(); ++i) {
    if (sorted[i] != i) sorted.clear();
  }
  if (sorted.size() != rank) throw Refusal("attribute perm is no permutation of " + std::to_string(rank) + " axes");
  return axes;
}

}  // namespace convert_onnx
