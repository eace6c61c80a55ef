// The kernels that move data without arithmetic, and softmax. `dim`, `slice_dims` and `new_shape` of their layers are
// written in the axes of the model, whose axis 0 is a batch that tensors do not have. In Forward each refuses through
// Assert, with its name and the numbers, tensors that it would read or write beyond their end.
//
// IsValidParam has the strict form, 0 for a layer of the kernel's class without inference parameter and -1 otherwise,
// where nothing else is said.
#pragma once

#include "talvo/kernel/kernel_of.h"

namespace talvo::kernel {

struct InputOperation;
struct StraightThroughOperation;
struct PlaceholderOperation;
struct ConcatenateOperation;
struct ConcatenateChannelsOperation;
struct SliceOperation;
struct ExpandOperation;
struct UnSqueezeOperation;
struct SoftmaxOperation;

extern template TALVO_API OperationPtr MakeOperation<InputOperation>();
extern template TALVO_API OperationPtr MakeOperation<StraightThroughOperation>();
extern template TALVO_API OperationPtr MakeOperation<PlaceholderOperation>();
extern template TALVO_API OperationPtr MakeOperation<ConcatenateOperation>();
extern template TALVO_API OperationPtr MakeOperation<ConcatenateChannelsOperation>();
extern template TALVO_API OperationPtr MakeOperation<SliceOperation>();
extern template TALVO_API OperationPtr MakeOperation<ExpandOperation>();
extern template TALVO_API OperationPtr MakeOperation<UnSqueezeOperation>();
extern template TALVO_API OperationPtr MakeOperation<SoftmaxOperation>();

/// These hand their input tensors on as their outputs: where the application's tensors enter, of any location, and a
/// layer without effect, in main memory alone. IsValidParam has the inverted form: 0 when neither layer nor parameter
/// is given, -1 otherwise; Config refuses 0, so that any layer is good.
using Input_Fallback_M1 = KernelOf<InputOperation>;
using Straight_Through_Fallback_M1 = KernelOf<StraightThroughOperation>;

/// 128.0 in every element of a CHW tensor of the shape that the layer names; the inputs play no part.
using LayerPlaceholder_Fallback_Float_M1 = KernelOf<PlaceholderOperation>;

/// Joins two tensors or more of any element type along `dim`, counted from 0 as it stands. The result is FLEXIABLE.
/// GetOutputShapes compares the leading extents of the first two shapes for every axis, and Forward does not use it:
/// the shape of the result is that of functional::Concatenate_MainMemory_Fallback.
/// Assert in Forward: "Invalid forward input param", and for outputs that exist "Invalid forward output param" or "Not
/// Implemented.".
using Concatenate_MainMemory_Fallback = KernelOf<ConcatenateOperation>;

/// Joins tensors along the channels, the outermost axis of CHW, C4HW4 and C8HW8, by copying one behind the other;
/// packed tensors fill their blocks. `dim` must be 1, the channels of the model.
using Concatenate_C_Fallback_CnHWn_M1 = KernelOf<ConcatenateChannelsOperation>;

/// Selects begin, begin + step, ... below end on each axis of a CHW tensor; see
/// functional::Function_TensorSlice_Fallback_CHW_Float_M1. A layer that IsValidParam refuses still configures the
/// kernel: only a missing or foreign one does not.
using Slice_Fallback_CHW_Float_M1 = KernelOf<SliceOperation>;

/// Spreads the one element of each channel over a plane; for any other input the output stays as the device made it.
/// See functional::Function_TensorExpand_Fallback_CHW_Float_M1. A layer that IsValidParam refuses still configures the
/// kernel: only a missing or foreign one does not.
/// Assert in GetOutputShapes: `new_shape` is not longer than the input's rank.
using Expand_Fallback_CHW_Float_M1 = KernelOf<ExpandOperation>;

/// Copies the tensor and inserts an axis of extent 1 into its dims; the layout stays. A layer that IsValidParam refuses
/// still configures the kernel: only a missing or foreign one does not.
/// Assert in GetOutputShapes, without a text: a position outside the result.
using UnSqueeze_Fallback_M1 = KernelOf<UnSqueezeOperation>;

/// exp(x) / sum of exp(x) along axis `dim` - 1. exp in float, the sum in double and in ascending order, the quotient
/// in double; no maximum is subtracted, so that large inputs overflow. Assert in Forward: `dim` is 0 or above the rank.
using Softmax_Fallback_Float_M1 = KernelOf<SoftmaxOperation>;

}  // namespace talvo::kernel
