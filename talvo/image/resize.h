// Free resizes of interleaved 8-bit frames.
#pragma once

#include <memory>

#include "talvo/runtime/tensor.h"
#include "talvo/utility/export.h"

namespace talvo::kernel::functional {

using runtime::Tensor;

// i_img [H, W, n], o_img [h, w, n], n the number behind C. Layout, type and place are not tested; the frames do not
// overlap. An o_img with an extent of 0 stays as it is. Assert: no CPU tensors, memory that is too small, an i_img
// without pixels for an o_img that has some.

// Nearest, without aligned centres: the index of a column is a float32 sum of steps W / w from 0, truncated, and held
// at the last pixel; rows likewise. The error of the repeated addition is part of the result.
TALVO_API void F_Resize_Nearest_HWC_U8_C1_Fallback(std::shared_ptr<Tensor> const& i_img,
                                                   std::shared_ptr<Tensor>& o_img);
TALVO_API void F_Resize_Nearest_HWC_U8_C1_Arm_M1(std::shared_ptr<Tensor> const& i_img, std::shared_ptr<Tensor>& o_img);
TALVO_API void F_Resize_Nearest_HWC_U8_C2_Fallback(std::shared_ptr<Tensor> const& i_img,
                                                   std::shared_ptr<Tensor>& o_img);
TALVO_API void F_Resize_Nearest_HWC_U8_C2_Arm_M1(std::shared_ptr<Tensor> const& i_img, std::shared_ptr<Tensor>& o_img);
TALVO_API void F_Resize_Nearest_HWC_U8_C3_Fallback(std::shared_ptr<Tensor> const& i_img,
                                                   std::shared_ptr<Tensor>& o_img);
TALVO_API void F_Resize_Nearest_HWC_U8_C3_Arm_M1(std::shared_ptr<Tensor> const& i_img, std::shared_ptr<Tensor>& o_img);
TALVO_API void F_Resize_Nearest_HWC_U8_C4_Fallback(std::shared_ptr<Tensor> const& i_img,
                                                   std::shared_ptr<Tensor>& o_img);
TALVO_API void F_Resize_Nearest_HWC_U8_C4_Arm_M1(std::shared_ptr<Tensor> const& i_img, std::shared_ptr<Tensor>& o_img);

// Bilinear with aligned centres, weights of 11 bits; the same values as ImageProcessFallback::Resize_Bilinear_Cn.
TALVO_API void F_Resize_Bilinear_HWC_U8_C1_Fallback(std::shared_ptr<Tensor> const& i_img,
                                                    std::shared_ptr<Tensor>& o_img);
TALVO_API void F_Resize_Bilinear_HWC_U8_C1_Arm_M1(std::shared_ptr<Tensor> const& i_img, std::shared_ptr<Tensor>& o_img);
TALVO_API void F_Resize_Bilinear_HWC_U8_C2_Fallback(std::shared_ptr<Tensor> const& i_img,
                                                    std::shared_ptr<Tensor>& o_img);
TALVO_API void F_Resize_Bilinear_HWC_U8_C2_Arm_M1(std::shared_ptr<Tensor> const& i_img, std::shared_ptr<Tensor>& o_img);
TALVO_API void F_Resize_Bilinear_HWC_U8_C3_Fallback(std::shared_ptr<Tensor> const& i_img,
                                                    std::shared_ptr<Tensor>& o_img);
TALVO_API void F_Resize_Bilinear_HWC_U8_C3_Arm_M1(std::shared_ptr<Tensor> const& i_img, std::shared_ptr<Tensor>& o_img);
TALVO_API void F_Resize_Bilinear_HWC_U8_C4_Fallback(std::shared_ptr<Tensor> const& i_img,
                                                    std::shared_ptr<Tensor>& o_img);
TALVO_API void F_Resize_Bilinear_HWC_U8_C4_Arm_M1(std::shared_ptr<Tensor> const& i_img, std::shared_ptr<Tensor>& o_img);

}  // namespace talvo::kernel::functional
