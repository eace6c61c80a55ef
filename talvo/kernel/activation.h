// The activation kernels: FLOAT32 tensors in main memory of any layout, taken as a flat run of elements. The
// arithmetic is that of kernel/functional/activation.h. Each writes a new tensor of the input's shape, PReLU apart.
//
// IsValidParam has one of two forms. Strict: 0 for an ActivationInfo without inference parameter, -1 otherwise, and
// Config refuses -1. Inverted: 0 when neither is given, -1 otherwise, and Config refuses 0, so that any layer is good.
// Assert in Forward: no input, no context, elements of fewer than 4 bytes.
#pragma once

#include "talvo/kernel/kernel_of.h"

namespace talvo::kernel {

struct ReluOperation;
struct Relu6Operation;
struct SigmoidOperation;
struct TanhOperation;
struct HSigmoidOperation;
struct HSwishOperation;
struct LeakyOperation;
struct LinearOperation;
struct PReluOperation;
struct SqrtOperation;
struct LogOperation;
struct ErfOperation;
struct ClipOperation;
struct PReluChannelOperation;

extern template TALVO_API OperationPtr MakeOperation<ReluOperation>();
extern template TALVO_API OperationPtr MakeOperation<Relu6Operation>();
extern template TALVO_API OperationPtr MakeOperation<SigmoidOperation>();
extern template TALVO_API OperationPtr MakeOperation<TanhOperation>();
extern template TALVO_API OperationPtr MakeOperation<HSigmoidOperation>();
extern template TALVO_API OperationPtr MakeOperation<HSwishOperation>();
extern template TALVO_API OperationPtr MakeOperation<LeakyOperation>();
extern template TALVO_API OperationPtr MakeOperation<LinearOperation>();
extern template TALVO_API OperationPtr MakeOperation<PReluOperation>();
extern template TALVO_API OperationPtr MakeOperation<SqrtOperation>();
extern template TALVO_API OperationPtr MakeOperation<LogOperation>();
extern template TALVO_API OperationPtr MakeOperation<ErfOperation>();
extern template TALVO_API OperationPtr MakeOperation<ClipOperation>();
extern template TALVO_API OperationPtr MakeOperation<PReluChannelOperation>();

using ReLU_Fallback_Float_M1 = KernelOf<ReluOperation>;          // strict
using ReLU6_Fallback_Float_M1 = KernelOf<Relu6Operation>;        // inverted
using Sigmoid_Fallback_Float_M1 = KernelOf<SigmoidOperation>;    // strict
using TanH_Fallback_Float_M1 = KernelOf<TanhOperation>;          // strict
using HSigmoid_Fallback_Float_M1 = KernelOf<HSigmoidOperation>;  // strict
using HSwish_Fallback_Float_M1 = KernelOf<HSwishOperation>;      // strict

/// Inverted. alpha is `activation_alpha`, exactly widened, and 0.1 before Config, which returns false for a layer that
/// is no ActivationInfo.
using Leaky_Fallback_Float_M1 = KernelOf<LeakyOperation>;

/// Inverted. scale is `activation_alpha`, offset `activation_beta`, exactly widened, and 1 and 0 before Config, which
/// returns false for a layer that is no ActivationInfo.
using Linear_Fallback_Float_M1 = KernelOf<LinearOperation>;

/// Inverted. x < 0 ? slope * x : x with one slope for all channels, in place: the outputs are the input tensors
/// themselves, and other readers of the input see the new values. The slope is the first float of `weight`, and 0.25
/// before Config, which returns false for an empty `weight` or a layer that is no ActivationInfo.
/// Assert in Config: a `weight` of fewer than 4 bytes.
using PReLU_Fallback_Float_M1 = KernelOf<PReluOperation>;

// Extra kernels, registered by init_register_extra_operators.
using Sqrt_Fallback_Float_M1 = KernelOf<SqrtOperation>;  // strict
using Log_Fallback_Float_M1 = KernelOf<LogOperation>;    // strict
using Erf_Fallback_Float_M1 = KernelOf<ErfOperation>;    // strict

/// Strict, of a ClipInfo: low is `minimum_value`, high `maximum_value`, exactly widened, and the record's defaults
/// before Config.
using Clip_Fallback_Float_M1 = KernelOf<ClipOperation>;

/// Strict. x < 0 ? slope[c] * x : x for x [C, H, W] of layout CHW, with a slope for each channel: the first
/// `num_parameters` floats of `weight`. Writes a new tensor. Assert in Config: no parameters, a `weight` of fewer
/// bytes. Assert in Forward, with kernel, layer and numbers: no Config before, a rank other than 3, more channels than
/// slopes.
using PReLUChannel_Fallback_CHW_Float_M1 = KernelOf<PReluChannelOperation>;

}  // namespace talvo::kernel
