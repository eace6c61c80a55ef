// Layers that compute elements from elements.
#include "tools/convert_onnx/builder.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "tools/convert_onnx/builder_support.h"

namespace convert_onnx {

using namespace talvo::runtime;

namespace {

// The values of `array` at the positions of the first `rank` axes of `shape`; behind them it does not change.
Floats Leading(Array const& array, Shape const& shape, std::size_t rank) {
  auto const cut = static_cast<std::ptrdiff_t>(std::min(shape.size() - rank, array.shape.size()));
  Shape const own(array.shape.begin(), array.shape.end() - cut),
      axes(shape.begin(), shape.begin() + static_cast<std::ptrdiff_t>(rank));
  Floats result;
  for (std::size_t const offset : BroadcastOffsets(own, axes))
    result.push_back(static_cast<float>(array.values[offset]));
  return result;
}

// The number of leading axes behind which `array`, spread over `shape`, does not change.
std::size_t VaryingAxes(Array const& array, Shape const& shape) {
  auto const offset = shape.size() - array.shape.size();
  std::size_t rank = shape.size();
  while (rank > 0 && (rank <= offset || array.shape[rank - 1 - offset] == 1 || array.values.size() == 1)) --rank;
  return rank;
}

}  // namespace

Value Builder::Unary(Value const& value, char const* kernel, unsigned short type, float alpha, float beta) {
  auto const record = std::make_shared<ActivationInfo>();
  record->activation_type = type;
  record->activation_alpha = half_float::half(alpha);
  record->activation_beta = half_float::half(beta);
  return Emit(record, kernel, Only(value), value.dims, value.layout, value.shape);
}

Value Builder::Slope(Value const& value, float slope) {
  if (IsHalf(slope)) return Unary(value, "Leaky_Fallback_Float_M1", 4, slope);
  // The kernel works in place: it gets a copy of its own.
  Value const copy = Unary(value, "Linear_Fallback_Float_M1", 3);
  Value const result = Unary(copy, "PReLU_Fallback_Float_M1", 4);
  layers.back().slopes = {slope};
  return result;
}

Value Builder::Linear(Value const& value, float scale, float shift) {
  if (scale == 1 && shift == 0) return value;
  if (!std::isfinite(scale) || !std::isfinite(shift)) throw Refusal("a factor or summand that is not finite");
  if (IsHalf(scale) && IsHalf(shift)) return Unary(value, "Linear_Fallback_Float_M1", 3, scale, shift);
  Value const row = Flat(value, {1, static_cast<long long>(Count(value.shape)), 1});
  return As(Convolve(row, {scale}, shift == 0 ? Floats() : Floats{shift}, 1, 1, {}), value.shape);
}

Value Builder::Exponential(Value const& value) {
  char const* const kernel = "Sigmoid_Fallback_Float_M1";
  return Combine(kDiv, Unary(value, kernel), Unary(Negative(value), kernel));
}

Value Builder::ExponentialMinusOne(Value const& value) {
  Value const half = Unary(Linear(value, 0.5f, 0), "TanH_Fallback_Float_M1", 5);
  return Combine(kMul, half, Linear(Exponential(value), 1, 1));
}

Value Builder::LogarithmOfOneMore(Value const& value) {
  Value const w = Linear(value, 1, 1);
  Value const lost = Combine(kSub, Linear(w, 1, -1), value);
  return Combine(kSub, Logarithm(w), Combine(kDiv, lost, w));
}

Value Builder::Inverse(Value const& value) { return Combine(kDiv, Filled(Shape(value.shape.size(), 1), 1), value); }

Value Builder::Clip(Value const& value, float low, float high) {
  bool const below = !std::isinf(low), above = !std::isinf(high);
  if (below && above && IsHalf(low) && IsHalf(high)) {
    auto const record = std::make_shared<ClipInfo>();
    record->minimum_value = half_float::half(low);
    record->maximum_value = half_float::half(high);
    return Emit(record, "Clip_Fallback_Float_M1", Only(value), value.dims, value.layout, value.shape);
  }
  Value result = value;
  Shape const one(value.shape.size(), 1);
  if (below) result = Combine(kMax, Filled(one, low), result);  // of a NaN the second operand is kept
  if (above) result = Combine(kMin, Filled(one, high), result);
  return result;
}

Value Builder::Slopes(Value const& value, Array const& slopes) {
  std::size_t const rank = VaryingAxes(slopes, value.shape);
  Signed(Product(value.shape, 0, rank), "the number of slopes");
  Floats const list = Leading(slopes, value.shape, rank);
  auto const channels = static_cast<long long>(list.size());
  if (channels == 1) return Slope(value, list[0]);
  auto const record = std::make_shared<ActivationInfo>();
  record->activation_type = 4;
  record->num_parameters = Signed(channels, "the number of slopes");
  Value const planes = Flat(value, {channels, Product(value.shape, rank, value.shape.size()), 1});
  Value const result =
      Emit(record, "PReLUChannel_Fallback_CHW_Float_M1", Only(planes), planes.dims, TensorShape::CHW, value.shape);
  layers.back().slopes = list;
  return result;
}

// The smallest float has an eighth root of 2.4e-6, of which 60000^2 makes more than 1.
Value Builder::Step(Value const& value) {
  Value result = Relu(value);
  for (int i = 0; i < 3; ++i) result = SquareRoot(result);
  for (int i = 0; i < 2; ++i) result = Linear(result, 60000, 0);
  return Clip(result, 0, 1);
}

// (x + 1.5 * 2^23) - 1.5 * 2^23; the constant is made of halves, so that both forms of a package hold it.
Value Builder::Round(Value const& value) {
  Value const large =
      As(Linear(Linear(Root(), 32768, 0), 3, 0), Shape(std::max<std::size_t>(value.shape.size(), 1), 1));
  Value const operand = value.shape.empty() ? As(value, {1}) : value;
  return As(Combine(kSub, Combine(kAdd, operand, large), large), value.shape);
}

Value Builder::Combine(Operator op, Value const& a, Value const& b) {
  Shape const shape = BroadcastShape(a.shape, b.shape);
  if (a.shape == b.shape && op <= kDiv) {
    auto const record = std::make_shared<ElementWiseOperatorInfo>();
    record->op_type = op;
    return Emit(record, "Elementwise_Fallback_Float_M1", {a, b}, a.dims, a.layout, shape);
  }
  auto const record = std::make_shared<BroadcastOperatorInfo>();
  record->op_type = op;
  Shape const left = WithoutBatch(a.shape), right = WithoutBatch(b.shape), dims = BroadcastShape(left, right);
  Value const x = Flexible(a, left);
  Value const y = Flexible(b, right);
  // The result keeps the label of the first operand, whatever its rank.
  return Emit(record, "BroadcastOperator_Fallback_Float_M1", {x, y}, dims, x.layout, shape);
}

bool Builder::Foldable(Value const& value) const {
  Layer const& layer = layers[static_cast<std::size_t>(value.layer)];
  if (layer.weight.empty()) return false;
  if (layer.name.empty()) return layer.node == node_;
  return layer.name == value.name && std::find(foldable_.begin(), foldable_.end(), value.name) != foldable_.end();
}

namespace {

// Weights and bias of `channels` outputs, each with its factor and summand; every `each` of them share one.
void Scale(Layer& layer, std::size_t channels, Floats const& scale, Floats const& shift) {
  std::size_t const inner = layer.weight.size() / channels, each = channels / scale.size();
  if (layer.bias.empty() && !IsOnly(shift, 0)) layer.bias.assign(channels, 0.0f);
  for (std::size_t c = 0; c < channels; ++c) {
    auto const s = static_cast<double>(scale[c / each]), t = static_cast<double>(shift[c / each]);
    for (std::size_t i = c * inner; i < (c + 1) * inner; ++i) layer.weight[i] = static_cast<float>(layer.weight[i] * s);
    if (!layer.bias.empty()) layer.bias[c] = static_cast<float>(layer.bias[c] * s + t);
  }
  layer.name.clear();
}

// The values of an array that changes along the last axis alone, one for each of its places; else none.
Floats AlongLast(Array const& array, std::size_t extent) {
  if (array.values.size() == 1) return Floats(extent, array.Floats()[0]);
  return array.values.size() == extent && array.shape.back() == static_cast<long long>(extent) ? array.Floats()
                                                                                               : Floats();
}

}  // namespace

// A dense layer over rows has its outputs along the last axis.
bool Builder::FoldIntoRows(Value const& value, Array const& scale, Array const& shift) {
  if (!Foldable(value)) return false;
  Layer& layer = layers[static_cast<std::size_t>(value.layer)];
  if (layer.kernel != kDenseRows || value.shape.empty()) return false;
  std::size_t const outputs = static_cast<FullConnectionInfo const&>(*layer.record).out_features;
  Floats const factors = AlongLast(scale, outputs), summands = AlongLast(shift, outputs);
  if (value.shape.back() != static_cast<long long>(outputs) || factors.empty() || summands.empty()) return false;
  Scale(layer, outputs, factors, summands);
  return true;
}

bool Builder::Fold(Value const& value, Floats const& scale, Floats const& shift) {
  if (!Foldable(value) || layers[static_cast<std::size_t>(value.layer)].kernel == kDenseRows) return false;
  Layer& layer = layers[static_cast<std::size_t>(value.layer)];
  auto const* const conv = dynamic_cast<Conv2dInfo*>(layer.record.get());
  auto const* const dense = dynamic_cast<FullConnectionInfo*>(layer.record.get());
  if (conv == nullptr && dense == nullptr) return false;
  std::size_t const channels = conv != nullptr ? conv->out_channels : dense->out_features;
  if (channels % scale.size() != 0) return false;
  Scale(layer, channels, scale, shift);
  return true;
}

Value Builder::Affine(Value const& value, Array const& scale, Array const& shift) {
  for (Array const* const array : {&scale, &shift}) {
    if (!std::all_of(array->values.begin(), array->values.end(), [](double v) { return std::isfinite(v); }))
      throw Refusal("a constant that is not finite");
  }
  Value result = value;
  result.name.clear();
  if (FoldIntoRows(value, scale, shift)) return result;
  bool const scales = !IsOnly(scale.Floats(), 1), shifts = !IsOnly(shift.Floats(), 0);
  if (!scales && !shifts) return value;
  std::size_t const rank = std::max(VaryingAxes(scale, value.shape), VaryingAxes(shift, value.shape));
  long long const channels = Product(value.shape, 0, rank);
  auto const both = [&] {
    if (scales) result = Combine(kMul, result, Tensor(Constant(scale)));
    return shifts ? Combine(kAdd, result, Tensor(Constant(shift))) : result;
  };
  if (channels > 65535) return both();
  Floats const factors = Leading(scale, value.shape, rank), summands = Leading(shift, value.shape, rank);
  if (Fold(value, factors, summands)) return result;
  if (factors.size() == 1) return Linear(value, factors[0], summands[0]);
  // Weights of a channel each, unless that repeats the constants again and again.
  if (factors.size() > 4 * (scale.values.size() + shift.values.size())) return both();
  Value const planes = Flat(value, {channels, Product(value.shape, rank, value.shape.size()), 1});
  return As(Convolve(planes, factors, shifts ? summands : Floats(), channels, channels, {}), value.shape);
}

Value Builder::Binary(Operator op, Value const& a, Value const& b) {
  bool const left = a.IsConstant();
  Value const& constant = left ? a : b;
  Value const& tensor = left ? b : a;
  bool const simple =
      constant.IsConstant() && constant.constant->IsFloat() && BroadcastShape(a.shape, b.shape) == tensor.shape;
  if (simple && op <= kMul) {
    Array array = *constant.constant;
    if (op == kAdd) return Affine(tensor, Scalar(1), array);
    if (op == kMul) return Affine(tensor, array, Scalar(0));
    if (left) return Affine(tensor, Scalar(-1), array);
    for (double& v : array.values) v = -v;
    return Affine(tensor, Scalar(1), array);
  }
  if (simple && op == kDiv && !left) {
    Array array = *constant.constant;
    bool finite = true;
    for (double& v : array.values) v = Rounded(1 / v, onnx::TensorProto::FLOAT), finite = finite && std::isfinite(v);
    if (finite) return Affine(tensor, array, Scalar(0));
  }
  return Combine(op, Tensor(a), Tensor(b));
}

Value Builder::Reduce(Value const& value, std::vector<std::size_t> const& axes, bool mean) {
  Shape shape = value.shape, dims, rest;
  auto const record = std::make_shared<TensorArithmeticInfo>();
  record->arith_type = mean;
  for (std::size_t axis = 0; axis < value.shape.size(); ++axis) {
    if (value.shape[axis] == 1) continue;
    dims.push_back(value.shape[axis]);
    if (std::find(axes.begin(), axes.end(), axis) == axes.end()) {
      rest.push_back(value.shape[axis]);
    } else {
      record->dim.push_back(static_cast<short>(dims.size()));
      shape[axis] = 1;
    }
  }
  if (record->dim.empty()) return value;
  if (rest.empty()) rest = {1};
  return Emit(record, "TensorArithmetic_Fallback_M1", Only(Flexible(value, dims)), rest, LayoutOf(rest), shape);
}

Value Builder::Maximum(Value const& value, std::vector<std::size_t> const& axes) {
  Value result = value;
  for (std::size_t const axis : axes) {
    long long const extent = result.shape[axis];
    if (extent == 1) continue;
    Shape shape = result.shape;
    long long const outer = Product(shape, 0, axis), inner = Product(shape, axis + 1, shape.size());
    Window window;
    window.kernel_y = extent;
    shape[axis] = 1;
    result = As(Pool(Flat(result, {outer, extent, inner}), true, window, false), shape);
  }
  return result;
}

// The kernel subtracts no maximum; here it is done before, so that large inputs do not overflow.
Value Builder::Softmax(Value const& value, std::size_t begin, std::size_t end) {
  std::vector<std::size_t> axes;
  for (std::size_t axis = begin; axis < end; ++axis) axes.push_back(axis);
  Value const shifted = Combine(kSub, value, Maximum(value, axes));
  Shape const& shape = value.shape;
  Value const planes =
      Flat(shifted, {Product(shape, 0, begin), Product(shape, begin, end), Product(shape, end, shape.size())});
  auto const record = std::make_shared<SoftmaxInfo>();
  record->dim = 2;
  return Emit(record, "Softmax_Fallback_Float_M1", Only(planes), planes.dims, TensorShape::CHW, shape);
}

}  // namespace convert_onnx
