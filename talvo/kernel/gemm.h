// The kernels that multiply matrices: pointwise convolution by the matrix product of the platform, and full connections
// by that product or by sums whose order is fixed.
#pragma once

#include <memory>

#include "talvo/kernel/kernel_of.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/utility/export.h"
#include "talvo/utility/features.h"

namespace talvo::kernel {

struct FallbackFullConnectionOperation;
struct FusedFullConnectionOperation;
struct RowsFullConnectionOperation;
struct MatMulOperation;
extern template TALVO_API OperationPtr MakeOperation<FallbackFullConnectionOperation>();
extern template TALVO_API OperationPtr MakeOperation<FusedFullConnectionOperation>();
extern template TALVO_API OperationPtr MakeOperation<RowsFullConnectionOperation>();
extern template TALVO_API OperationPtr MakeOperation<MatMulOperation>();

/// y = W x + bias for x [in_features] and W [out_features, in_features], layout C, by the free forms of
/// functional/gemm.h; Fused: y[o] is a chain of fused steps, y = fmaf(W[o, i], x[i], y) for i = 0, 1, ..., from the
/// bias on (0 without one), and W is kept packed. Config takes a FullConnectionInfo without inference parameter and
/// with non-zero features. Assert in Config: weights or bias with fewer bytes than the features need. Assert in
/// Forward, with kernel, layer and numbers: no Config before, elements of fewer than 4 bytes, fewer elements than
/// `in_features`.
using FullConnection_Fallback_C_Float_M1 = KernelOf<FallbackFullConnectionOperation>;
using FullConnection_Fused_C_Float_M1 = KernelOf<FusedFullConnectionOperation>;

// Extra kernels, registered by init_register_extra_operators.

/// FullConnection_Fallback_C_Float_M1 for each row of x [S, in_features] to y [S, out_features], layout SC, with the
/// same bits; W is kept packed. Assert in Forward, besides: a rank other than 2, fewer than S * in_features elements.
using FullConnection_Fallback_SC_Float_M1 = KernelOf<RowsFullConnectionOperation>;

/// y = A B for inputs A [.., m, k] and B [.., k, n] in any layout, of a BroadcastOperatorInfo, whose `op_type` is not
/// read, and alpha * (op(A) op(B)) of a GemmInfo, which model files do not hold: `trans_a` and `trans_b` say that A is
/// [.., k, m] and B [.., n, k]; `beta` belongs to a third operand, which there is not. Leading
/// extents are equal, or one operand is a single matrix of rank 2 that serves all of the other. Each sum goes p = 0,
/// 1, ... k - 1 from 0.0f, each product and each sum rounded, and is then multiplied by alpha. The output has the
/// layout of the operand with more axes, of A where both have as many. Assert, with kernel, layer and dims: operands
/// that do not multiply; in Forward, no Config before, elements of fewer than 4 bytes.
using MatMul_Fallback_Float_M1 = KernelOf<MatMulOperation>;

#if TALVO_WITH_BLAS
struct PointwiseOperation;
struct SgemmFullConnectionOperation;
extern template TALVO_API OperationPtr MakeOperation<PointwiseOperation>();
extern template TALVO_API OperationPtr MakeOperation<SgemmFullConnectionOperation>();

using FullConnection_SGEMM_C_Float_M1 = KernelOf<SgemmFullConnectionOperation>;

/// Convolution with a 1x1 kernel, stride 1 and no padding, as one product of W with x [channels, H * W]; the bias is
/// added behind the product. Config takes such a Conv2dInfo without inference parameter and with non-zero channels and
/// groups. W is one dense matrix [out_channels, in_channels] whatever `groups` says; for an input of fewer channels its
/// leading values are read as [out_channels, channels]. A bias is not added to an input whose layout is not CHW.
/// Assert in Config: weights or bias with fewer bytes than that, a bias where the channels do not divide by the groups.
/// Assert in Forward, with kernel, layer and numbers: no Config before, elements of fewer than 4 bytes, a rank other
/// than 3, more than in_channels channels.
using Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1 = KernelOf<PointwiseOperation>;

/// The product alone: output [M, H, W] = weight [M, K] input [K, H * W], of which input and weight may hold more and
/// have other extents behind K; what is read are their leading values. All are read and written as floats. Assert: a
/// null tensor, an input or output of a rank other than 3, fewer bytes than are read or written.
TALVO_API void Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1_Convolution(std::shared_ptr<runtime::TensorCPU> input,
                                                                       std::shared_ptr<runtime::TensorCPU> output,
                                                                       std::shared_ptr<runtime::TensorCPU> weight);
#endif

}  // namespace talvo::kernel
