#include "tools/convert_onnx/builder.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace convert_onnx {

using namespace talvo::runtime;

namespace {

constexpr long long kShort = 32767;
constexpr long long kConstantPart = 60000;  // elements that one dense layer makes

unsigned int LayoutOf(Shape const& dims) {
  if (dims.size() == 1) return TensorShape::C;
  if (dims.size() == 2) return TensorShape::SC;
  return dims.size() == 3 ? TensorShape::CHW : TensorShape::FLEXIABLE;
}

Shape WithoutBatch(Shape const& shape) {
  if (shape.empty()) return {1};
  return shape.size() > 1 && shape[0] == 1 ? Shape(shape.begin() + 1, shape.end()) : shape;
}

short Signed(long long number, char const* what) {
  if (number > kShort || number < -kShort) {
    throw Refusal(std::string(what) + " = " + std::to_string(number) + ", the record holds 32767");
  }
  return static_cast<short>(number);
}

bool IsHalf(float value) { return static_cast<float>(half_float::half(value)) == value; }

std::vector<Value> Only(Value const& value) { return {value}; }

// The values of `array` at the positions of `shape` whose axes from `rank` on are 0.
Floats Leading(Array const& array, Shape const& shape, std::size_t rank) {
  Floats result;
  auto const offsets = BroadcastOffsets(array.shape, shape);
  auto const inner = static_cast<std::size_t>(Product(shape, rank, shape.size()));
  for (std::size_t i = 0; i < offsets.size(); i += inner)
    result.push_back(static_cast<float>(array.values[offsets[i]]));
  return result;
}

// The number of leading axes behind which `array`, spread over `shape`, does not change.
std::size_t VaryingAxes(Array const& array, Shape const& shape) {
  auto const offset = shape.size() - array.shape.size();
  std::size_t rank = shape.size();
  while (rank > 0 && (rank <= offset || array.shape[rank - 1 - offset] == 1 || array.values.size() == 1)) --rank;
  return rank;
}

bool IsOnly(Floats const& values, float value) {
  return std::all_of(values.begin(), values.end(), [value](float v) { return v == value; });
}

}  // namespace

unsigned short Field(long long number, char const* what) {
  if (number < 0 || number > 65535) {
    throw Refusal(std::string(what) + " = " + std::to_string(number) + ", the record holds 0 to 65535");
  }
  return static_cast<unsigned short>(number);
}

void Builder::Begin(std::string node, std::vector<std::string> foldable) {
  node_ = std::move(node);
  foldable_ = std::move(foldable);
}

Value Builder::AddInput(std::string const& name, Shape const& shape) {
  if (Count(shape) == 0) throw Refusal("input " + name + " has no elements: " + Text(shape));
  Shape const dims = WithoutBatch(shape);
  Value value = Emit(std::make_shared<InputInfo>(), "Input_Fallback_M1", {}, dims, LayoutOf(dims), shape);
  layers.back().name = value.name = name;
  return value;
}

Value Builder::Emit(std::shared_ptr<LayerInfo> record, char const* kernel, std::vector<Value> const& inputs,
                    Shape const& dims, unsigned int layout, Shape const& shape) {
  if (Count(shape) == 0) throw Refusal("a result of no elements: " + Text(shape));
  if (Count(shape) != Count(dims)) throw Refusal("shape " + Text(shape) + " and tensor " + Text(dims) + " disagree");
  Layer layer{std::move(record), kernel, {}, "", node_, {}, {}};
  for (Value const& input : inputs) layer.inputs.push_back(input.layer);
  layers.push_back(std::move(layer));
  Value value;
  value.shape = shape;
  value.layer = static_cast<int>(layers.size()) - 1;
  value.dims = dims;
  value.layout = layout;
  return value;
}

Value Builder::As(Value value, Shape const& shape) {
  if (Count(shape) != Count(value.shape)) {
    throw Refusal("shape " + Text(value.shape) + " cannot become " + Text(shape));
  }
  value.shape = shape;
  return value;
}

Value Builder::Flat(Value const& value, Shape const& dims) {
  unsigned int const layout = LayoutOf(dims);
  if (value.layout == layout && value.dims == dims) return value;
  auto const record = std::make_shared<TensorReshapeInfo>();
  record->new_shape = {1};
  bool open = false;
  for (long long const extent : dims) {
    if (extent > kShort && open) throw Refusal("a reshape to " + Text(dims) + ": two extents above 32767");
    open = open || extent > kShort;
    record->new_shape.push_back(extent > kShort ? short{-1} : static_cast<short>(extent));
  }
  char const* const kernels[] = {"Transform_MainMemory_Reshape_Fallback", "Reshape_Fallback_To_C_M1",
                                 "Reshape_Fallback_To_SC_M1", "Reshape_Fallback_To_CHW_M1"};
  return Emit(record, kernels[dims.size() > 3 ? 0 : dims.size()], Only(value), dims, layout, value.shape);
}

// For kernels that take any layout: only the dims count.
Value Builder::Flexible(Value const& value, Shape const& dims) {
  return value.dims == dims ? value : Flat(value, dims);
}

Value Builder::Natural(Value const& value) { return Flat(value, WithoutBatch(value.shape)); }

Value Builder::Permute(Value const& value, std::vector<std::size_t> const& axes) {
  Shape shape;
  for (std::size_t const axis : axes) shape.push_back(value.shape[axis]);
  std::vector<std::size_t> kept, order;  // axes above 1, before and behind
  for (std::size_t axis = 0; axis < axes.size(); ++axis) {
    if (value.shape[axis] != 1) kept.push_back(axis);
    if (shape[axis] != 1) order.push_back(axes[axis]);
  }
  if (order == kept) return As(value, shape);
  // Neighbours that stay together become one axis: `starts` are the first axes of these groups, in the new order.
  auto const place = [&](std::size_t axis) { return std::find(kept.begin(), kept.end(), axis) - kept.begin(); };
  std::vector<std::size_t> starts;
  for (std::size_t i = 0; i < order.size(); ++i) {
    if (i == 0 || place(order[i]) != place(order[i - 1]) + 1) starts.push_back(order[i]);
  }
  std::vector<std::size_t> sorted = starts;
  std::sort(sorted.begin(), sorted.end());
  Shape dims, out;
  for (std::size_t g = 0; g < sorted.size(); ++g) {
    dims.push_back(Product(value.shape, sorted[g], g + 1 < sorted.size() ? sorted[g + 1] : value.shape.size()));
  }
  auto const record = std::make_shared<TensorTransposeInfo>();
  record->axes = {0};
  for (std::size_t const start : starts) {
    auto const group = std::find(sorted.begin(), sorted.end(), start) - sorted.begin();
    record->axes.push_back(static_cast<unsigned short>(group + 1));
    out.push_back(dims[static_cast<std::size_t>(group)]);
  }
  return Emit(record, "Transform_MainMemory_Permute_Fallback", Only(Flexible(value, dims)), out, TensorShape::FLEXIABLE,
              shape);
}

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
  static_cast<ActivationInfo&>(*layers.back().record).weight =
      Base64Encode(reinterpret_cast<unsigned char const*>(&slope), sizeof slope);
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

// hsigmoid(huge * x - 3): 0 at 0, above 1 / 60000^5 it is 1.
Value Builder::Step(Value const& value) {
  Value result = value;
  for (int i = 0; i < 5; ++i) result = Linear(result, 60000, 0);
  return Unary(Linear(result, 1, -3), "HSigmoid_Fallback_Float_M1");
}

// (x + 1.5 * 2^23) - 1.5 * 2^23; the constant is made of halves, so that both forms of a package hold it.
Value Builder::Round(Value const& value) {
  Value const large =
      As(Linear(Linear(Root(), 32768, 0), 3, 0), Shape(std::max<std::size_t>(value.shape.size(), 1), 1));
  Value const operand = value.shape.empty() ? As(value, {1}) : value;
  return As(Combine(kSub, Combine(kAdd, operand, large), large), value.shape);
}

Value Builder::First() const {
  if (layers.empty()) throw Refusal("the graph has no input that is a tensor while it runs");
  Value value;
  value.layer = 0;
  return value;
}

// 128 as a tensor of one element: behind it layers of weight 0 put constants.
Value Builder::Root() {
  auto const record = std::make_shared<LayerPlaceholderInfo>();
  if (root_ < 0) {
    record->output_shape = {1, 1, 1};
    Value const made =
        Emit(record, "LayerPlaceholder_Fallback_Float_M1", Only(First()), {1, 1, 1}, TensorShape::CHW, {1});
    root_ = Flat(made, {1}).layer;
  }
  Value value;
  value.layer = root_;
  value.shape = value.dims = {1};
  value.layout = TensorShape::C;
  return value;
}

Value Builder::Filled(Shape const& shape, float value) {
  if (!IsHalf(value)) {
    return Tensor(
        Constant({shape, onnx::TensorProto::FLOAT, std::vector<double>(Count(shape), static_cast<double>(value))}));
  }
  auto const record = std::make_shared<LayerPlaceholderInfo>();
  Shape dims = shape;
  while (dims.size() > 3) dims[1] *= dims[0], dims.erase(dims.begin());
  while (dims.size() < 3) dims.insert(dims.begin(), 1);
  for (long long const extent : dims) record->output_shape.push_back(Field(extent, "an extent of a constant"));
  Value const made = Emit(record, "LayerPlaceholder_Fallback_Float_M1", Only(First()), dims, TensorShape::CHW, shape);
  return Unary(made, "Linear_Fallback_Float_M1", 3, 0, value);
}

Value Builder::Tensor(Value const& value) {
  if (value.IsTensor()) return value;
  if (!value.IsConstant()) throw Refusal("a value is missing");
  if (!value.constant->IsFloat())
    throw Refusal("a constant of type " + TypeName(value.constant->type) + " meets tensors of float32");
  Floats const floats = value.constant->Floats();
  if (floats.empty()) throw Refusal("a constant of no elements");
  if (floats.size() > 1 && IsOnly(floats, floats[0]) && IsHalf(floats[0])) return Filled(value.shape, floats[0]);
  std::vector<Value> parts;
  for (std::size_t i = 0; i < floats.size(); i += kConstantPart) {
    auto const begin = floats.begin() + static_cast<std::ptrdiff_t>(i);
    Floats bias(begin, begin + static_cast<std::ptrdiff_t>(std::min<std::size_t>(kConstantPart, floats.size() - i)));
    auto const count = static_cast<long long>(bias.size());
    Floats const nothing(bias.size(), 0.0f);
    parts.push_back(As(Dense(Root(), nothing, std::move(bias), count), {count}));
  }
  return As(Join(parts, 0), value.shape);
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

bool Builder::Fold(Value const& value, Floats const& scale, Floats const& shift) {
  if (!Foldable(value)) return false;
  Layer& layer = layers[static_cast<std::size_t>(value.layer)];
  auto const* const conv = dynamic_cast<Conv2dInfo*>(layer.record.get());
  auto const* const dense = dynamic_cast<FullConnectionInfo*>(layer.record.get());
  if (conv == nullptr && dense == nullptr) return false;
  std::size_t const channels = conv != nullptr ? conv->out_channels : dense->out_features;
  if (channels % scale.size() != 0) return false;
  std::size_t const each = channels / scale.size();
  std::size_t const inner = layer.weight.size() / channels;
  if (layer.bias.empty() && !IsOnly(shift, 0)) layer.bias.assign(channels, 0.0f);
  for (std::size_t c = 0; c < channels; ++c) {
    auto const s = static_cast<double>(scale[c / each]), t = static_cast<double>(shift[c / each]);
    for (std::size_t i = c * inner; i < (c + 1) * inner; ++i) layer.weight[i] = static_cast<float>(layer.weight[i] * s);
    if (!layer.bias.empty()) layer.bias[c] = static_cast<float>(layer.bias[c] * s + t);
  }
  layer.name.clear();
  return true;
}

Value Builder::Affine(Value const& value, Array const& scale, Array const& shift) {
  std::size_t const rank = std::max(VaryingAxes(scale, value.shape), VaryingAxes(shift, value.shape));
  Floats const factors = Leading(scale, value.shape, rank), summands = Leading(shift, value.shape, rank);
  for (Floats const& list : {factors, summands}) {
    if (!std::all_of(list.begin(), list.end(), [](float v) { return std::isfinite(v); }))
      throw Refusal("a constant that is not finite");
  }
  if (IsOnly(factors, 1) && IsOnly(summands, 0)) return value;
  Value result = value;
  if (Fold(value, factors, summands)) {
    result.name.clear();
    return result;
  }
  if (factors.size() == 1) return Linear(value, factors[0], summands[0]);
  auto const channels = static_cast<long long>(factors.size());
  if (channels > 65535) {
    if (!IsOnly(factors, 1)) result = Combine(kMul, result, Tensor(Constant(scale)));
    return IsOnly(summands, 0) ? result : Combine(kAdd, result, Tensor(Constant(shift)));
  }
  Value const planes = Flat(value, {channels, Product(value.shape, rank, value.shape.size()), 1});
  return As(Convolve(planes, factors, IsOnly(summands, 0) ? Floats() : summands, channels, channels, {}), value.shape);
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

namespace {

// What both kinds of convolution have but for their paddings.
template <class Record>
void SetFields(Record& record, long long in, long long out, long long groups, Window const& w) {
  record.in_channels = Field(in, "in_channels");
  record.out_channels = Field(out, "out_channels");
  record.groups = Field(groups, "groups");
  record.kernel_x = Field(w.kernel_x, "kernel_x");
  record.kernel_y = Field(w.kernel_y, "kernel_y");
  record.stride_x = Field(w.stride_x, "stride_x");
  record.stride_y = Field(w.stride_y, "stride_y");
  record.dilation_x = Field(w.dilation_x, "dilation_x");
  record.dilation_y = Field(w.dilation_y, "dilation_y");
}

}  // namespace

Value Builder::Convolve(Value const& planes, Floats weight, Floats bias, long long out, long long groups, Window w) {
  auto const record = std::make_shared<Conv2dInfo>();
  SetFields(*record, planes.dims[0], out, groups, w);
  record->padding_l = Field(w.left, "a padding");
  record->padding_t = Field(w.top, "a padding");
  record->padding_r = Field(w.right, "a padding");
  record->padding_b = Field(w.bottom, "a padding");
  record->if_bias = !bias.empty();
  long long const rows = planes.dims[1] + w.top + w.bottom - w.dilation_y * (w.kernel_y - 1) - 1;
  long long const columns = planes.dims[2] + w.left + w.right - w.dilation_x * (w.kernel_x - 1) - 1;
  if (rows < 0 || columns < 0) throw Refusal("a window larger than the padded input " + Text(planes.dims));
  Shape const dims = {out, rows / w.stride_y + 1, columns / w.stride_x + 1};
  bool const point = std::max({w.kernel_x, w.kernel_y, w.stride_x, w.stride_y, w.dilation_x, w.dilation_y}) == 1 &&
                     groups == 1 && w.top + w.left + w.bottom + w.right == 0;
  Value const value = Emit(
      record,
      blas_ && point ? "Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1" : "Conv2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1",
      Only(planes), dims, TensorShape::CHW, dims);
  layers.back().weight = std::move(weight);
  layers.back().bias = std::move(bias);
  return value;
}

Value Builder::Transposed(Value const& planes, Floats weight, Floats bias, long long out, long long groups, Window w) {
  auto const record = std::make_shared<ConvTranspose2dInfo>();
  SetFields(*record, planes.dims[0], out, groups, w);
  record->padding_l = Signed(w.left, "a padding");
  record->padding_t = Signed(w.top, "a padding");
  record->padding_r = Signed(w.right, "a padding");
  record->padding_b = Signed(w.bottom, "a padding");
  record->if_bias = !bias.empty();
  Shape const dims = {out, w.stride_y * planes.dims[1] + w.top + w.bottom - w.dilation_y * (w.kernel_y - 1),
                      w.stride_x * planes.dims[2] + w.left + w.right - w.dilation_x * (w.kernel_x - 1)};
  Value const value = Emit(record, "ConvTranspose2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1", Only(planes), dims,
                           TensorShape::CHW, dims);
  layers.back().weight = std::move(weight);
  layers.back().bias = std::move(bias);
  return value;
}

namespace {

template <class Info>
void FillPool(Info& record, Window const& w) {
  record.kernel_x = Field(w.kernel_x, "kernel_x");
  record.kernel_y = Field(w.kernel_y, "kernel_y");
  record.stride_x = Field(w.stride_x, "stride_x");
  record.stride_y = Field(w.stride_y, "stride_y");
  record.padding_l = Signed(Field(w.left, "a padding"), "a padding");
  record.padding_t = Signed(Field(w.top, "a padding"), "a padding");
  record.padding_r = Signed(Field(w.right, "a padding"), "a padding");
  record.padding_b = Signed(Field(w.bottom, "a padding"), "a padding");
  record.ceil_mode = false;
}

}  // namespace

Value Builder::Pool(Value const& planes, bool maximum, Window const& w, bool count_padding) {
  long long const rows = planes.dims[1] + w.top + w.bottom - w.dilation_y * (w.kernel_y - 1) - 1;
  long long const columns = planes.dims[2] + w.left + w.right - w.dilation_x * (w.kernel_x - 1) - 1;
  if (rows < 0 || columns < 0) throw Refusal("a window larger than the padded input " + Text(planes.dims));
  Shape const dims = {planes.dims[0], rows / w.stride_y + 1, columns / w.stride_x + 1};
  if (maximum) {
    auto const record = std::make_shared<MaxPool2dInfo>();
    FillPool(*record, w);
    record->dilation_x = Field(w.dilation_x, "dilation_x");
    record->dilation_y = Field(w.dilation_y, "dilation_y");
    return Emit(record, "Pooling2D_Max_Fallback_Float_M1", Only(planes), dims, TensorShape::CHW, dims);
  }
  if (w.dilation_x * w.dilation_y != 1) throw Refusal("dilations of an average");
  auto const record = std::make_shared<AvgPool2dInfo>();
  FillPool(*record, w);
  record->count_include_pad = count_padding;
  return Emit(record, "Pooling2D_Avg_Fallback_Float_M1", Only(planes), dims, TensorShape::CHW, dims);
}

Value Builder::Dense(Value const& value, Floats weight, Floats bias, long long out) {
  auto const in = static_cast<long long>(Count(value.shape));
  auto const record = std::make_shared<FullConnectionInfo>();
  record->in_features = Field(in, "in_features");
  record->out_features = Field(out, "out_features");
  record->if_bias = !bias.empty();
  Value const result = Emit(record, blas_ ? "FullConnection_SGEMM_C_Float_M1" : "FullConnection_Fallback_C_Float_M1",
                            Only(Flat(value, {in})), {out}, TensorShape::C, {out});
  layers.back().weight = std::move(weight);
  layers.back().bias = std::move(bias);
  return result;
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

Value Builder::Slice(Value const& value, std::size_t axis, long long begin, long long count, long long step) {
  long long const extent = value.shape[axis];
  if (count <= 0) throw Refusal("a slice of no elements");
  if (begin == 0 && count == extent && step == 1) return value;
  if (count == 1) step = 1;
  if (begin + count * step > extent) {  // the kernel wants a step that divides the range: the last one goes apart
    return Join({Slice(value, axis, begin, count - 1, step), Slice(value, axis, begin + (count - 1) * step, 1, 1)},
                axis);
  }
  Shape shape = value.shape;
  shape[axis] = count;
  long long const outer = Product(shape, 0, axis), inner = Product(shape, axis + 1, shape.size());
  auto const record = std::make_shared<TensorSliceInfo>();
  auto const add = [&](long long first, long long end, long long stride) {
    for (long long const v : {first, end, stride}) record->slice_dims.push_back(Signed(v, "a bound of a slice"));
  };
  Shape dims = {outer, extent, inner}, out = {outer, count, inner};
  if (outer == 1) dims = {extent, inner, 1}, out = {count, inner, 1};
  if (outer != 1) add(0, outer, 1);
  add(begin, begin + count * step, step);
  add(0, inner, 1);
  if (outer == 1) add(0, 1, 1);
  return Emit(record, "Slice_Fallback_CHW_Float_M1", Only(Flat(value, dims)), out, TensorShape::CHW, shape);
}

Value Builder::Join(std::vector<Value> const& values, std::size_t axis) {
  if (values.size() == 1) return values[0];
  Shape shape = values[0].shape;
  shape[axis] = 0;
  for (Value const& value : values) shape[axis] += value.shape[axis];
  long long const outer = Product(shape, 0, axis), inner = Product(shape, axis + 1, shape.size());
  std::vector<Value> parts;
  for (Value const& value : values) {
    long long const extent = value.shape[axis];
    parts.push_back(outer == 1 ? Flat(value, {extent, inner, 1}) : Flexible(value, {outer, extent, inner}));
    auto const same =
        std::count_if(parts.begin(), parts.end(), [&](Value const& p) { return p.layer == parts.back().layer; });
    if (same > 8) throw Refusal("one tensor more than 8 times in a concatenation");
  }
  auto const record = std::make_shared<ConcatenateInfo>();
  record->dim = 1;
  if (outer == 1) {
    return Emit(record, "Concatenate_C_Fallback_CnHWn_M1", parts, {shape[axis], inner, 1}, TensorShape::CHW, shape);
  }
  return Emit(record, "Concatenate_MainMemory_Fallback", parts, {outer, shape[axis], inner}, TensorShape::FLEXIABLE,
              shape);
}

Value Builder::Along(Value const& value, std::size_t axis, Floats const& matrix, long long rows) {
  long long const extent = value.shape[axis];
  long long const outer = Product(value.shape, 0, axis), inner = Product(value.shape, axis + 1, value.shape.size());
  Shape shape = value.shape;
  shape[axis] = rows;
  Value const front = Permute(As(value, {outer, extent, inner}), {1, 0, 2});
  Value const product =
      As(Convolve(Flat(front, {extent, outer, inner}), matrix, {}, rows, 1, {}), {rows, outer, inner});
  return As(Permute(product, {1, 0, 2}), shape);
}

Value Builder::Take(Value const& value, std::size_t axis, std::vector<long long> const& indices) {
  long long const extent = value.shape[axis];
  auto const count = static_cast<long long>(indices.size());
  if (count == 0) throw Refusal("a selection of no elements");
  std::vector<long long> places = indices;
  for (long long& place : places) {
    if (place < -extent || place >= extent)
      throw Refusal("index " + std::to_string(place) + " is none of " + std::to_string(extent));
    if (place < 0) place += extent;
  }
  long long const step = count > 1 ? places[1] - places[0] : 1;
  bool even = step > 0;
  for (std::size_t i = 1; i < places.size(); ++i) even = even && places[i] - places[i - 1] == step;
  if (even) return Slice(value, axis, places[0], count, step);
  Floats matrix(Count({count, extent}), 0.0f);
  for (std::size_t i = 0; i < places.size(); ++i) {
    matrix[i * static_cast<std::size_t>(extent) + static_cast<std::size_t>(places[i])] = 1;
  }
  return Along(value, axis, matrix, count);
}

}  // namespace convert_onnx
