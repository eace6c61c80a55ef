// exp, tanh, sigmoid, the natural logarithm and the error function of rows of floats. Every step is one operation of
// IEEE 754, rounded to nearest and never fused, so that every processor, compiler and optimisation level gives the same
// bits; of a NaN the sign and the payload are the processor's. Internal.
#pragma once

#include <cstddef>

#include "talvo/kernel/rows/instruction_sets.h"

namespace talvo::kernel::rows {

// y[i] is made from x[i] for i < n as the plain loop over ascending i does it, so that the ranges may overlap in any
// way; a single value is a row of one. NaN gives NaN. Errors are against the exact value, in units in the last place of
// the result, the greatest of all 2^32 inputs.

/// e^x, error 0.502: the bits of glibc 2.36's expf on x86-64 processors with fused multiply-add, for every input.
extern Primitive<void(float const* x, std::size_t n, float* y)> const ExpRow;

/// 1 / (e^(0 - x) + 1), each step in float, error 2.48 above -88.7; below, where e^(0 - x) is infinite, it is 0.
extern Primitive<void(float const* x, std::size_t n, float* y)> const SigmoidRow;

/// tanh(x), error 2.19: the bits of glibc 2.36's tanhf on x86-64, for every input. The sign of zero is kept.
extern Primitive<void(float const* x, std::size_t n, float* y)> const TanhRow;

/// The natural logarithm, correctly rounded: -infinity for zeros, NaN below.
extern Primitive<void(float const* x, std::size_t n, float* y)> const LogRow;

/// erf(x), error 0.512. The sign of zero is kept.
extern Primitive<void(float const* x, std::size_t n, float* y)> const ErfRow;

}  // namespace talvo::kernel::rows
