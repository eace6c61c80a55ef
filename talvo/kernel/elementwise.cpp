#include "talvo/kernel/elementwise.h"

#include <algorithm>
#include <cstddef>
#include <functional>
#include <iterator>
#include <utility>

#include "talvo/kernel/functional/elementwise.h"
#include "talvo/kernel/kernel_support.h"
#include "talvo/kernel/rows/elementwise_rows.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "talvo/utility/log.h"

namespace talvo::kernel {
namespace {

using runtime::BroadcastOperatorInfo;
using runtime::Context;
using runtime::DimsText;
using runtime::ElementWiseOperatorInfo;
using runtime::InferenceParam;
using runtime::LayerInfo;
using runtime::Tensor;
using runtime::TensorArithmeticInfo;
using runtime::TensorShape;
using support::Tensors;
using utility::Assert;

using Dims = std::vector<unsigned int>;

constexpr unsigned int kRemoved = 0xFFFFFFFF;  // the mark of an axis that a reduction takes away

constexpr unsigned short kOperationCount = 6;  // of rows::Operation

// The operation with this name, which Config chose.
rows::Operation OperationOf(std::string const& name) {
  if (name == "Add") return rows::Operation::kAdd;
  if (name == "Sub") return rows::Operation::kSub;
  if (name == "Mul") return rows::Operation::kMul;
  return rows::Operation::kDiv;
}

// An axis of a broadcast, with the steps of the operands in elements: 0 where an operand is repeated.
struct Axis {
  std::size_t extent, a_step, b_step;
};

// The axes of the output, innermost first; axes that all three tensors walk without a gap become one. No extent is 0.
std::vector<Axis> BroadcastAxes(Dims const& a, Dims const& b, Dims const& y) {
  std::vector<Axis> axes = {{1, 1, 1}};
  std::size_t a_stride = 1, b_stride = 1;
  for (std::size_t i = y.size(); i-- > 0; a_stride *= a[i], b_stride *= b[i]) {
    if (y[i] == 1) continue;
    Axis const axis = {y[i], a[i] == y[i] ? a_stride : 0, b[i] == y[i] ? b_stride : 0};
    Axis& inner = axes.back();
    if (inner.extent == 1) {
      inner = axis;
    } else if (axis.a_step == inner.a_step * inner.extent && axis.b_step == inner.b_step * inner.extent) {
      inner.extent *= axis.extent;
    } else {
      axes.push_back(axis);
    }
  }
  return axes;
}

// Walks `count` axes, the last being the outermost, and returns the end in y.
float* Combine(rows::Operation operation, Axis const* axes, std::size_t count, float const* a, float const* b,
               float* y) {
  Axis const axis = axes[count - 1];
  if (count == 1) {
    rows::CombineRow(operation, {a, axis.a_step == 0}, {b, axis.b_step == 0}, axis.extent, y);
    return y + axis.extent;
  }
  for (std::size_t i = 0; i < axis.extent; ++i, a += axis.a_step, b += axis.b_step) {
    y = Combine(operation, axes, count - 1, a, b, y);
  }
  return y;
}

// `dims` with extents of 1 in front, up to `rank`.
Dims Extended(Dims dims, std::size_t rank) {
  dims.insert(dims.begin(), rank - std::min(rank, dims.size()), 1u);
  return dims;
}

// Whether the extents, aligned at the last, are equal or 1 wherever both are given.
bool AreCompatible(Dims const& a, Dims const& b) {
  for (std::size_t i = 1; i <= std::min(a.size(), b.size()); ++i) {
    unsigned int const a_extent = a[a.size() - i], b_extent = b[b.size() - i];
    if (a_extent != 1 && b_extent != 1 && a_extent != b_extent) return false;
  }
  return true;
}

// The tensor's axis for an axis of the model, which counts a batch; -1 stays for the last.
short TensorAxis(short model_axis) { return model_axis > 0 ? static_cast<short>(model_axis - 1) : model_axis; }

unsigned int LayoutOfRank(std::size_t rank) {
  constexpr unsigned int kLayouts[] = {TensorShape::FLEXIABLE, TensorShape::C, TensorShape::SC, TensorShape::CHW};
  return rank <= 3 ? kLayouts[rank] : static_cast<unsigned int>(TensorShape::FLEXIABLE);
}

bool IsFloatOrInt16(Tensor const& tensor) {
  return support::IsInMainMemory(tensor, TensorShape::FLOAT32) || support::IsInMainMemory(tensor, TensorShape::INT16);
}

}  // namespace

std::string Elementwise_Fallback_Float_M1::GetName() const { return "Elementwise_Fallback_Float_M1"; }

int Elementwise_Fallback_Float_M1::IsValidParam(std::shared_ptr<LayerInfo> layer,
                                                std::shared_ptr<InferenceParam> param) const {
  return support::StrictParam<ElementWiseOperatorInfo>(layer, param);
}

bool Elementwise_Fallback_Float_M1::Config(std::shared_ptr<LayerInfo> layer, std::shared_ptr<InferenceParam> param,
                                           std::shared_ptr<Context>) {
  configured_ = false;
  if (IsValidParam(layer, param) == -1) return false;
  constexpr char const* kOperations[] = {"Add", "Sub", "Mul", "Div"};
  layer_id_ = layer->id;
  unsigned short const op_type = dynamic_cast<ElementWiseOperatorInfo const&>(*layer).op_type;
  Assert(op_type < std::size(kOperations), "Invalid element wise type");
  operation_ = kOperations[op_type];
  configured_ = true;
  return true;
}

bool Elementwise_Fallback_Float_M1::IsConfigured() const { return configured_; }

std::vector<TensorShape> Elementwise_Fallback_Float_M1::GetOutputShapes(
    std::vector<TensorShape> const& input_shapes) const {
  return {support::ShapeAt(*this, input_shapes, 0)};
}

int Elementwise_Fallback_Float_M1::IsValidInput(Tensors const& inputs) const {
  return support::Judge(inputs, 2,
                        [](Tensor const& tensor) { return support::IsInMainMemory(tensor, TensorShape::FLOAT32); });
}

int Elementwise_Fallback_Float_M1::Forward(Tensors const& inputs, Tensors& outputs,
                                           std::shared_ptr<Context> context) const {
  auto const a = support::Input(*this, inputs, 0), b = support::Input(*this, inputs, 1);
  std::size_t const count = support::Count(*a);
  if (support::Count(*b) < count) {
    Assert(false, "%s of layer %s: the first operand has %zu elements, the second %zu", GetName().c_str(),
           layer_id_.c_str(), count, support::Count(*b));
  }
  if (operation_.empty()) Assert(false, "%s: no operation is configured", GetName().c_str());
  auto const y = support::NewOutput(*this, inputs, context);
  rows::CombineRow(OperationOf(operation_), {a->Data<float>(), false}, {b->Data<float>(), false}, count,
                   y->Data<float>());
  outputs.assign(1, y);
  return 0;
}

int Elementwise_Fallback_Float_M1::IsValidOutput(Tensors const& outputs) const {
  return support::JudgeOneFloat(outputs);
}

std::string BroadcastOperator_Fallback_Float_M1::GetName() const { return "BroadcastOperator_Fallback_Float_M1"; }

int BroadcastOperator_Fallback_Float_M1::IsValidParam(std::shared_ptr<LayerInfo> layer,
                                                      std::shared_ptr<InferenceParam> param) const {
  if (param != nullptr) return -1;
  layer_ = std::dynamic_pointer_cast<BroadcastOperatorInfo>(layer);
  return layer_ != nullptr ? 0 : -1;
}

bool BroadcastOperator_Fallback_Float_M1::Config(std::shared_ptr<LayerInfo> layer,
                                                 std::shared_ptr<InferenceParam> param, std::shared_ptr<Context>) {
  configured_ = false;
  configured_ = IsValidParam(layer, param) != -1;
  return configured_;
}

bool BroadcastOperator_Fallback_Float_M1::IsConfigured() const { return configured_; }

std::vector<TensorShape> BroadcastOperator_Fallback_Float_M1::GetOutputShapes(
    std::vector<TensorShape> const& input_shapes) const {
  TensorShape const& first = support::ShapeAt(*this, input_shapes, 0);
  TensorShape const& second = support::ShapeAt(*this, input_shapes, 1);
  std::size_t const rank = std::max(first.dims.size(), second.dims.size());
  Dims dims = Extended(first.dims, rank);
  Dims const other = Extended(second.dims, rank);
  for (std::size_t i = 0; i < rank; ++i) dims[i] = std::max(dims[i], other[i]);
  return {TensorShape(dims, first.data_type, first.layout, first.location, TensorShape::Extra())};
}

int BroadcastOperator_Fallback_Float_M1::IsValidInput(Tensors const& inputs) const {
  int const floats =
      support::Judge(inputs, 2, [](Tensor const& tensor) { return tensor.shape.data_type == TensorShape::FLOAT32; });
  if (floats != 0) return -2;
  TensorShape const &a = inputs[0]->shape, &b = inputs[1]->shape;
  bool const alike = a.location == b.location && a.extra.step_size == b.extra.step_size;
  return alike && AreCompatible(a.dims, b.dims) ? 0 : -2;
}

int BroadcastOperator_Fallback_Float_M1::Forward(Tensors const& inputs, Tensors& outputs,
                                                 std::shared_ptr<Context> context) const {
  if (layer_ == nullptr) Assert(false, "%s: no operation is configured", GetName().c_str());
  auto const a = support::Input(*this, inputs, 0), b = support::Input(*this, inputs, 1);
  auto const y = support::NewOutput(*this, inputs, context);
  if (support::Count(*y) != 0) {
    Dims const &a_dims = a->shape.dims, &b_dims = b->shape.dims, &dims = y->shape.dims;
    if (support::Count(*a) == 0 || support::Count(*b) == 0) {
      Assert(false, "%s of layer %s: operands of dims %s and %s, one has no elements", GetName().c_str(),
             layer_->id.c_str(), DimsText(a_dims).c_str(), DimsText(b_dims).c_str());
    }
    auto const axes = BroadcastAxes(Extended(a_dims, dims.size()), Extended(b_dims, dims.size()), dims);
    if (layer_->op_type >= kOperationCount) throw std::bad_function_call();
    Combine(static_cast<rows::Operation>(layer_->op_type), axes.data(), axes.size(), a->Data<float>(), b->Data<float>(),
            y->Data<float>());
  }
  outputs.assign(1, y);
  return 0;
}

int BroadcastOperator_Fallback_Float_M1::IsValidOutput(Tensors const& outputs) const {
  return support::JudgeOneFloat(outputs);
}

std::string TensorArithmetic_Fallback_M1::GetName() const { return "TensorArithmetic_Fallback_M1"; }

int TensorArithmetic_Fallback_M1::IsValidParam(std::shared_ptr<LayerInfo> layer,
                                               std::shared_ptr<InferenceParam> param) const {
  if (support::StrictParam<TensorArithmeticInfo>(layer, param) == -1) return -1;
  auto const& info = dynamic_cast<TensorArithmeticInfo const&>(*layer);
  Assert(info.arith_type <= 1, "Invalid arithmetic type");
  return info.dim.empty() || std::count(info.dim.begin(), info.dim.end(), -1) >= 2 ? -1 : 0;
}

bool TensorArithmetic_Fallback_M1::Config(std::shared_ptr<LayerInfo> layer, std::shared_ptr<InferenceParam> param,
                                          std::shared_ptr<Context>) {
  configured_ = false;
  if (IsValidParam(layer, param) == -1) return false;
  auto const& info = dynamic_cast<TensorArithmeticInfo const&>(*layer);
  layer_id_ = info.id;
  dim_ = info.dim;
  operation_ = info.arith_type == 0 ? "Sum" : "Mean";
  configured_ = true;
  return true;
}

bool TensorArithmetic_Fallback_M1::IsConfigured() const { return configured_; }

std::vector<TensorShape> TensorArithmetic_Fallback_M1::GetOutputShapes(
    std::vector<TensorShape> const& input_shapes) const {
  TensorShape const& shape = support::ShapeAt(*this, input_shapes, 0);
  Assert(shape.dims.size() >= dim_.size(), nullptr);
  Dims dims = shape.dims;
  for (short model_axis : dim_) {
    short const axis = TensorAxis(model_axis);
    if (axis == -1 && !dims.empty()) {
      dims.pop_back();
    } else {
      if (axis < 0 || static_cast<std::size_t>(axis) >= dims.size()) {
        Assert(false, "%s of layer %s: axis %d of dims %s", GetName().c_str(), layer_id_.c_str(), int{model_axis},
               DimsText(shape.dims).c_str());
      }
      dims[static_cast<std::size_t>(axis)] = kRemoved;
    }
  }
  dims.erase(std::remove(dims.begin(), dims.end(), kRemoved), dims.end());
  if (dims.empty()) dims.push_back(1);
  unsigned int const layout = LayoutOfRank(dims.size());
  return {TensorShape(std::move(dims), shape.data_type, layout, shape.location, TensorShape::Extra())};
}

int TensorArithmetic_Fallback_M1::IsValidInput(Tensors const& inputs) const {
  return support::Judge(inputs, 1, IsFloatOrInt16);
}

int TensorArithmetic_Fallback_M1::Forward(Tensors const& inputs, Tensors& outputs,
                                          std::shared_ptr<Context> context) const {
  auto const x = support::Input(*this, inputs, 0);
  Dims const& dims = x->shape.dims;
  if (x->shape.data_type != TensorShape::FLOAT32) {
    Assert(false, "%s of layer %s: data type %u, needs FLOAT32", GetName().c_str(), layer_id_.c_str(),
           x->shape.data_type);
  }
  auto const y = support::NewOutput(*this, inputs, context);
  std::vector<short> axes;
  for (short axis : dim_) axes.push_back(axis == -1 ? static_cast<short>(dims.size() - 1) : TensorAxis(axis));
  std::sort(axes.begin(), axes.end());
  auto const left = functional::ReducedDims(dims, axes);
  std::size_t const results = runtime::ElementCount(left), elements = support::Count(*y);
  if (results > elements) {
    Assert(false, "%s of layer %s: dims %s are reduced to %s, the output has %s", GetName().c_str(), layer_id_.c_str(),
           DimsText(dims).c_str(), DimsText(left).c_str(), DimsText(y->shape.dims).c_str());
  }
  std::fill_n(y->Data<float>() + results, elements - results, 0.0f);
  if (operation_ == "Mean") {
    functional::Function_TensorTensorArithmetic_Mean_Fallback_Float_M1(x->Data<float>(), y->Data<float>(), dims, axes);
  } else {
    if (operation_ != "Sum") Assert(false, "%s: no operation is configured", GetName().c_str());
    functional::Function_TensorTensorArithmetic_Sum_Fallback_Float_M1(x->Data<float>(), y->Data<float>(), dims, axes);
  }
  outputs.assign(1, y);
  return 0;
}

int TensorArithmetic_Fallback_M1::IsValidOutput(Tensors const& outputs) const {
  return support::Judge(outputs, 1, IsFloatOrInt16);
}

}  // namespace talvo::kernel
