// The permutation of a tensor's axes: kernel and form on tensors. The form on bare memory stands in kernel/native.
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

/// For TensorTransposeInfo, whose axes count a batch axis in front: the first entry is dropped, the others shift down
/// by one. The output is FLEXIABLE; an output that the caller gives receives the elements as it stands.
class TALVO_API Transform_MainMemory_Permute_Fallback : public runtime::IKernel {
 public:
  std::string GetName() const override;
  int IsValidParam(std::shared_ptr<runtime::LayerInfo> layer,
                   std::shared_ptr<runtime::InferenceParam> param) const override;
  /// Assert: an entry 0 behind the first.
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
  std::vector<unsigned int> axes_;
};

namespace functional {

/// A new FLEXIABLE tensor of `device` whose axis i is axis axes[i] of the input; step size 0. Assert: a null input or
/// device; too few, out of range or repeated axes.
TALVO_API std::shared_ptr<runtime::TensorCPU> Transform_MainMemory_Permute_Fallback(
    std::shared_ptr<runtime::TensorCPU> const& input, std::vector<unsigned int> const& axes,
    std::shared_ptr<runtime::DeviceCPU> const& device);

}  // namespace functional

}  // namespace talvo::kernel
