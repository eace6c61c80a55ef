// Two-dimensional pooling of FLOAT32 CHW tensors in main memory. None takes an InferenceParam; input and output are
// exactly one tensor. GetOutputShapes gives the input's channels, data type, layout and location. Refusals name the
// layer.
#pragma once

#include "talvo/kernel/kernel_of.h"

namespace talvo::kernel {

struct AveragePoolingOperation;
struct MaximumPoolingOperation;
struct AdaptiveAveragePoolingOperation;

extern template TALVO_API OperationPtr MakeOperation<AveragePoolingOperation>();
extern template TALVO_API OperationPtr MakeOperation<MaximumPoolingOperation>();
extern template TALVO_API OperationPtr MakeOperation<AdaptiveAveragePoolingOperation>();

/// Average over a window. Output extents truncate: (H - kernel_y + padding_t + padding_b) / stride_y + 1 in unsigned
/// 32-bit arithmetic; the layer's ceil_mode has no effect. Without count_include_pad the divisor is lowered by one for
/// each tap in the border, down to 0 / 0.
/// Assert: a stride of 0 in GetOutputShapes; a window larger than the padded input in Forward.
using Pooling2D_Avg_Fallback_Float_M1 = KernelOf<AveragePoolingOperation>;

/// Maximum over a window, whose taps behind the padded input read its last row or column. Output extents are computed
/// in float32, rounded up with ceil_mode and down without. Assert: as the average.
using Pooling2D_Max_Fallback_Float_M1 = KernelOf<MaximumPoolingOperation>;

/// Average over regions that cover the input, whatever its size: floor(y * H / Ho) to ceil((y + 1) * H / Ho) - 1 in
/// float32, and the columns likewise. A region that rounding carries beyond its plane goes on with what follows in
/// memory; behind the tensor are zeros. Assert: an `output_size` of fewer than two entries, in Config.
using AdaptivePooling2D_Avg_Fallback_CHW_Float_M1 = KernelOf<AdaptiveAveragePoolingOperation>;

}  // namespace talvo::kernel
