// Softmax on bare memory. Internal.
#pragma once

#include <cstddef>

namespace talvo::kernel::native {

/// y = e^x / sum(e^x) along the middle axis of x [outer, n, inner], which has `count` elements. The sum is a double in
/// ascending order; each quotient is one of doubles, rounded to float. x and y do not overlap.
void Softmax(float const* x, std::size_t count, std::size_t n, std::size_t inner, float* y);

}  // namespace talvo::kernel::native
