// Free rotations and flips of interleaved frames.
#pragma once

#include <memory>

#include "talvo/runtime/tensor.h"
#include "talvo/utility/export.h"

namespace talvo::kernel::functional {

using runtime::Tensor;

// i_img HWC [H, W, C], o_img HWC, both UINT8 in main memory; the pixel (y, x) goes to the place given behind each name.
// i_img and o_img do not overlap. Assert, in this order and with the messages "... must ...", each for i_img and then
// for o_img: a CPU tensor, its type, its layout (the message says CHW), its place. At the rotations null is refused
// behind the question for CPU tensors, with a message of its own. The rotations then refuse, without a text, another
// rank and dims that do not match the rotation. Last, with numbers, a rank below 3 and memory that is too small.

// To (x, H - 1 - y) of [W, H, C].
TALVO_API void F_Rotate_Clockwise90_HWC_Fallback(std::shared_ptr<Tensor> const& i_img, std::shared_ptr<Tensor>& o_img);
TALVO_API void F_Rotate_Clockwise90_HWC_Arm(std::shared_ptr<Tensor> const& i_img, std::shared_ptr<Tensor>& o_img);

// To (H - 1 - y, W - 1 - x).
TALVO_API void F_Rotate_Clockwise180_HWC_Fallback(std::shared_ptr<Tensor> const& i_img, std::shared_ptr<Tensor>& o_img);
TALVO_API void F_Rotate_Clockwise180_HWC_Arm(std::shared_ptr<Tensor> const& i_img, std::shared_ptr<Tensor>& o_img);

// To (W - 1 - x, y) of [W, H, C].
TALVO_API void F_Rotate_Clockwise270_HWC_Fallback(std::shared_ptr<Tensor> const& i_img, std::shared_ptr<Tensor>& o_img);
TALVO_API void F_Rotate_Clockwise270_HWC_Arm(std::shared_ptr<Tensor> const& i_img, std::shared_ptr<Tensor>& o_img);

// To (y, W - 1 - x).
TALVO_API void F_HFlip_HWC_Fallback(std::shared_ptr<Tensor> const& i_img, std::shared_ptr<Tensor>& o_img);
TALVO_API void F_HFlip_HWC_Arm(std::shared_ptr<Tensor> const& i_img, std::shared_ptr<Tensor>& o_img);

// To (H - 1 - y, x).
TALVO_API void F_VFlip_HWC_Fallback(std::shared_ptr<Tensor> const& i_img, std::shared_ptr<Tensor>& o_img);
TALVO_API void F_VFlip_HWC_Arm(std::shared_ptr<Tensor> const& i_img, std::shared_ptr<Tensor>& o_img);

}  // namespace talvo::kernel::functional
