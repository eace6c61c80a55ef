// Free crops by rows.
#pragma once

#include <memory>

#include "talvo/runtime/tensor.h"
#include "talvo/utility/export.h"

namespace talvo::kernel::functional {

using runtime::Tensor;

// Copies `height` rows of `width` pixels, from (y, x) of i_img on, to o_img, which has exactly these extents. Any data
// type, in main memory; the ranges do not overlap. Assert, in this order: layout and place of i_img and of o_img, with
// "... must be a ..."; then, without a text, data types that differ, extents of o_img other than asked for, channels
// that differ, an area that leaves i_img (and for the blocked layouts a last axis that differs or is not 4 or 8).
TALVO_API void F_Crop_HWC_Memcpy(std::shared_ptr<Tensor> const& i_img, unsigned int const& y, unsigned int const& x,
                                 unsigned int const& height, unsigned int const& width, std::shared_ptr<Tensor>& o_img);
TALVO_API void F_Crop_HWC_Arm(std::shared_ptr<Tensor> const& i_img, unsigned int const& y, unsigned int const& x,
                              unsigned int const& height, unsigned int const& width, std::shared_ptr<Tensor>& o_img);
TALVO_API void F_Crop_CHW_Memcpy(std::shared_ptr<Tensor> const& i_img, unsigned int const& y, unsigned int const& x,
                                 unsigned int const& height, unsigned int const& width, std::shared_ptr<Tensor>& o_img);
TALVO_API void F_Crop_CHW_Arm(std::shared_ptr<Tensor> const& i_img, unsigned int const& y, unsigned int const& x,
                              unsigned int const& height, unsigned int const& width, std::shared_ptr<Tensor>& o_img);
TALVO_API void F_Crop_C4HW4_Memcpy(std::shared_ptr<Tensor> const& i_img, unsigned int const& y, unsigned int const& x,
                                   unsigned int const& height, unsigned int const& width,
                                   std::shared_ptr<Tensor>& o_img);
TALVO_API void F_Crop_C4HW4_Arm(std::shared_ptr<Tensor> const& i_img, unsigned int const& y, unsigned int const& x,
                                unsigned int const& height, unsigned int const& width, std::shared_ptr<Tensor>& o_img);
TALVO_API void F_Crop_C8HW8_Memcpy(std::shared_ptr<Tensor> const& i_img, unsigned int const& y, unsigned int const& x,
                                   unsigned int const& height, unsigned int const& width,
                                   std::shared_ptr<Tensor>& o_img);
TALVO_API void F_Crop_C8HW8_Arm(std::shared_ptr<Tensor> const& i_img, unsigned int const& y, unsigned int const& x,
                                unsigned int const& height, unsigned int const& width, std::shared_ptr<Tensor>& o_img);

// Copies the part of the area that lies in i_img and sets all else of o_img to `fill`; y and x may be negative. HWC and
// UINT8. Assert: type, layout and place of i_img and of o_img, with "... must be a ..."; then, without a text, extents
// of o_img other than asked for and channels that differ.
TALVO_API void F_Crop_U8_HWC_Memcpy(std::shared_ptr<Tensor> const& i_img, int const& y, int const& x, int const& height,
                                    int const& width, unsigned char const& fill, std::shared_ptr<Tensor>& o_img);
TALVO_API void F_Crop_U8_HWC_Arm(std::shared_ptr<Tensor> const& i_img, int const& y, int const& x, int const& height,
                                 int const& width, unsigned char const& fill, std::shared_ptr<Tensor>& o_img);

}  // namespace talvo::kernel::functional
