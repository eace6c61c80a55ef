// Per-channel normalisation, the step from pixels to a net's input: (pixel - sub) * mul.
#pragma once

#include <memory>

#include "talvo/runtime/tensor.h"
#include "talvo/utility/export.h"

namespace talvo::kernel::functional {

using runtime::Tensor;

// i_img CHW, i_sub and i_mul one FLOAT32 value for each channel, o_img CHW with at least as many elements; i_img and
// o_img do not overlap, except that F_Normalize_CHW_F32 may write over its input. Assert, in this order, with "... must
// be a ...": the four are CPU tensors; layout, type and place of i_img; rank and type of i_sub and of i_mul (and the
// place in the fixed-point form alone); layout, type and place of o_img. Then, without a text: i_sub and i_mul of
// different shapes, a number of values other than the channels. Then, with numbers, memory that is too small.

/// UINT8 to fixed point INT16 with o_img's step_size, 8 to 12 (Assert "Not Implemented.": another): the difference
/// times (mul * 2^step_size), truncated. The first pixels of a plane, in groups of eight, saturate to 16 bits; the up
/// to seven last ones keep their low 16 bits.
TALVO_API void F_Normalize_CHW_U8_To_CHW_S16_Fallback(std::shared_ptr<Tensor> const& i_img,
                                                      std::shared_ptr<Tensor> const& i_sub,
                                                      std::shared_ptr<Tensor> const& i_mul,
                                                      std::shared_ptr<Tensor>& o_img);
TALVO_API void F_Normalize_CHW_U8_To_CHW_S16_Arm(std::shared_ptr<Tensor> const& i_img,
                                                 std::shared_ptr<Tensor> const& i_sub,
                                                 std::shared_ptr<Tensor> const& i_mul, std::shared_ptr<Tensor>& o_img);

/// UINT8 to FLOAT32.
TALVO_API void F_Normalize_CHW_U8_To_CHW_F32_Fallback(std::shared_ptr<Tensor> const& i_img,
                                                      std::shared_ptr<Tensor> const& i_sub,
                                                      std::shared_ptr<Tensor> const& i_mul,
                                                      std::shared_ptr<Tensor>& o_img);
TALVO_API void F_Normalize_CHW_U8_To_CHW_F32_Arm(std::shared_ptr<Tensor> const& i_img,
                                                 std::shared_ptr<Tensor> const& i_sub,
                                                 std::shared_ptr<Tensor> const& i_mul, std::shared_ptr<Tensor>& o_img);

/// FLOAT32 to FLOAT32.
TALVO_API void F_Normalize_CHW_F32_Fallback(std::shared_ptr<Tensor> const& i_img, std::shared_ptr<Tensor> const& i_sub,
                                            std::shared_ptr<Tensor> const& i_mul, std::shared_ptr<Tensor>& o_img);
TALVO_API void F_Normalize_CHW_F32_Arm(std::shared_ptr<Tensor> const& i_img, std::shared_ptr<Tensor> const& i_sub,
                                       std::shared_ptr<Tensor> const& i_mul, std::shared_ptr<Tensor>& o_img);

/// (in - sub[c]) * mul[c] in float32, from the floats of `src`, which is CHW (Assert: it is not), to those of `dst`,
/// which holds at least as many and may be `src`. An array that is null is left out; without both nothing is written.
/// Each array holds dims[0] values.
TALVO_API void Normalize_CHW_Float_Fallback(std::shared_ptr<Tensor>& src, std::shared_ptr<Tensor>& dst,
                                            float const* mul, float const* sub);

}  // namespace talvo::kernel::functional
