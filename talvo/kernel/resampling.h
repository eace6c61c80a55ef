// Kernels that change the size of planes or sample them at given positions: upsampling, pixel shuffle, grid sampling.
// CHW tensors in main memory of the type in the name, and FLOAT32 for the grid.
#pragma once

#include "talvo/kernel/kernel_of.h"

namespace talvo::kernel {

struct UpsampleFloatOperation;
struct UpsampleInt16Operation;
struct ShuffleFloatOperation;
struct ShuffleInt16Operation;
struct GridSampleOperation;

extern template TALVO_API OperationPtr MakeOperation<UpsampleFloatOperation>();
extern template TALVO_API OperationPtr MakeOperation<UpsampleInt16Operation>();
extern template TALVO_API OperationPtr MakeOperation<ShuffleFloatOperation>();
extern template TALVO_API OperationPtr MakeOperation<ShuffleInt16Operation>();
extern template TALVO_API OperationPtr MakeOperation<GridSampleOperation>();

/// For Upsample2dInfo, nearest or bilinear; output C, floor(H scale_factor_y + 0.5), floor(W scale_factor_x + 0.5). The
/// 16-bit form takes an InferenceParamUpsampling2DQuant, whose step of 8 to 12 becomes the output's.
/// Assert: an unknown unsample_type; in Config, a scale that is negative or NaN; extents over 32 bits.
using Upsampling2D_Fallback_CHW_Float_M1 = KernelOf<UpsampleFloatOperation>;
using Upsampling2D_Fallback_CHW_Int16_M1 = KernelOf<UpsampleInt16Operation>;

/// For PixelShuffleInfo: channels to pixels by trunc(upscale_factor) above 1, otherwise the reverse by
/// trunc(1 / upscale_factor). Assert, in GetOutputShapes: a factor of 0 or NaN, channels that are no multiple of the
/// square, extents over 32 bits.
using Pixelshuffle_Fallback_CHW_Float_M1 = KernelOf<ShuffleFloatOperation>;
using Pixelshuffle_Fallback_CHW_Int16_M1 = KernelOf<ShuffleInt16Operation>;

/// For GridSampleInfo; inputs are the planes and the grid [H, W, 2] of positions x, y in [-1, 1]; output C, H, W of the
/// grid. IsValidInput refuses a grid only when it is both not of rank 3 and without an extent of 2 at axis 2. Assert:
/// an unknown mode or padding_mode; a grid of rank below 2 or of fewer than 2 H W elements.
using GridSample_Fallback_CHW_Float_M1 = KernelOf<GridSampleOperation>;

}  // namespace talvo::kernel
