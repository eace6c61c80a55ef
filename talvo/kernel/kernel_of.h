// The one class behind every kernel. A family's header forward-declares its operations and names their kernels:
//   struct ReluOperation;
//   extern template TALVO_API OperationPtr MakeOperation<ReluOperation>();
//   using ReLU_Fallback_Float_M1 = KernelOf<ReluOperation>;
// The library exports the makers alone: what is left of a kernel forwards to its operation and stands here, inline.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "talvo/runtime/kernel.h"
#include "talvo/utility/export.h"

namespace talvo::kernel {

namespace support {

/// What a plain kernel does, and the base of every operation: it takes nothing from its layer, has one FLOAT32 tensor
/// in main memory as input and as output, of the same shape, and no recurrent state. An operation overrides what it
/// does otherwise. Each member does what the member of its name does for a kernel.
class TALVO_API PlainOperation {
 public:
  PlainOperation() = default;
  PlainOperation(PlainOperation const&) = delete;
  PlainOperation& operator=(PlainOperation const&) = delete;
  virtual ~PlainOperation();

  /// Whether Config goes on after this result of the kernel's IsValidParam.
  virtual bool Passes(int judgement) const = 0;

  virtual int IsValidParam(std::shared_ptr<runtime::LayerInfo> const& layer,
                           std::shared_ptr<runtime::InferenceParam> const& param) const = 0;
  virtual bool Config(std::shared_ptr<runtime::LayerInfo> const& layer,
                      std::shared_ptr<runtime::InferenceParam> const& param,
                      std::shared_ptr<runtime::Context> const& context);
  virtual std::vector<runtime::TensorShape> GetOutputShapes(
      std::vector<runtime::TensorShape> const& input_shapes) const;
  virtual int ResetRNNState() const;
  virtual int IsValidInput(std::vector<std::shared_ptr<runtime::Tensor>> const& inputs) const;
  virtual int Forward(runtime::IKernel const& kernel, std::vector<std::shared_ptr<runtime::Tensor>> const& inputs,
                      std::vector<std::shared_ptr<runtime::Tensor>>& outputs,
                      std::shared_ptr<runtime::Context> const& context) const = 0;
  virtual int IsValidOutput(std::vector<std::shared_ptr<runtime::Tensor>> const& outputs) const;

  std::string Name() const;
  char const* CName() const { return name_; }
  void SetName(char const* name) { name_ = name; }
  bool IsConfigured() const { return configured_; }

  /// Config of `kernel`, whose operation this is: its judgement first.
  bool Configure(runtime::IKernel const& kernel, std::shared_ptr<runtime::LayerInfo> const& layer,
                 std::shared_ptr<runtime::InferenceParam> const& param,
                 std::shared_ptr<runtime::Context> const& context);

 private:
  char const* name_ = nullptr;
  bool configured_ = false;
};

}  // namespace support

/// A class, since the exported name of each maker spells what it returns.
struct OperationPtr : std::unique_ptr<support::PlainOperation> {
  using unique_ptr::unique_ptr;
};

template <class Operation>
OperationPtr MakeOperation();

/// A kernel that is its operation, which it owns. What the members do is told at the alias of each kernel; what they
/// have in common is this: Config asks IsValidParam first, and a kernel whose Config returned false or threw is not
/// configured. A Config after another one overwrites what the operation took from its layer. Forward of a kernel that
/// is not configured computes with the defaults of its operation where they are told, and refuses otherwise.
template <class Operation>
class KernelOf : public runtime::IKernel {
 public:
  KernelOf() : operation_(MakeOperation<Operation>()) {}

  std::string GetName() const override { return operation_->Name(); }
  int IsValidParam(std::shared_ptr<runtime::LayerInfo> layer,
                   std::shared_ptr<runtime::InferenceParam> param) const override {
    return operation_->IsValidParam(layer, param);
  }
  bool Config(std::shared_ptr<runtime::LayerInfo> layer, std::shared_ptr<runtime::InferenceParam> param,
              std::shared_ptr<runtime::Context> context) override {
    return operation_->Configure(*this, layer, param, context);
  }
  bool IsConfigured() const override { return operation_->IsConfigured(); }
  std::vector<runtime::TensorShape> GetOutputShapes(
      std::vector<runtime::TensorShape> const& input_shapes) const override {
    return operation_->GetOutputShapes(input_shapes);
  }
  int ResetRNNState() const override { return operation_->ResetRNNState(); }
  int IsValidInput(std::vector<std::shared_ptr<runtime::Tensor>> const& inputs) const override {
    return operation_->IsValidInput(inputs);
  }
  int Forward(std::vector<std::shared_ptr<runtime::Tensor>> const& inputs,
              std::vector<std::shared_ptr<runtime::Tensor>>& outputs,
              std::shared_ptr<runtime::Context> context) const override {
    return operation_->Forward(*this, inputs, outputs, context);
  }
  int IsValidOutput(std::vector<std::shared_ptr<runtime::Tensor>> const& outputs) const override {
    return operation_->IsValidOutput(outputs);
  }

 private:
  OperationPtr operation_;
};

}  // namespace talvo::kernel
