// What the source of a kernel family needs to define its operations and to instantiate their makers. Internal.
//
// An operation is a struct of the source. It begins with the form of its judgement, support::Strict<Info> or
// support::Inverted, which brings what a plain kernel does, has its registered name, and overrides what it does
// otherwise:
//
//   struct ReluOperation : support::Strict<runtime::ActivationInfo> {
//     static constexpr char const* kName = "ReLU_Fallback_Float_M1";
//     int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
//                 ContextPtr const& context) const override;
//   };
//   template OperationPtr MakeOperation<ReluOperation>();
//
// Operations that differ in data alone share a body, which is an operation made of its form:
//
//   struct UpsampleInt16Operation {
//     using Body = Upsample;
//     static constexpr PlaneForm kForm = {TensorShape::INT16};
//     static constexpr char const* kName = "Upsampling2D_Fallback_CHW_Int16_M1";
//   };
//
// Fields hold what Config took. The operation lives as long as its kernel, through every Config: recurrent state stays,
// and all else is set anew.
#pragma once

#include <type_traits>

#include "talvo/kernel/kernel_of.h"
#include "talvo/kernel/kernel_support.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::kernel {

// The words that sources of kernels share.
using runtime::DimsText;
using runtime::IKernel;
using runtime::TensorShape;
using support::ContextPtr;
using support::LayerPtr;
using support::ParamPtr;
using support::Shapes;
using support::TensorPtr;
using support::Tensors;
using utility::Refuse;

namespace support {

/// The strict form of the judgement: 0 for a layer of class Info without inference parameter, -1 otherwise, and Config
/// refuses -1. The two forms are not to be unified: each Config reads its own. An operation may override either half.
template <class Info>
struct Strict : PlainOperation {
  int IsValidParam(LayerPtr const& layer, ParamPtr const& param) const override {
    return StrictParam<Info>(layer, param);
  }
  bool Passes(int judgement) const override { return judgement != -1; }
};

/// The inverted form: 0 when neither is given, -1 otherwise, and Config refuses 0, so that any layer is good.
struct Inverted : PlainOperation {
  int IsValidParam(LayerPtr const& layer, ParamPtr const& param) const override;
  bool Passes(int judgement) const override;
};

}  // namespace support

template <class Operation>
OperationPtr MakeOperation() {
  if constexpr (std::is_base_of_v<support::PlainOperation, Operation>) {
    auto operation = std::make_unique<Operation>();
    operation->SetName(Operation::kName);
    return operation;
  } else {
    auto operation = std::make_unique<typename Operation::Body>(Operation::kForm);
    operation->SetName(Operation::kName);
    return operation;
  }
}

}  // namespace talvo::kernel
