// Convolution in main memory of one and two dimensions, direct and transposed, of any kernel size, stride, dilation and
// group count. The order of each sum is promised, and with it the same result on every machine; the form that rests on
// the matrix product stands in gemm.h.
#pragma once

#include "talvo/kernel/kernel_of.h"

namespace talvo::kernel {

// Each kernel has one input and one FLOAT32 output in main memory with `out_channels` channels; it takes its record
// with no field of channels, kernel, stride, dilation or groups 0, and no InferenceParam. Of the input's channels
// groups * (in_channels / groups) are read, each group's in turn. A result of a Fallback kernel is the bias (0 without
// one) + the sum over the input channels, each of whose products are summed from 0 in the order ky, kx; the transposed
// form adds each product to the result by itself. A result of a Fused kernel is a chain of fused steps, that is
// multiplications and additions with one rounding as fmaf has them, from the bias on in the order of input channels,
// ky, kx. Where the kernel has more than one tap, the chain is cut into chains of max(1, 72 / taps) input channels (in
// integers: 8 for 3x3, 2 for 5x5); those behind the first begin at 0, and are added to the result in their order.
// Inputs beyond the edge are 0 and take part, in the transposed form those at a multiple of the stride. Output channels
// beyond groups * (out_channels / groups) hold 0. GetOutputShapes computes in 32 bits and wraps. Assert in Config:
// weights or a bias with fewer bytes than their shape needs. Assert in Forward, with kernel, layer and numbers: no
// Config before; an input of another rank or type, of another layout in the direct forms, or with fewer channels than
// are read; a window larger than the padded input; a bias of fewer values than output channels.

struct Conv2dOperation;
struct Conv1dOperation;
struct ConvTranspose2dOperation;
extern template TALVO_API OperationPtr MakeOperation<Conv2dOperation>();
extern template TALVO_API OperationPtr MakeOperation<Conv1dOperation>();
extern template TALVO_API OperationPtr MakeOperation<ConvTranspose2dOperation>();
struct FusedConv2dOperation;
struct FusedConv1dOperation;
struct FusedConvTranspose2dOperation;
extern template TALVO_API OperationPtr MakeOperation<FusedConv2dOperation>();
extern template TALVO_API OperationPtr MakeOperation<FusedConv1dOperation>();
extern template TALVO_API OperationPtr MakeOperation<FusedConvTranspose2dOperation>();

/// Conv2dInfo, CHW; weights [groups, out per group, in per group, kernel_y, kernel_x]. An output extent is
/// (extent + paddings - dilation * (kernel - 1) - 1) / stride + 1.
using Conv2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1 = KernelOf<Conv2dOperation>;
using Conv2D_Knxm_Snxm_Dnxm_Gn_Fused_CHW_Float_M1 = KernelOf<FusedConv2dOperation>;
/// Conv1dInfo, CL; weights [groups, out per group, in per group, kernel_size]. The extent as above.
using Conv1D_Kn_Sn_Dn_Gn_Fallback_CL_Float_M1 = KernelOf<Conv1dOperation>;
using Conv1D_Kn_Sn_Dn_Gn_Fused_CL_Float_M1 = KernelOf<FusedConv1dOperation>;
/// ConvTranspose2dInfo, CHW; weights [groups, in per group, out per group, kernel_y, kernel_x]. The correlation, of
/// stride 1, of the kernel turned by 180 degrees with the input whose elements are `stride` apart and which has the
/// paddings as borders of nothing; they may be negative. An output extent is stride * extent + paddings - dilation *
/// (kernel - 1).
using ConvTranspose2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1 = KernelOf<ConvTranspose2dOperation>;
using ConvTranspose2D_Knxm_Snxm_Dnxm_Gn_Fused_CHW_Float_M1 = KernelOf<FusedConvTranspose2dOperation>;

}  // namespace talvo::kernel
