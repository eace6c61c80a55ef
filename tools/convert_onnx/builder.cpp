#include "tools/convert_onnx/builder.h"

#include <algorithm>
#include <map>
#include <utility>

#include "tools/convert_onnx/builder_support.h"

namespace convert_onnx {

using namespace talvo::runtime;

namespace {

constexpr long long kConstantPart = 60000;  // elements that one dense layer makes
constexpr std::size_t kMostPieces = 1024;   // of a selection, a layer each

}  // namespace

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

bool IsOnly(Floats const& values, float value) {
  return std::all_of(values.begin(), values.end(), [value](float v) { return v == value; });
}

unsigned short Field(long long number, char const* what) {
  if (number < 0 || number > 65535) {
    throw Refusal(std::string(what) + " = " + std::to_string(number) + ", the record holds 0 to 65535");
  }
  return static_cast<unsigned short>(number);
}

bool Builder::Holds(int type) const {
  using onnx::TensorProto;
  return type == TensorProto::FLOAT ||
         (options_.narrow && (type == TensorProto::DOUBLE || type == TensorProto::FLOAT16));
}

void Builder::Approximate(std::string const& what) {
  if (!options_.approximate) throw Refusal(what + "; convert it with --approximate");
  notes.insert("node " + node_ + ": " + what);
}

std::size_t Layer::Weights() const {
  std::size_t count = weight.size() + bias.size() + slopes.size();
  for (Floats const& list : recurrent) count += list.size();
  return count;
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
  SpendWeights();
  Layer layer;
  layer.record = std::move(record);
  layer.kernel = kernel;
  layer.node = node_;
  for (Value const& input : inputs) layer.inputs.push_back(input.layer);
  layers.push_back(std::move(layer));
  Value value;
  value.shape = shape;
  value.layer = static_cast<int>(layers.size()) - 1;
  value.dims = dims;
  value.layout = layout;
  return value;
}

// Keeps memory in bounds, whatever a model asks for. The weights of a layer are there when the next one is made.
void Builder::SpendWeights() {
  for (; weighed_ < layers.size(); ++weighed_) weights_ += layers[weighed_].Weights();
  if (weights_ > options_.most_elements)
    throw Refusal("more than " + std::to_string(options_.most_elements) + " elements in all weights");
  if (layers.size() >= options_.most_layers)
    throw Refusal("more than " + std::to_string(options_.most_layers) + " layers");
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
  std::map<int, int> copies;
  for (Value const& value : values) {
    long long const extent = value.shape[axis];
    parts.push_back(outer == 1 ? Flat(value, {extent, inner, 1}) : Flexible(value, {outer, extent, inner}));
    if (++copies[parts.back().layer] > 8) throw Refusal("one tensor more than 8 times in a concatenation");
  }
  auto const record = std::make_shared<ConcatenateInfo>();
  record->dim = 1;
  if (outer == 1) {
    return Emit(record, "Concatenate_C_Fallback_CnHWn_M1", parts, {shape[axis], inner, 1}, TensorShape::CHW, shape);
  }
  return Emit(record, "Concatenate_MainMemory_Fallback", parts, {outer, shape[axis], inner}, TensorShape::FLEXIABLE,
              shape);
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
  // Pieces whose places ascend evenly; a matrix of 0 and 1 would spread NaN and infinities.
  std::vector<Value> pieces;
  for (std::size_t first = 0, next = 0; first < places.size(); first = next) {
    long long const step = first + 1 < places.size() ? std::max(places[first + 1] - places[first], 0ll) : 1;
    for (next = first + 1; step > 0 && next < places.size() && places[next] - places[next - 1] == step;) ++next;
    if (pieces.size() == kMostPieces) {
      throw Refusal("a selection of " + std::to_string(count) + " places of " + std::to_string(extent) +
                    " in more than " + std::to_string(kMostPieces) + " even pieces");
    }
    pieces.push_back(Slice(value, axis, places[first], static_cast<long long>(next - first), std::max(step, 1ll)));
  }
  return Join(pieces, axis);
}

}  // namespace convert_onnx
