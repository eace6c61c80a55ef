// Converters between float tensors and fixed-point ones. They stand between layers, so they take no layer, and convert
// every input that they are given.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "talvo/runtime/context.h"
#include "talvo/runtime/kernel.h"
#include "talvo/utility/export.h"

namespace talvo::kernel {

/// Takes an InferenceParamActQuant with an output_step_size from 8 to 12, which becomes the outputs' step size. Forward
/// appends one output for each input. Assert: what the free form refuses.
template <class Target>
class TALVO_API Quantitation : public runtime::IKernel {
 public:
  std::string GetName() const override;
  int IsValidParam(std::shared_ptr<runtime::LayerInfo> layer,
                   std::shared_ptr<runtime::InferenceParam> param) const override;
  bool Config(std::shared_ptr<runtime::LayerInfo> layer, std::shared_ptr<runtime::InferenceParam> param,
              std::shared_ptr<runtime::Context> context) override;
  bool IsConfigured() const override;
  std::vector<runtime::TensorShape> GetOutputShapes(
      std::vector<runtime::TensorShape> const& input_shapes) const override;
  int IsValidInput(std::vector<std::shared_ptr<runtime::Tensor>> const& inputs) const override;
  int Forward(std::vector<std::shared_ptr<runtime::Tensor>> const& inputs,
              std::vector<std::shared_ptr<runtime::Tensor>>& outputs,
              std::shared_ptr<runtime::Context> context) const override;
  int IsValidOutput(std::vector<std::shared_ptr<runtime::Tensor>> const& outputs) const override;

 private:
  bool configured_ = false;
  short output_step_size_ = 0;
};

/// Takes no parameter; the step size comes from each input tensor. Forward appends one output for each input. Assert:
/// what the free form refuses.
template <class Source>
class TALVO_API Dequantitation : public runtime::IKernel {
 public:
  std::string GetName() const override;
  int IsValidParam(std::shared_ptr<runtime::LayerInfo> layer,
                   std::shared_ptr<runtime::InferenceParam> param) const override;
  bool Config(std::shared_ptr<runtime::LayerInfo> layer, std::shared_ptr<runtime::InferenceParam> param,
              std::shared_ptr<runtime::Context> context) override;
  bool IsConfigured() const override;
  std::vector<runtime::TensorShape> GetOutputShapes(
      std::vector<runtime::TensorShape> const& input_shapes) const override;
  int IsValidInput(std::vector<std::shared_ptr<runtime::Tensor>> const& inputs) const override;
  int Forward(std::vector<std::shared_ptr<runtime::Tensor>> const& inputs,
              std::vector<std::shared_ptr<runtime::Tensor>>& outputs,
              std::shared_ptr<runtime::Context> context) const override;
  int IsValidOutput(std::vector<std::shared_ptr<runtime::Tensor>> const& outputs) const override;

 private:
  bool configured_ = false;
};

struct FixedPoint16;
struct FixedPoint8;

extern template class Quantitation<FixedPoint16>;
extern template class Quantitation<FixedPoint8>;
extern template class Dequantitation<FixedPoint16>;
extern template class Dequantitation<FixedPoint8>;

using Quantitation_MainMemory_Float_to_Int16_Fallback_M1 = Quantitation<FixedPoint16>;
using Quantitation_MainMemory_Float_to_Int8_Fallback_M1 = Quantitation<FixedPoint8>;
using Dequantitation_MainMemory_Int16_to_Float_Fallback_M1 = Dequantitation<FixedPoint16>;
using Dequantitation_MainMemory_Int8_to_Float_Fallback_M1 = Dequantitation<FixedPoint8>;

}  // namespace talvo::kernel
