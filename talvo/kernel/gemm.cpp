#include "talvo/kernel/gemm.h"

#include <cstdint>

#include "talvo/kernel/functional/gemm.h"
#include "talvo/kernel/kernel_support.h"
#include "talvo/kernel/padding.h"
#include "talvo/kernel/sgemm.h"
#include "talvo/serialization/layer_info_conv.h"
#include "talvo/utility/log.h"

namespace talvo::kernel {
namespace {

using runtime::TensorShape;
using support::ContextPtr;
using support::Tensors;
using utility::Assert;

int JudgeVector(Tensors const& tensors, unsigned int features) {
  return support::Judge(tensors, 1, [features](runtime::Tensor const& tensor) {
    return support::IsInMainMemory(tensor, TensorShape::FLOAT32, TensorShape::C) && !tensor.shape.dims.empty() &&
           tensor.shape.dims[0] == features;
  });
}

constexpr char const* kPointwise = "Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1";

bool IsFloats(support::TensorPtr const& tensor) {
  return tensor != nullptr && tensor->data != nullptr && tensor->shape.data_type <= TensorShape::UINT8 &&
         runtime::ElementSize(tensor->shape.data_type) >= sizeof(float);
}

bool IsPointwise(runtime::Conv2dInfo const& info) {
  bool const unit = info.kernel_x == 1 && info.kernel_y == 1 && info.stride_x == 1 && info.stride_y == 1 &&
                    info.dilation_x == 1 && info.dilation_y == 1;
  bool const padded = info.padding_l != 0 || info.padding_t != 0 || info.padding_r != 0 || info.padding_b != 0;
  return unit && !padded && info.in_channels != 0 && info.out_channels != 0 && info.groups != 0;
}

}  // namespace

void Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1_Convolution(support::TensorPtr input, support::TensorPtr output,
                                                             support::TensorPtr weight) {
  Assert(IsFloats(input) && IsFloats(output) && IsFloats(weight),
         "%s_Convolution: input, output or weight is null, has no memory or elements of fewer than 4 bytes",
         kPointwise);
  auto const &x = input->shape.dims, &y = output->shape.dims;
  bool const fits = x.size() == 3 && y.size() == 3 && x[1] == y[1] && x[2] == y[2] &&
                    std::uint64_t{y[0]} * x[0] <= support::Count(*weight);
  if (!fits) {
    Assert(false, "%s_Convolution: input %s, output %s and weight %s do not fit", kPointwise,
           runtime::DimsText(x).c_str(), runtime::DimsText(y).c_str(), runtime::DimsText(weight->shape.dims).c_str());
  }
  Sgemm(static_cast<int>(y[0]), static_cast<int>(x[0]), static_cast<int>(y[1] * y[2]), 1.0f, weight->Data<float>(),
        input->Data<float>(), 0.0f, output->Data<float>());
}

std::string Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1::GetName() const { return kPointwise; }

int Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1::IsValidParam(std::shared_ptr<runtime::LayerInfo> layer,
                                                              std::shared_ptr<runtime::InferenceParam> param) const {
  auto const info = std::dynamic_pointer_cast<runtime::Conv2dInfo>(layer);
  return param == nullptr && info != nullptr && IsPointwise(*info) ? 0 : -1;
}

bool Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1::Config(std::shared_ptr<runtime::LayerInfo> layer,
                                                         std::shared_ptr<runtime::InferenceParam> param,
                                                         ContextPtr context) {
  configured_ = false;
  if (IsValidParam(layer, param) == -1) return false;
  auto const& info = dynamic_cast<runtime::Conv2dInfo const&>(*layer);
  layer_id_ = info.id;
  in_channels_ = info.in_channels;
  out_channels_ = info.out_channels;
  unsigned int const groups = info.groups;
  weight_ = support::DecodeWeights(*this, layer_id_, "weight", info.weight, {1, out_channels_, in_channels_, 1, 1},
                                   TensorShape::GNCHW, context);
  bias_ = nullptr;
  if (info.if_bias) {
    if (out_channels_ % groups != 0) {
      Assert(false, "%s of layer %s: a bias needs output channels, %u, that are a multiple of the groups, %u",
             kPointwise, layer_id_.c_str(), out_channels_, groups);
    }
    bias_ = support::DecodeWeights(*this, layer_id_, "bias", info.bias, {groups, out_channels_ / groups},
                                   TensorShape::GN, context);
  }
  configured_ = true;
  return true;
}

bool Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1::IsConfigured() const { return configured_; }

// (H + 0 + 0 - 1 * (1 - 1) - 1) / 1 + 1 is H, and 0 for 0 in arithmetic that wraps.
std::vector<TensorShape> Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1::GetOutputShapes(
    std::vector<TensorShape> const& input_shapes) const {
  TensorShape const& input = support::ShapeAt(*this, input_shapes, 0, 3);
  return {TensorShape({out_channels_, input.dims[1], input.dims[2]}, input.data_type, input.layout, input.location,
                      TensorShape::Extra())};
}

int Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1::IsValidInput(Tensors const& inputs) const {
  return support::Judge(inputs, 1, [](runtime::Tensor const& tensor) {
    return support::IsInMainMemory(tensor, TensorShape::FLOAT32, TensorShape::CHW) ||
           support::IsInMainMemory(tensor, TensorShape::FLOAT16, TensorShape::CHW);
  });
}

int Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1::Forward(Tensors const& inputs, Tensors& outputs,
                                                         ContextPtr context) const {
  if (!configured_) Assert(false, "%s: Forward before Config", kPointwise);
  auto const x = support::Input(*this, inputs, 0, 3);
  if (x->shape.dims[0] != in_channels_) {
    Assert(false, "%s of layer %s: input has dims %s, needs %u channels", kPointwise, layer_id_.c_str(),
           runtime::DimsText(x->shape.dims).c_str(), in_channels_);
  }
  auto const y = support::NewOutput(*this, inputs, context);
  Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1_Convolution(x, y, weight_);
  if (bias_ != nullptr) ADDBias_MainMemory_CHW_Float_Fallback_M1(y, bias_);
  outputs.assign(1, y);
  return 0;
}

int Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1::IsValidOutput(Tensors const& outputs) const {
  return support::Judge(outputs, 1, [](runtime::Tensor const& tensor) {
    return support::IsInMainMemory(tensor, TensorShape::FLOAT32, TensorShape::CHW);
  });
}

void FallbackFullConnectionStep::Run(float const* in, unsigned int in_count, unsigned int out_count,
                                     float const* weight, float const* bias, float* out) {
  functional::fullconnection_fallback_c_f32_m1(in, in_count, out_count, weight, bias, out);
}

void SgemmFullConnectionStep::Run(float const* in, unsigned int in_count, unsigned int out_count, float const* weight,
                                  float const* bias, float* out) {
  functional::fullconnection_sgemm_c_f32_m1(in, in_count, out_count, weight, bias, out);
}

template <class Step>
std::string FullConnection<Step>::GetName() const {
  return Step::kName;
}

template <class Step>
int FullConnection<Step>::IsValidParam(std::shared_ptr<runtime::LayerInfo> layer,
                                       std::shared_ptr<runtime::InferenceParam> param) const {
  auto const info = std::dynamic_pointer_cast<runtime::FullConnectionInfo>(layer);
  return param == nullptr && info != nullptr && info->in_features != 0 && info->out_features != 0 ? 0 : -1;
}

template <class Step>
bool FullConnection<Step>::Config(std::shared_ptr<runtime::LayerInfo> layer,
                                  std::shared_ptr<runtime::InferenceParam> param, ContextPtr context) {
  configured_ = false;
  if (IsValidParam(layer, param) == -1) return false;
  auto const& info = dynamic_cast<runtime::FullConnectionInfo const&>(*layer);
  layer_id_ = info.id;
  in_features_ = info.in_features;
  out_features_ = info.out_features;
  weight_ = support::DecodeWeights(*this, layer_id_, "weight", info.weight, {out_features_, in_features_},
                                   TensorShape::FLEXIABLE, context);
  bias_ = info.if_bias ? support::DecodeWeights(*this, layer_id_, "bias", info.bias, {out_features_},
                                                TensorShape::FLEXIABLE, context)
                       : nullptr;
  configured_ = true;
  return true;
}

template <class Step>
bool FullConnection<Step>::IsConfigured() const {
  return configured_;
}

template <class Step>
std::vector<TensorShape> FullConnection<Step>::GetOutputShapes(std::vector<TensorShape> const& input_shapes) const {
  TensorShape const& input = support::ShapeAt(*this, input_shapes, 0);
  return {TensorShape({out_features_}, input.data_type, TensorShape::C, input.location, TensorShape::Extra())};
}

template <class Step>
int FullConnection<Step>::IsValidInput(Tensors const& inputs) const {
  return JudgeVector(inputs, in_features_);
}

template <class Step>
int FullConnection<Step>::Forward(Tensors const& inputs, Tensors& outputs, ContextPtr context) const {
  if (!configured_) Assert(false, "%s: Forward before Config", Step::kName);
  auto const x = support::Input(*this, inputs, 0);
  if (support::Count(*x) < in_features_) {
    Assert(false, "%s of layer %s: input has dims %s, needs %u elements", Step::kName, layer_id_.c_str(),
           runtime::DimsText(x->shape.dims).c_str(), in_features_);
  }
  auto const y = support::NewOutput(*this, inputs, context);
  Step::Run(x->template Data<float>(), in_features_, out_features_, weight_->template Data<float>(),
            bias_ != nullptr ? bias_->template Data<float>() : nullptr, y->template Data<float>());
  outputs.assign(1, y);
  return 0;
}

template <class Step>
int FullConnection<Step>::IsValidOutput(Tensors const& outputs) const {
  return JudgeVector(outputs, out_features_);
}

template class FullConnection<FallbackFullConnectionStep>;
template class FullConnection<SgemmFullConnectionStep>;

}  // namespace talvo::kernel
