// The free affine warp, in normalised coordinates. ImageProcessFallback has those in pixel coordinates.
#pragma once

#include <memory>

#include "talvo/runtime/tensor.h"
#include "talvo/utility/export.h"

namespace talvo::kernel::functional {

using runtime::Tensor;

/// Bilinear samples of i_img [C, H, W] for each pixel of o_img [C, h, w], in float32. i_mat holds m0 to m5, which map
/// output coordinates in -1 to 1 (nx, ny) to input coordinates in -1 to 1. The terms of both sums are scaled by the
/// input's width for nx and by its height for ny:
///   sx = m0 (W / 2) nx + m1 (H / 2) ny + (m2 / 2 + 0.5) W - 0.5
///   sy = m3 (W / 2) nx + m4 (H / 2) ny + (m5 / 2 + 0.5) H - 0.5
/// Neighbours outside count as 0, and so do row and column 0 where they are the upper or the left neighbour; a position
/// that is NaN or no int lies outside. Layout and type are not tested; the tensors do not overlap. Assert: "... must be
/// a vaild TensorCPUPtr.", then, with numbers, a rank below 3 of i_img or o_img, memory that is too small.
TALVO_API void F_WarpAffine_Bilinear_CHW_F32_Arm(std::shared_ptr<Tensor> const& i_img,
                                                 std::shared_ptr<Tensor> const& i_mat, std::shared_ptr<Tensor>& o_img);

}  // namespace talvo::kernel::functional
