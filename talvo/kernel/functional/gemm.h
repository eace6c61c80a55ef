// Matrix times vector on bare pointers: the step of full connections and of recurrent cells.
#pragma once

#include "talvo/utility/export.h"
#include "talvo/utility/features.h"

namespace talvo::kernel::functional {

/// out = bias, then out[o] += weight[o, i] * in[i] in the order of i: the same bits everywhere; a null bias counts as
/// zeros. in [in_count], weight [out_count, in_count] row-major, bias and out [out_count]; `out` overlaps none of the
/// others.
TALVO_API void fullconnection_fallback_c_f32_m1(const float* in, const unsigned int& in_count,
                                                const unsigned int& out_count, const float* weight, const float* bias,
                                                float* out);

#if TALVO_WITH_BLAS
/// The same, weight in added by one product of `Sgemm`. Assert: a count beyond int.
TALVO_API void fullconnection_sgemm_c_f32_m1(const float* in, const unsigned int& in_count,
                                             const unsigned int& out_count, const float* weight, const float* bias,
                                             float* out);
#endif

}  // namespace talvo::kernel::functional
