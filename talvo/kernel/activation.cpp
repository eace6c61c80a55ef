#include "talvo/kernel/activation.h"

#include <cstring>

#include "talvo/kernel/functional/activation.h"
#include "talvo/kernel/kernel_support.h"
#include "talvo/serialization/layer_info_activation.h"
#include "talvo/utility/base64.h"
#include "talvo/utility/log.h"

namespace talvo::kernel {

using runtime::ActivationInfo;
using runtime::Context;
using runtime::InferenceParam;
using runtime::LayerInfo;
using runtime::TensorShape;
using support::Tensors;

template <class Step>
std::string Activation<Step>::GetName() const {
  return Step::kName;
}

template <class Step>
int Activation<Step>::IsValidParam(std::shared_ptr<LayerInfo> layer, std::shared_ptr<InferenceParam> param) const {
  return Step::kForm == ParamForm::kStrict ? support::StrictParam<ActivationInfo>(layer, param)
                                           : support::InvertedParam(layer, param);
}

template <class Step>
bool Activation<Step>::Config(std::shared_ptr<LayerInfo> layer, std::shared_ptr<InferenceParam> param,
                              std::shared_ptr<Context>) {
  configured_ = false;
  int const judgement = IsValidParam(layer, param);
  if (Step::kForm == ParamForm::kStrict ? judgement == -1 : judgement == 0) return false;
  configured_ = step_.Read(layer.get());
  return configured_;
}

template <class Step>
bool Activation<Step>::IsConfigured() const {
  return configured_;
}

template <class Step>
std::vector<TensorShape> Activation<Step>::GetOutputShapes(std::vector<TensorShape> const& input_shapes) const {
  return input_shapes;
}

template <class Step>
int Activation<Step>::IsValidInput(Tensors const& inputs) const {
  return support::JudgeOneFloat(inputs);
}

template <class Step>
int Activation<Step>::Forward(Tensors const& inputs, Tensors& outputs, std::shared_ptr<Context> context) const {
  support::TensorPtr const x = support::Input(*this, inputs, 0), y = support::NewOutput(*this, inputs, context);
  step_.Run(x->Data<float>(), runtime::ElementCount(x->shape.dims), y->Data<float>());
  outputs.assign(1, y);
  return 0;
}

template <class Step>
int Activation<Step>::IsValidOutput(Tensors const& outputs) const {
  return support::JudgeOneFloat(outputs);
}

bool NoParameters::Read(LayerInfo const*) { return true; }

void ReluStep::Run(float const* in, unsigned int count, float* out) const { functional::relu_f32(in, count, out); }

void Relu6Step::Run(float const* in, unsigned int count, float* out) const { functional::relu6_f32(in, count, out); }

void SigmoidStep::Run(float const* in, unsigned int count, float* out) const {
  functional::sigmoid_f32(in, count, out);
}

void TanhStep::Run(float const* in, unsigned int count, float* out) const { functional::tanh_f32(in, count, out); }

void HSigmoidStep::Run(float const* in, unsigned int count, float* out) const {
  functional::hsigmoid_f32(in, count, out);
}

void HSwishStep::Run(float const* in, unsigned int count, float* out) const { functional::hswish_f32(in, count, out); }

bool LeakyStep::Read(LayerInfo const* layer) {
  auto const* const info = dynamic_cast<ActivationInfo const*>(layer);
  if (info == nullptr) return false;
  alpha = info->activation_alpha;
  return true;
}

void LeakyStep::Run(float const* in, unsigned int count, float* out) const {
  functional::leaky_f32(in, count, alpha, out);
}

bool LinearStep::Read(LayerInfo const* layer) {
  auto const* const info = dynamic_cast<ActivationInfo const*>(layer);
  if (info == nullptr) return false;
  scale = info->activation_alpha;
  offset = info->activation_beta;
  return true;
}

void LinearStep::Run(float const* in, unsigned int count, float* out) const {
  functional::linear_f32(in, count, scale, offset, out);
}

template class Activation<ReluStep>;
template class Activation<Relu6Step>;
template class Activation<SigmoidStep>;
template class Activation<TanhStep>;
template class Activation<HSigmoidStep>;
template class Activation<HSwishStep>;
template class Activation<LeakyStep>;
template class Activation<LinearStep>;

std::string PReLU_Fallback_Float_M1::GetName() const { return "PReLU_Fallback_Float_M1"; }

int PReLU_Fallback_Float_M1::IsValidParam(std::shared_ptr<LayerInfo> layer,
                                          std::shared_ptr<InferenceParam> param) const {
  return support::InvertedParam(layer, param);
}

bool PReLU_Fallback_Float_M1::Config(std::shared_ptr<LayerInfo> layer, std::shared_ptr<InferenceParam> param,
                                     std::shared_ptr<Context>) {
  configured_ = false;
  if (IsValidParam(layer, param) == 0) return false;
  auto const* const info = dynamic_cast<ActivationInfo const*>(layer.get());
  if (info == nullptr || info->weight.empty()) return false;
  std::string const bytes = runtime::Base64Decode(info->weight);
  utility::Assert(bytes.size() >= sizeof slope_, "%s of layer %s: weight holds %zu bytes, the slope needs %zu",
                  GetName().c_str(), info->id.c_str(), bytes.size(), sizeof slope_);
  std::memcpy(&slope_, bytes.data(), sizeof slope_);
  configured_ = true;
  return true;
}

bool PReLU_Fallback_Float_M1::IsConfigured() const { return configured_; }

std::vector<TensorShape> PReLU_Fallback_Float_M1::GetOutputShapes(std::vector<TensorShape> const& input_shapes) const {
  return input_shapes;
}

int PReLU_Fallback_Float_M1::IsValidInput(Tensors const& inputs) const { return support::JudgeOneFloat(inputs); }

int PReLU_Fallback_Float_M1::Forward(Tensors const& inputs, Tensors& outputs, std::shared_ptr<Context>) const {
  std::shared_ptr<runtime::Tensor> inout = support::Input(*this, inputs, 0);
  functional::PReLU_F32(inout, slope_);
  if (&outputs != &inputs) outputs = inputs;
  return 0;
}

int PReLU_Fallback_Float_M1::IsValidOutput(Tensors const& outputs) const { return support::JudgeOneFloat(outputs); }

}  // namespace talvo::kernel
