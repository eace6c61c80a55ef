#include "talvo/kernel/functional/gemm.h"

#include <algorithm>
#include <climits>

#include "talvo/kernel/rows/matrix_product.h"
#include "talvo/kernel/sgemm.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::kernel::functional {

void fullconnection_fallback_c_f32_m1(const float* in, const unsigned int& in_count, const unsigned int& out_count,
                                      const float* weight, const float* bias, float* out) {
  rows::MatrixVector(weight, in, bias, out_count, in_count, out);
}

#if TALVO_WITH_BLAS
void fullconnection_sgemm_c_f32_m1(const float* in, const unsigned int& in_count, const unsigned int& out_count,
                                   const float* weight, const float* bias, float* out) {
  if (in_count > INT_MAX || out_count > INT_MAX) {
    utility::Refuse("fullconnection_sgemm_c_f32_m1: %u inputs and %u outputs, at most %d each", in_count, out_count,
                    INT_MAX);
  }
  if (bias != nullptr) {
    std::copy_n(bias, out_count, out);
  } else {
    std::fill_n(out, out_count, 0.0f);
  }
  Sgemm(static_cast<int>(out_count), static_cast<int>(in_count), 1, 1.0f, weight, in, 1.0f, out);
}
#endif

}  // namespace talvo::kernel::functional
