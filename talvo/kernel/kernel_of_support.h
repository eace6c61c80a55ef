// What the source of a kernel family needs to define its operations and to instantiate their kernels. Internal.
//
// An operation is a struct of the source. It begins with the form of its judgement, support::Strict<Info> or
// support::Inverted, which brings what a plain kernel does, has its registered name, and hides what it does otherwise:
//
//   struct ReluOperation : support::Strict<runtime::ActivationInfo> {
//     static constexpr char const* kName = "ReLU_Fallback_Float_M1";
//     static int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs, ContextPtr const& context);
//   };
//   template class KernelOf<ReluOperation>;
//
// Fields hold what Config took; Forward and the judgements are static or const. The operation lives as long as its
// kernel, through every Config: recurrent state stays, and all else is set anew.
#pragma once

#include <utility>

#include "talvo/kernel/kernel_of.h"
#include "talvo/kernel/kernel_support.h"

namespace talvo::kernel {

namespace support {

/// What a plain kernel does: it takes nothing from its layer, has one FLOAT32 tensor in main memory as input and as
/// output, of the same shape, and no recurrent state. Forward has no plain form.
struct Plain {
  static bool Config(LayerPtr const&, ParamPtr const&, ContextPtr const&) { return true; }  // false or Assert: refused
  static Shapes GetOutputShapes(Shapes const& input_shapes) { return input_shapes; }
  static int ResetRNNState() { return -4; }
  static int IsValidInput(Tensors const& inputs) { return JudgeOneFloat(inputs); }
  static int IsValidOutput(Tensors const& outputs) { return JudgeOneFloat(outputs); }
};

/// The strict form of the judgement: 0 for a layer of class Info without inference parameter, -1 otherwise, and Config
/// refuses -1. The two forms are not to be unified: each Config reads its own. An operation may hide either half.
template <class Info>
struct Strict : Plain {
  static int IsValidParam(LayerPtr const& layer, ParamPtr const& param) { return StrictParam<Info>(layer, param); }
  static bool Passes(int judgement) { return judgement != -1; }
};

/// The inverted form: 0 when neither is given, -1 otherwise, and Config refuses 0, so that any layer is good.
struct Inverted : Plain {
  static int IsValidParam(LayerPtr const& layer, ParamPtr const& param) { return InvertedParam(layer, param); }
  static bool Passes(int judgement) { return judgement != 0; }
};

}  // namespace support

template <class Operation>
KernelOf<Operation>::KernelOf() : operation_(std::make_unique<Operation>()) {}

template <class Operation>
KernelOf<Operation>::~KernelOf() = default;

template <class Operation>
std::string KernelOf<Operation>::GetName() const {
  return Operation::kName;
}

template <class Operation>
int KernelOf<Operation>::IsValidParam(std::shared_ptr<runtime::LayerInfo> layer,
                                      std::shared_ptr<runtime::InferenceParam> param) const {
  return std::as_const(*operation_).IsValidParam(layer, param);
}

template <class Operation>
bool KernelOf<Operation>::Config(std::shared_ptr<runtime::LayerInfo> layer,
                                 std::shared_ptr<runtime::InferenceParam> param,
                                 std::shared_ptr<runtime::Context> context) {
  configured_ = false;
  if (!Operation::Passes(IsValidParam(layer, param))) return false;
  configured_ = operation_->Config(layer, param, context);
  return configured_;
}

template <class Operation>
bool KernelOf<Operation>::IsConfigured() const {
  return configured_;
}

template <class Operation>
std::vector<runtime::TensorShape> KernelOf<Operation>::GetOutputShapes(
    std::vector<runtime::TensorShape> const& input_shapes) const {
  return std::as_const(*operation_).GetOutputShapes(input_shapes);
}

template <class Operation>
int KernelOf<Operation>::ResetRNNState() const {
  return std::as_const(*operation_).ResetRNNState();
}

template <class Operation>
int KernelOf<Operation>::IsValidInput(std::vector<std::shared_ptr<runtime::Tensor>> const& inputs) const {
  return std::as_const(*operation_).IsValidInput(inputs);
}

template <class Operation>
int KernelOf<Operation>::Forward(std::vector<std::shared_ptr<runtime::Tensor>> const& inputs,
                                 std::vector<std::shared_ptr<runtime::Tensor>>& outputs,
                                 std::shared_ptr<runtime::Context> context) const {
  return std::as_const(*operation_).Forward(*this, inputs, outputs, context);
}

template <class Operation>
int KernelOf<Operation>::IsValidOutput(std::vector<std::shared_ptr<runtime::Tensor>> const& outputs) const {
  return std::as_const(*operation_).IsValidOutput(outputs);
}

}  // namespace talvo::kernel
