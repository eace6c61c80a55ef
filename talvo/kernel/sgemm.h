// The library's only doorway to the platform's matrix product.
#pragma once

#include "talvo/utility/export.h"

namespace talvo::kernel {

/// c = alpha a b + beta c for row-major a [m, k], b [k, n] and c [m, n], by the CBLAS in use, which decides the order
/// of each sum. An extent of 0 is served. Throws the int 1 for an exception of the CBLAS. Assert: a negative extent.
TALVO_API void Sgemm(int m, int k, int n, float alpha, const float* a, const float* b, float beta, float* c);

}  // namespace talvo::kernel
