// The one class behind every kernel. A family's header forward-declares its operations and names their kernels:
//   struct ReluOperation;
//   extern template class TALVO_API KernelOf<ReluOperation>;
//   using ReLU_Fallback_Float_M1 = KernelOf<ReluOperation>;
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "talvo/runtime/kernel.h"
#include "talvo/utility/export.h"

namespace talvo::kernel {

/// A kernel that is its operation, which it owns. What the members do is told at the alias of each kernel; what they
/// have in common is this: Config asks IsValidParam first, and a kernel whose Config returned false or threw is not
/// configured. A Config after another one overwrites what the operation took from its layer. Forward of a kernel that
/// is not configured computes with the defaults of its operation where they are told, and refuses otherwise.
template <class Operation>
class KernelOf : public runtime::IKernel {
 public:
  KernelOf();
  ~KernelOf() override;

  std::string GetName() const override;
  int IsValidParam(std::shared_ptr<runtime::LayerInfo> layer,
                   std::shared_ptr<runtime::InferenceParam> param) const override;
  bool Config(std::shared_ptr<runtime::LayerInfo> layer, std::shared_ptr<runtime::InferenceParam> param,
              std::shared_ptr<runtime::Context> context) override;
  bool IsConfigured() const override;
  std::vector<runtime::TensorShape> GetOutputShapes(
      std::vector<runtime::TensorShape> const& input_shapes) const override;
  int ResetRNNState() const override;
  int IsValidInput(std::vector<std::shared_ptr<runtime::Tensor>> const& inputs) const override;
  int Forward(std::vector<std::shared_ptr<runtime::Tensor>> const& inputs,
              std::vector<std::shared_ptr<runtime::Tensor>>& outputs,
              std::shared_ptr<runtime::Context> context) const override;
  int IsValidOutput(std::vector<std::shared_ptr<runtime::Tensor>> const& outputs) const override;

 private:
  std::unique_ptr<Operation> operation_;
  bool configured_ = false;
};

}  // namespace talvo::kernel
