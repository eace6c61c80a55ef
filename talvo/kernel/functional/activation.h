// The activations as free functions on rows of floats, and two of them in place on a tensor. c is the float nearest to
// 1/6, bits 0x3E2AAAAB.
#pragma once

#include <memory>

#include "talvo/runtime/tensor.h"
#include "talvo/utility/export.h"

namespace talvo::kernel::functional {

// Each writes out[i] for i = 0 .. count - 1 as an ascending loop over single elements would: the ranges may overlap in
// any way, and a result that was written may be read as a later input. Arithmetic in float32, in the order shown, a
// multiplication and an addition never fused. exp and tanh are our own: everywhere they give the bits of glibc 2.36's
// expf and tanhf on x86-64 with fused multiply-add, errors 0.502 and 2.19 units in the last place, sigmoid's 2.48.

/// r = 0 > x ? 0 : x. NaN stays NaN, -0 stays -0.
TALVO_API void relu_f32(float const* in, unsigned int const& count, float* out);

/// r as for relu_f32, then 6 < r ? 6 : r. NaN stays NaN.
TALVO_API void relu6_f32(float const* in, unsigned int const& count, float* out);

/// 1 / (exp(0 - x) + 1).
TALVO_API void sigmoid_f32(float const* in, unsigned int const& count, float* out);

/// tanh(x).
TALVO_API void tanh_f32(float const* in, unsigned int const& count, float* out);

/// t = x + 3; t = t > 0 ? t : 0; t = t < 6 ? t : 6; t * c. NaN gives 0.
TALVO_API void hsigmoid_f32(float const* in, unsigned int const& count, float* out);

/// (t * c) * x with t as for hsigmoid_f32. NaN stays NaN.
TALVO_API void hswish_f32(float const* in, unsigned int const& count, float* out);

/// x < 0 ? alpha * x : x.
TALVO_API void leaky_f32(float const* in, unsigned int const& count, float const& alpha, float* out);

/// x * scale + offset, two roundings.
TALVO_API void linear_f32(float const* in, unsigned int const& count, float const& scale, float const& offset,
                          float* out);

/// The square root, correctly rounded. NaN below 0; -0 stays -0.
TALVO_API void sqrt_f32(float const* in, unsigned int const& count, float* out);

/// The natural logarithm, correctly rounded: -infinity for zeros, NaN below.
TALVO_API void log_f32(float const* in, unsigned int const& count, float* out);

/// The error function, error 0.512 units in the last place.
TALVO_API void erf_f32(float const* in, unsigned int const& count, float* out);

/// r = x < low ? low : x, then high < r ? high : r. NaN stays NaN.
TALVO_API void clip_f32(float const* in, unsigned int const& count, float const& low, float const& high, float* out);

/// sigmoid_f32 on all elements of `inout`, in place. Nothing happens above 2147483647 elements.
/// Assert: no tensor, no memory, elements of fewer than 4 bytes.
TALVO_API void Sigmoid_F32_M2(std::shared_ptr<runtime::Tensor>& inout);

/// x < 0 ? slope * x : x on all elements of `inout`, in place. Limits and Assert as for Sigmoid_F32_M2.
TALVO_API void PReLU_F32(std::shared_ptr<runtime::Tensor>& inout, float slope);

}  // namespace talvo::kernel::functional
