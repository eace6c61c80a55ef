// Reshape kernels, and the reshape on tensors. Every kernel makes a new tensor and copies. The layer's new_shape counts
// a batch axis in front, which tensors do not have; each kernel says how it gets rid of it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "talvo/runtime/context.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/kernel.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/utility/export.h"

namespace talvo::kernel {

/// Copies the elements in their order. An entry of new_shape below 1 stands for total / (product of the entries other
/// than -1). Forward copies the leading elements that a new output holds, and all of the input into an output that the
/// caller gives. Assert: an entry 0 in that product, an output longer than the input, a given one that is too small.
template <class Target>
class TALVO_API GeneralReshape : public runtime::IKernel {
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
  std::vector<int> new_shape_;
  unsigned int known_product_ = 1;
};

struct ToC;         // drops an entry 0 of 1 from two entries
struct ToCHW;       // drops an entry 0 of 1 from four entries
struct ToSC;        // drops entry 0 or else entry 1, whichever is 1, from three entries
struct ToFlexible;  // drops entry 0, whatever it holds

extern template class GeneralReshape<ToC>;
extern template class GeneralReshape<ToCHW>;
extern template class GeneralReshape<ToSC>;
extern template class GeneralReshape<ToFlexible>;

using Reshape_Fallback_To_C_M1 = GeneralReshape<ToC>;
using Reshape_Fallback_To_CHW_M1 = GeneralReshape<ToCHW>;
using Reshape_Fallback_To_SC_M1 = GeneralReshape<ToSC>;
using Transform_MainMemory_Reshape_Fallback = GeneralReshape<ToFlexible>;

/// Takes blocked channels apart, C4HW4 or C8HW8 to plain order with the padded lanes, or copies plain ones. The output
/// keeps the input's Extra; one entry of -1 stands for what the others leave. Assert: an output that does not hold the
/// input's elements, a blocked input whose last extent is not its block.
template <class Step>
class TALVO_API UnblockingReshape : public runtime::IKernel {
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
  std::vector<short> new_shape_;
};

struct CnHWnToC;
struct CnHWnToCL;
struct CLToCHW;

extern template class UnblockingReshape<CnHWnToC>;
extern template class UnblockingReshape<CnHWnToCL>;
extern template class UnblockingReshape<CLToCHW>;

using Reshape_Fallback_CnHWn_To_C_M1 = UnblockingReshape<CnHWnToC>;
using Reshape_Fallback_CnHWn_To_CL_M1 = UnblockingReshape<CnHWnToCL>;
using Reshape_Fallback_CL_To_CHW_M1 = UnblockingReshape<CLToCHW>;

namespace functional {

/// A new FLEXIABLE tensor of `device` with these dims and the input's leading elements; step size 0. One entry below 1
/// stands for all that remains. Assert: a null input or device; without a text, two such entries and a product of the
/// others that is above the element count or does not divide it.
TALVO_API std::shared_ptr<runtime::TensorCPU> Transform_MainMemory_Reshape_Fallback(
    std::shared_ptr<runtime::TensorCPU> const& input, std::vector<int> const& new_shape,
    std::shared_ptr<runtime::DeviceCPU> const& device);

}  // namespace functional

}  // namespace talvo::kernel
