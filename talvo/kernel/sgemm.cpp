#include "talvo/kernel/sgemm.h"

#include <cblas.h>

#include <algorithm>

#include "talvo/utility/refuse_support.h"

namespace talvo::kernel {

void Sgemm(int m, int k, int n, float alpha, const float* a, const float* b, float beta, float* c) {
  if (m < 0 || k < 0 || n < 0) utility::Refuse("Sgemm: extents m %d, k %d, n %d, none may be below 0", m, k, n);
  int const a_pitch = std::max(k, 1), b_pitch = std::max(n, 1);  // a CBLAS refuses a pitch of 0, some end the process
  try {
    cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, m, n, k, alpha, a, a_pitch, b, b_pitch, beta, c, b_pitch);
  } catch (...) {
    throw 1;
  }
}

}  // namespace talvo::kernel
