#include "talvo/kernel/structural.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "talvo/kernel/functional/structural.h"
#include "talvo/kernel/functional/structural_support.h"
#include "talvo/kernel/kernel_support.h"
#include "talvo/kernel/rows/exponential.h"
#include "talvo/serialization/layer_info.h"
#include "talvo/serialization/layer_info_activation.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "talvo/utility/log.h"

namespace talvo::kernel {
namespace {

using runtime::ConcatenateInfo;
using runtime::Context;
using runtime::DimsText;
using runtime::InferenceParam;
using runtime::LayerInfo;
using runtime::LayerPlaceholderInfo;
using runtime::SoftmaxInfo;
using runtime::Tensor;
using runtime::TensorExpandInfo;
using runtime::TensorShape;
using runtime::TensorSliceInfo;
using runtime::TensorUnSqueezeInfo;
using support::Tensors;
using utility::Assert;

constexpr float kPlaceholder = 128.0f;

template <class Info>
Info const* As(std::shared_ptr<LayerInfo> const& layer) {
  return dynamic_cast<Info const*>(layer.get());
}

bool IsInMainMemory(Tensor const& tensor) { return tensor.shape.location == TensorShape::MainMemory; }

bool IsFloatOrInt16(Tensor const& tensor) {
  return support::IsInMainMemory(tensor, TensorShape::FLOAT32) || support::IsInMainMemory(tensor, TensorShape::INT16);
}

// The layouts whose outermost axis is that of the channels or of their blocks.
bool HasChannelsOutermost(Tensor const& tensor) {
  unsigned int const layout = tensor.shape.layout;
  return IsInMainMemory(tensor) &&
         (layout == TensorShape::CHW || layout == TensorShape::C4HW4 || layout == TensorShape::C8HW8);
}

bool EqualButAxis(std::vector<unsigned int> const& a, std::vector<unsigned int> const& b, std::size_t axis) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (i != axis && a[i] != b[i]) return false;
  }
  return true;
}

// Softmax of n values that follow each other.
void SoftmaxRow(float const* x, std::size_t n, float* y) {
  rows::ExpRow(x, n, y);
  double sum = 0.0;
  for (std::size_t k = 0; k < n; ++k) sum += static_cast<double>(y[k]);
  for (std::size_t k = 0; k < n; ++k) y[k] = static_cast<float>(static_cast<double>(y[k]) / sum);
}

// Softmax down each of the columns of x [n, columns]; `sums` holds one value a column.
void SoftmaxColumns(float const* x, std::size_t n, std::vector<double>& sums, float* y) {
  std::size_t const columns = sums.size();
  std::fill(sums.begin(), sums.end(), 0.0);
  double* const sum = sums.data();
  rows::ExpRow(x, n * columns, y);
  for (std::size_t k = 0; k < n; ++k) {
    for (std::size_t i = 0; i < columns; ++i) sum[i] += static_cast<double>(y[k * columns + i]);
  }
  for (std::size_t k = 0; k < n; ++k, y += columns) {
    for (std::size_t i = 0; i < columns; ++i) y[i] = static_cast<float>(static_cast<double>(y[i]) / sum[i]);
  }
}

// Softmax along the middle axis of x [outer, n, inner], which has `count` elements.
void Softmax(float const* x, std::size_t count, std::size_t n, std::size_t inner, float* y) {
  std::vector<double> sums(count == 0 || inner == 1 ? 0 : inner);
  for (std::size_t begin = 0; begin < count; begin += n * inner) {
    if (inner == 1) {
      SoftmaxRow(x + begin, n, y + begin);
    } else {
      SoftmaxColumns(x + begin, n, sums, y + begin);
    }
  }
}

}  // namespace

template <class Way>
std::string PassThrough<Way>::GetName() const {
  return Way::kName;
}

template <class Way>
int PassThrough<Way>::IsValidParam(std::shared_ptr<LayerInfo> layer, std::shared_ptr<InferenceParam> param) const {
  return support::InvertedParam(layer, param);
}

template <class Way>
bool PassThrough<Way>::Config(std::shared_ptr<LayerInfo> layer, std::shared_ptr<InferenceParam> param,
                              std::shared_ptr<Context>) {
  configured_ = IsValidParam(layer, param) != 0;
  return configured_;
}

template <class Way>
bool PassThrough<Way>::IsConfigured() const {
  return configured_;
}

template <class Way>
std::vector<TensorShape> PassThrough<Way>::GetOutputShapes(std::vector<TensorShape> const& input_shapes) const {
  return input_shapes;
}

template <class Way>
int PassThrough<Way>::IsValidInput(Tensors const& inputs) const {
  return support::Judge(inputs, 1, Way::Accepts);
}

template <class Way>
int PassThrough<Way>::Forward(Tensors const& inputs, Tensors& outputs, std::shared_ptr<Context>) const {
  if (&outputs != &inputs) outputs = inputs;
  return 0;
}

template <class Way>
int PassThrough<Way>::IsValidOutput(Tensors const& outputs) const {
  return support::Judge(outputs, 1, Way::Accepts);
}

bool InputWay::Accepts(Tensor const&) { return true; }

bool StraightWay::Accepts(Tensor const& tensor) { return IsInMainMemory(tensor); }

template class PassThrough<InputWay>;
template class PassThrough<StraightWay>;

std::string LayerPlaceholder_Fallback_Float_M1::GetName() const { return "LayerPlaceholder_Fallback_Float_M1"; }

int LayerPlaceholder_Fallback_Float_M1::IsValidParam(std::shared_ptr<LayerInfo> layer,
                                                     std::shared_ptr<InferenceParam> param) const {
  if (support::StrictParam<LayerPlaceholderInfo>(layer, param) == -1) return -1;
  return As<LayerPlaceholderInfo>(layer)->output_shape.empty() ? -1 : 0;
}

bool LayerPlaceholder_Fallback_Float_M1::Config(std::shared_ptr<LayerInfo> layer, std::shared_ptr<InferenceParam> param,
                                                std::shared_ptr<Context>) {
  configured_ = false;
  if (IsValidParam(layer, param) == -1) return false;
  output_shape_ = As<LayerPlaceholderInfo>(layer)->output_shape;
  configured_ = true;
  return true;
}

bool LayerPlaceholder_Fallback_Float_M1::IsConfigured() const { return configured_; }

std::vector<TensorShape> LayerPlaceholder_Fallback_Float_M1::GetOutputShapes(std::vector<TensorShape> const&) const {
  return {TensorShape({output_shape_.begin(), output_shape_.end()}, TensorShape::FLOAT32, TensorShape::CHW,
                      TensorShape::MainMemory, TensorShape::Extra())};
}

int LayerPlaceholder_Fallback_Float_M1::IsValidInput(Tensors const& inputs) const {
  return support::JudgeFirst(inputs, IsInMainMemory);
}

int LayerPlaceholder_Fallback_Float_M1::Forward(Tensors const& inputs, Tensors& outputs,
                                                std::shared_ptr<Context> context) const {
  auto const y = support::NewOutput(*this, inputs, context);
  std::fill_n(y->Data<float>(), support::Count(*y), kPlaceholder);
  outputs.assign(1, y);
  return 0;
}

int LayerPlaceholder_Fallback_Float_M1::IsValidOutput(Tensors const& outputs) const {
  return support::JudgeFirst(outputs, IsInMainMemory);
}

std::string Concatenate_MainMemory_Fallback::GetName() const { return "Concatenate_MainMemory_Fallback"; }

int Concatenate_MainMemory_Fallback::IsValidParam(std::shared_ptr<LayerInfo> layer,
                                                  std::shared_ptr<InferenceParam> param) const {
  return support::StrictParam<ConcatenateInfo>(layer, param);
}

bool Concatenate_MainMemory_Fallback::Config(std::shared_ptr<LayerInfo> layer, std::shared_ptr<InferenceParam> param,
                                             std::shared_ptr<Context>) {
  configured_ = false;
  if (IsValidParam(layer, param) == -1) return false;
  axis_ = As<ConcatenateInfo>(layer)->dim;
  configured_ = true;
  return true;
}

bool Concatenate_MainMemory_Fallback::IsConfigured() const { return configured_; }

std::vector<TensorShape> Concatenate_MainMemory_Fallback::GetOutputShapes(
    std::vector<TensorShape> const& input_shapes) const {
  TensorShape const& first = support::ShapeAt(*this, input_shapes, 0);
  TensorShape const& second = support::ShapeAt(*this, input_shapes, 1);
  TensorShape joined(first.dims, first.data_type, TensorShape::FLEXIABLE, first.location, TensorShape::Extra());
  for (std::size_t i = 0; i < first.dims.size(); ++i) {
    Assert(!second.dims.empty(), "%s: a tensor of dims %s and one without", GetName().c_str(),
           DimsText(first.dims).c_str());
    // The leading extents decide for every axis.
    bool const equal = first.dims[0] == second.dims[0];
    Assert(equal || i == axis_, "input tensor shapes error.");
    joined.dims[i] = equal ? first.dims[0] : first.dims[0] + second.dims[0];
  }
  return {joined};
}

int Concatenate_MainMemory_Fallback::IsValidInput(Tensors const& inputs) const {
  if (inputs.size() < 2 || inputs[0] == nullptr) return -2;
  TensorShape const& first = inputs[0]->shape;
  return support::Judge(inputs, inputs.size(), [&](Tensor const& tensor) {
    return support::IsInMainMemory(tensor, first.data_type) && EqualButAxis(tensor.shape.dims, first.dims, axis_);
  });
}

int Concatenate_MainMemory_Fallback::Forward(Tensors const& inputs, Tensors& outputs,
                                             std::shared_ptr<Context> context) const {
  Assert(IsValidInput(inputs) == 0, "Invalid forward input param");
  if (!outputs.empty()) {
    Assert(IsValidOutput(outputs) == 0, "Invalid forward output param");
    Assert(false, "Not Implemented.");
  }
  support::Device(*this, context);
  outputs.push_back(functional::Concatenate_MainMemory_Fallback(inputs, axis_, context->device_cpu));
  return 0;
}

int Concatenate_MainMemory_Fallback::IsValidOutput(Tensors const& outputs) const {
  return support::Judge(outputs, 1, IsInMainMemory);
}

std::string Concatenate_C_Fallback_CnHWn_M1::GetName() const { return "Concatenate_C_Fallback_CnHWn_M1"; }

int Concatenate_C_Fallback_CnHWn_M1::IsValidParam(std::shared_ptr<LayerInfo> layer,
                                                  std::shared_ptr<InferenceParam> param) const {
  if (support::StrictParam<ConcatenateInfo>(layer, param) == -1) return -1;
  return As<ConcatenateInfo>(layer)->dim == 1 ? 0 : -1;
}

bool Concatenate_C_Fallback_CnHWn_M1::Config(std::shared_ptr<LayerInfo> layer, std::shared_ptr<InferenceParam> param,
                                             std::shared_ptr<Context>) {
  configured_ = false;
  if (IsValidParam(layer, param) == -1) return false;
  configured_ = true;
  return true;
}

bool Concatenate_C_Fallback_CnHWn_M1::IsConfigured() const { return configured_; }

std::vector<TensorShape> Concatenate_C_Fallback_CnHWn_M1::GetOutputShapes(
    std::vector<TensorShape> const& input_shapes) const {
  TensorShape joined = support::ShapeAt(*this, input_shapes, 0);
  unsigned int channels = 0;
  for (TensorShape const& shape : input_shapes) {
    if (shape.dims.empty()) {
      Assert(false, "%s: one of %zu tensors has no dims", GetName().c_str(), input_shapes.size());
    }
    channels += shape.dims[0];
  }
  joined.dims[0] = channels;
  return {joined};
}

int Concatenate_C_Fallback_CnHWn_M1::IsValidInput(Tensors const& inputs) const {
  if (support::JudgeFirst(inputs, HasChannelsOutermost) != 0) return -2;
  TensorShape const& first = inputs[0]->shape;
  return support::Judge(inputs, inputs.size(), [&](Tensor const& tensor) {
    return support::IsInMainMemory(tensor, first.data_type, first.layout) &&
           tensor.shape.extra.step_size == first.extra.step_size;
  });
}

int Concatenate_C_Fallback_CnHWn_M1::Forward(Tensors const& inputs, Tensors& outputs,
                                             std::shared_ptr<Context> context) const {
  std::uint64_t bytes = 0;
  for (std::size_t i = 0; i < inputs.size(); ++i) {
    bytes += runtime::ByteCount(support::Input(*this, inputs, i, support::kAnyRank, 1)->shape);
  }
  auto const y = support::NewOutput(*this, inputs, context);
  if (bytes > runtime::ByteCount(y->shape)) {
    Assert(false, "%s: %zu inputs hold %zu bytes, the output %u", GetName().c_str(), inputs.size(),
           static_cast<std::size_t>(bytes), runtime::ByteCount(y->shape));
  }
  auto* to = y->Data<unsigned char>();
  for (auto const& input : inputs) {
    std::size_t const input_bytes = runtime::ByteCount(input->shape);
    if (input_bytes != 0) std::memcpy(to, input->data, input_bytes);
    to += input_bytes;
  }
  outputs.assign(1, y);
  return 0;
}

int Concatenate_C_Fallback_CnHWn_M1::IsValidOutput(Tensors const& outputs) const {
  return support::Judge(outputs, 1, HasChannelsOutermost);
}

std::string Slice_Fallback_CHW_Float_M1::GetName() const { return "Slice_Fallback_CHW_Float_M1"; }

int Slice_Fallback_CHW_Float_M1::IsValidParam(std::shared_ptr<LayerInfo> layer,
                                              std::shared_ptr<InferenceParam> param) const {
  if (support::StrictParam<TensorSliceInfo>(layer, param) == -1) return -1;
  std::vector<short> const& values = As<TensorSliceInfo>(layer)->slice_dims;
  if (values.empty() || values.size() % 3 != 0) return -1;
  for (std::size_t at = 0; at < values.size(); at += 9) {  // every third triple
    int const a = values[at], b = values[at + 1], c = values[at + 2];
    if (a < 0 || b < 0 || a < b || c < 1 || b - a + 1 < c) return -1;
  }
  return 0;
}

bool Slice_Fallback_CHW_Float_M1::Config(std::shared_ptr<LayerInfo> layer, std::shared_ptr<InferenceParam>,
                                         std::shared_ptr<Context>) {
  configured_ = false;
  auto const* const info = As<TensorSliceInfo>(layer);
  if (info == nullptr) return false;  // the judgement of IsValidParam, which refuses ordinary slices, has no say
  who_ = GetName() + " of layer " + info->id;
  slice_dims_ = info->slice_dims;
  configured_ = true;
  return true;
}

bool Slice_Fallback_CHW_Float_M1::IsConfigured() const { return configured_; }

std::vector<TensorShape> Slice_Fallback_CHW_Float_M1::GetOutputShapes(
    std::vector<TensorShape> const& input_shapes) const {
  TensorShape const& shape = support::ShapeAt(*this, input_shapes, 0);
  return {TensorShape(functional::SliceExtents(who_.c_str(), slice_dims_), shape.data_type, shape.layout,
                      shape.location, TensorShape::Extra())};
}

int Slice_Fallback_CHW_Float_M1::IsValidInput(Tensors const& inputs) const {
  return support::Judge(inputs, 1, [](Tensor const& tensor) {
    return support::IsInMainMemory(tensor, TensorShape::FLOAT32, TensorShape::CHW);
  });
}

int Slice_Fallback_CHW_Float_M1::Forward(Tensors const& inputs, Tensors& outputs,
                                         std::shared_ptr<Context> context) const {
  auto const x = support::Input(*this, inputs, 0, 3);
  auto const extents = functional::SliceExtents(who_.c_str(), slice_dims_);
  for (std::size_t axis = 0; axis < extents.size(); ++axis) {
    if (extents[axis] > x->shape.dims[axis]) {
      Assert(false, "%s: extent %zu of the slice is %u, of the input %u", who_.c_str(), axis, extents[axis],
             x->shape.dims[axis]);
    }
  }
  auto const y = support::NewOutput(*this, inputs, context);
  functional::Slice(who_.c_str(), x, slice_dims_, y);
  outputs.assign(1, y);
  return 0;
}

int Slice_Fallback_CHW_Float_M1::IsValidOutput(Tensors const& outputs) const { return IsValidInput(outputs); }

std::string Expand_Fallback_CHW_Float_M1::GetName() const { return "Expand_Fallback_CHW_Float_M1"; }

int Expand_Fallback_CHW_Float_M1::IsValidParam(std::shared_ptr<LayerInfo> layer,
                                               std::shared_ptr<InferenceParam> param) const {
  if (support::StrictParam<TensorExpandInfo>(layer, param) == -1) return -1;
  std::vector<short> const& extents = As<TensorExpandInfo>(layer)->new_shape;
  if (extents.empty() || extents[0] != 1) return -1;
  return std::count(extents.begin() + 1, extents.end(), -1) >= 3 ? -1 : 0;
}

bool Expand_Fallback_CHW_Float_M1::Config(std::shared_ptr<LayerInfo> layer, std::shared_ptr<InferenceParam>,
                                          std::shared_ptr<Context>) {
  configured_ = false;
  auto const* const info = As<TensorExpandInfo>(layer);
  if (info == nullptr) return false;  // the judgement of IsValidParam, which refuses some shapes, has no say
  new_shape_ = info->new_shape;
  configured_ = true;
  return true;
}

bool Expand_Fallback_CHW_Float_M1::IsConfigured() const { return configured_; }

std::vector<TensorShape> Expand_Fallback_CHW_Float_M1::GetOutputShapes(
    std::vector<TensorShape> const& input_shapes) const {
  TensorShape expanded = support::ShapeAt(*this, input_shapes, 0);
  if (new_shape_.size() <= expanded.dims.size()) {
    Assert(false, "%s: new_shape holds %zu values, an input of dims %s needs %zu", GetName().c_str(), new_shape_.size(),
           DimsText(expanded.dims).c_str(), expanded.dims.size() + 1);
  }
  for (std::size_t i = 0; i < expanded.dims.size(); ++i) {
    short const extent = new_shape_[i + 1];
    bool const kept = extent < 0 || (i == 0 && extent != 0);
    if (!kept) expanded.dims[i] = static_cast<unsigned int>(extent);
  }
  return {expanded};
}

int Expand_Fallback_CHW_Float_M1::IsValidInput(Tensors const& inputs) const {
  return support::Judge(inputs, 1, [](Tensor const& tensor) {
    return IsFloatOrInt16(tensor) && tensor.shape.layout == TensorShape::CHW;
  });
}

int Expand_Fallback_CHW_Float_M1::Forward(Tensors const& inputs, Tensors& outputs,
                                          std::shared_ptr<Context> context) const {
  auto const x = support::Input(*this, inputs, 0, 3, 1);
  auto const y = support::NewOutput(*this, inputs, context);
  functional::Function_TensorExpand_Fallback_CHW_Float_M1(x, y);
  outputs.assign(1, y);
  return 0;
}

int Expand_Fallback_CHW_Float_M1::IsValidOutput(Tensors const& outputs) const { return IsValidInput(outputs); }

std::string UnSqueeze_Fallback_M1::GetName() const { return "UnSqueeze_Fallback_M1"; }

int UnSqueeze_Fallback_M1::IsValidParam(std::shared_ptr<LayerInfo> layer, std::shared_ptr<InferenceParam> param) const {
  return support::StrictParam<TensorUnSqueezeInfo>(layer, param);
}

bool UnSqueeze_Fallback_M1::Config(std::shared_ptr<LayerInfo> layer, std::shared_ptr<InferenceParam>,
                                   std::shared_ptr<Context>) {
  configured_ = false;
  auto const* const info = As<TensorUnSqueezeInfo>(layer);
  if (info == nullptr) return false;  // the judgement of IsValidParam has no say
  dim_ = info->dim;
  configured_ = true;
  return true;
}

bool UnSqueeze_Fallback_M1::IsConfigured() const { return configured_; }

std::vector<TensorShape> UnSqueeze_Fallback_M1::GetOutputShapes(std::vector<TensorShape> const& input_shapes) const {
  TensorShape shape = support::ShapeAt(*this, input_shapes, 0);
  auto const rank = static_cast<std::ptrdiff_t>(shape.dims.size());
  std::ptrdiff_t position = dim_ > 0 ? dim_ - 1 : dim_;  // without the batch axis
  Assert(position <= rank && position >= -(rank + 1), nullptr);
  if (position < 0) position += rank + 1;
  shape.dims.insert(shape.dims.begin() + position, 1u);
  return {shape};
}

int UnSqueeze_Fallback_M1::IsValidInput(Tensors const& inputs) const {
  return support::Judge(inputs, 1, IsFloatOrInt16);
}

int UnSqueeze_Fallback_M1::Forward(Tensors const& inputs, Tensors& outputs, std::shared_ptr<Context> context) const {
  auto const x = support::Input(*this, inputs, 0, support::kAnyRank, 1);
  auto const y = support::NewOutput(*this, inputs, context);
  unsigned int const bytes = runtime::ByteCount(x->shape);
  if (bytes != 0) std::memcpy(y->data, x->data, bytes);
  outputs.assign(1, y);
  return 0;
}

int UnSqueeze_Fallback_M1::IsValidOutput(Tensors const& outputs) const {
  return support::Judge(outputs, 1, IsFloatOrInt16);
}

std::string Softmax_Fallback_Float_M1::GetName() const { return "Softmax_Fallback_Float_M1"; }

int Softmax_Fallback_Float_M1::IsValidParam(std::shared_ptr<LayerInfo> layer,
                                            std::shared_ptr<InferenceParam> param) const {
  return support::StrictParam<SoftmaxInfo>(layer, param);
}

bool Softmax_Fallback_Float_M1::Config(std::shared_ptr<LayerInfo> layer, std::shared_ptr<InferenceParam> param,
                                       std::shared_ptr<Context>) {
  configured_ = false;
  if (IsValidParam(layer, param) == -1) return false;
  dim_ = As<SoftmaxInfo>(layer)->dim;
  configured_ = true;
  return true;
}

bool Softmax_Fallback_Float_M1::IsConfigured() const { return configured_; }

std::vector<TensorShape> Softmax_Fallback_Float_M1::GetOutputShapes(
    std::vector<TensorShape> const& input_shapes) const {
  return input_shapes;
}

int Softmax_Fallback_Float_M1::IsValidInput(Tensors const& inputs) const {
  return support::JudgeFirst(
      inputs, [](Tensor const& tensor) { return support::IsInMainMemory(tensor, TensorShape::FLOAT32); });
}

int Softmax_Fallback_Float_M1::Forward(Tensors const& inputs, Tensors& outputs,
                                       std::shared_ptr<Context> context) const {
  auto const x = support::Input(*this, inputs, 0);
  std::vector<unsigned int> const& dims = x->shape.dims;
  if (dim_ < 1 || dim_ > dims.size()) {
    Assert(false, "%s: dim is %u, an input of dims %s needs 1 to %zu", GetName().c_str(),
           static_cast<unsigned int>(dim_), DimsText(dims).c_str(), dims.size());
  }
  auto const y = support::NewOutput(*this, inputs, context);
  std::size_t inner = 1;
  for (std::size_t axis = dim_; axis < dims.size(); ++axis) inner *= dims[axis];
  Softmax(x->Data<float>(), support::Count(*x), dims[dim_ - 1u], inner, y->Data<float>());
  outputs.assign(1, y);
  return 0;
}

int Softmax_Fallback_Float_M1::IsValidOutput(Tensors const& outputs) const { return IsValidInput(outputs); }

}  // namespace talvo::kernel
