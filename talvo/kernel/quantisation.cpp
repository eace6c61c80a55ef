#include "talvo/kernel/quantisation.h"

#include <algorithm>
#include <cstddef>

#include "talvo/kernel/functional/quantisation.h"
#include "talvo/kernel/kernel_support.h"
#include "talvo/serialization/inference_param.h"
#include "talvo/serialization/layer_info.h"

namespace talvo::kernel {

using runtime::TensorShape;
using support::ContextPtr;
using support::Tensors;
using LayerPtr = std::shared_ptr<runtime::LayerInfo>;
using ParamPtr = std::shared_ptr<runtime::InferenceParam>;
using Shapes = std::vector<TensorShape>;

namespace {

// Any number of tensors, none included.
int JudgeAll(Tensors const& tensors, unsigned int data_type) {
  return support::Judge(tensors, tensors.size(), [data_type](runtime::Tensor const& tensor) {
    return support::IsInMainMemory(tensor, data_type);
  });
}

Shapes Retyped(Shapes const& shapes, unsigned int data_type, short step) {
  Shapes retyped;
  for (TensorShape const& shape : shapes) {
    retyped.emplace_back(shape.dims, data_type, shape.layout, shape.location, TensorShape::Extra());
    retyped.back().extra.step_size = step;
  }
  return retyped;
}

}  // namespace

struct FixedPoint16 {
  static constexpr unsigned int kDataType = TensorShape::INT16;
  static constexpr char const* kQuantitation = "Quantitation_MainMemory_Float_to_Int16_Fallback_M1";
  static constexpr char const* kDequantitation = "Dequantitation_MainMemory_Int16_to_Float_Fallback_M1";
  static constexpr auto Quantise = functional::Quantitation_MainMemory_Float_to_Int16_Fallback_M1;
  static constexpr auto Dequantise = functional::Dequantitation_MainMemory_Int16_to_Float_Fallback_M1;
};

struct FixedPoint8 {
  static constexpr unsigned int kDataType = TensorShape::INT8;
  static constexpr char const* kQuantitation = "Quantitation_MainMemory_Float_to_Int8_Fallback_M1";
  static constexpr char const* kDequantitation = "Dequantitation_MainMemory_Int8_to_Float_Fallback_M1";
  static constexpr auto Quantise = functional::Quantitation_MainMemory_Float_to_Int8_Fallback_M1;
  static constexpr auto Dequantise = functional::Dequantitation_MainMemory_Int8_to_Float_Fallback_M1;
};

template <class Target>
std::string Quantitation<Target>::GetName() const {
  return Target::kQuantitation;
}

template <class Target>
int Quantitation<Target>::IsValidParam(LayerPtr layer, ParamPtr param) const {
  auto const quant = std::dynamic_pointer_cast<runtime::InferenceParamActQuant>(param);
  return layer == nullptr && quant != nullptr && quant->output_step_size >= 8 && quant->output_step_size <= 12 ? 0 : -1;
}

template <class Target>
bool Quantitation<Target>::Config(LayerPtr layer, ParamPtr param, ContextPtr) {
  configured_ = false;
  if (IsValidParam(layer, param) == -1) return false;
  output_step_size_ = static_cast<runtime::InferenceParamActQuant const&>(*param).output_step_size;
  configured_ = true;
  return true;
}

template <class Target>
bool Quantitation<Target>::IsConfigured() const {
  return configured_;
}

template <class Target>
Shapes Quantitation<Target>::GetOutputShapes(Shapes const& input_shapes) const {
  return Retyped(input_shapes, Target::kDataType, output_step_size_);
}

template <class Target>
int Quantitation<Target>::IsValidInput(Tensors const& inputs) const {
  return JudgeAll(inputs, TensorShape::FLOAT32);
}

template <class Target>
int Quantitation<Target>::Forward(Tensors const& inputs, Tensors& outputs, ContextPtr context) const {
  for (std::size_t i = 0; i < inputs.size(); ++i) {
    auto const input = support::Input(*this, inputs, i);
    support::Device(*this, context);
    outputs.push_back(Target::Quantise(input, output_step_size_, context->device_cpu));
  }
  return 0;
}

template <class Target>
int Quantitation<Target>::IsValidOutput(Tensors const& outputs) const {
  return JudgeAll(outputs, Target::kDataType);
}

template class Quantitation<FixedPoint16>;
template class Quantitation<FixedPoint8>;

template <class Source>
std::string Dequantitation<Source>::GetName() const {
  return Source::kDequantitation;
}

template <class Source>
int Dequantitation<Source>::IsValidParam(LayerPtr layer, ParamPtr param) const {
  return layer == nullptr && param == nullptr ? 0 : -1;
}

template <class Source>
bool Dequantitation<Source>::Config(LayerPtr layer, ParamPtr param, ContextPtr) {
  configured_ = IsValidParam(layer, param) != -1;
  return configured_;
}

template <class Source>
bool Dequantitation<Source>::IsConfigured() const {
  return configured_;
}

template <class Source>
Shapes Dequantitation<Source>::GetOutputShapes(Shapes const& input_shapes) const {
  return Retyped(input_shapes, TensorShape::FLOAT32, 0);
}

template <class Source>
int Dequantitation<Source>::IsValidInput(Tensors const& inputs) const {
  return JudgeAll(inputs, Source::kDataType);
}

template <class Source>
int Dequantitation<Source>::Forward(Tensors const& inputs, Tensors& outputs, ContextPtr context) const {
  for (std::size_t i = 0; i < inputs.size(); ++i) {
    auto const input = support::Input(*this, inputs, i, support::kAnyRank, 1);
    support::Device(*this, context);
    outputs.push_back(Source::Dequantise(input, context->device_cpu));
  }
  return 0;
}

template <class Source>
int Dequantitation<Source>::IsValidOutput(Tensors const& outputs) const {
  return JudgeAll(outputs, TensorShape::FLOAT32);
}

template class Dequantitation<FixedPoint16>;
template class Dequantitation<FixedPoint8>;

}  // namespace talvo::kernel
