// Free colour conversions of 8-bit interleaved frames: to planes and to gray. The channel names in the gray functions
// do not decide the weights; see each.
#pragma once

#include <memory>

#include "talvo/runtime/tensor.h"
#include "talvo/utility/export.h"

namespace talvo::kernel::functional {

using runtime::Tensor;

// To planes: i_img HWC [H, W, 3 or 4], o_img CHW, both UINT8 in main memory, planes of o_img dims[1] * dims[2] pixels.
// The bytes that planes 0, 1 and 2 get of each pixel stand behind the names. Assert, in this order and with the
// messages "... must be a ...": CPU tensors, type, layout, place, each of i_img and then of o_img; then, with numbers,
// planes or memory that are too small. i_img and o_img do not overlap.
TALVO_API void F_ColorCvt_RGBA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback(std::shared_ptr<Tensor> const& i_img,
                                                                   std::shared_ptr<Tensor>& o_img);  // 0, 1, 2 of 4
TALVO_API void F_ColorCvt_RGBA2RGB_HWC_UInt8_To_CHW_UInt8_Arm(std::shared_ptr<Tensor> const& i_img,
                                                              std::shared_ptr<Tensor>& o_img);  // 0, 1, 2 of 4
TALVO_API void F_ColorCvt_BGRA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback(std::shared_ptr<Tensor> const& i_img,
                                                                   std::shared_ptr<Tensor>& o_img);  // 2, 1, 0 of 4
TALVO_API void F_ColorCvt_BGRA2RGB_HWC_UInt8_To_CHW_UInt8_Arm(std::shared_ptr<Tensor> const& i_img,
                                                              std::shared_ptr<Tensor>& o_img);  // 2, 1, 0 of 4
TALVO_API void F_ColorCvt_RGB2RGB_HWC_UInt8_To_CHW_UInt8_Arm(std::shared_ptr<Tensor> const& i_img,
                                                             std::shared_ptr<Tensor>& o_img);  // 0, 1, 2 of 3
TALVO_API void F_ColorCvt_RGB2BGR_HWC_UInt8_To_CHW_UInt8_Arm(std::shared_ptr<Tensor> const& i_img,
                                                             std::shared_ptr<Tensor>& o_img);  // 2, 1, 0 of 3

// To gray, dims[0] * dims[1] pixels of i_img: in double precision, summed in byte order, truncated and capped at 255.
// 3-byte pixels: 0.299, 0.587, 0.114 of bytes 0, 1, 2, whatever the name. 4-byte pixels: 0.114, 0.587, 0.299, and byte
// 3 is ignored. Layout, type and place are not tested. Assert: no CPU tensors, memory that is too small.
TALVO_API void F_ColorCvt_BGR888_To_Gray8_Fallback(std::shared_ptr<Tensor> const& i_img,
                                                   std::shared_ptr<Tensor>& o_img);
TALVO_API void F_ColorCvt_BGR888_To_Gray8_Arm(std::shared_ptr<Tensor> const& i_img, std::shared_ptr<Tensor>& o_img);
TALVO_API void F_ColorCvt_RGB888_To_Gray8_Fallback(std::shared_ptr<Tensor> const& i_img,
                                                   std::shared_ptr<Tensor>& o_img);
TALVO_API void F_ColorCvt_RGB888_To_Gray8_Arm(std::shared_ptr<Tensor> const& i_img, std::shared_ptr<Tensor>& o_img);
TALVO_API void F_ColorCvt_BGRA8888_To_Gray8_Fallback(std::shared_ptr<Tensor> const& i_img,
                                                     std::shared_ptr<Tensor>& o_img);
TALVO_API void F_ColorCvt_BGRA8888_To_Gray8_Arm(std::shared_ptr<Tensor> const& i_img, std::shared_ptr<Tensor>& o_img);
TALVO_API void F_ColorCvt_RGBA8888_To_Gray8_Fallback(std::shared_ptr<Tensor> const& i_img,
                                                     std::shared_ptr<Tensor>& o_img);
TALVO_API void F_ColorCvt_RGBA8888_To_Gray8_Arm(std::shared_ptr<Tensor> const& i_img, std::shared_ptr<Tensor>& o_img);

}  // namespace talvo::kernel::functional
