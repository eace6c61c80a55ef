#include "talvo/kernel/native/softmax_support.h"

#include <algorithm>
#include <vector>

#include "talvo/kernel/rows/exponential.h"

namespace talvo::kernel::native {
namespace {

// Softmax of n values that follow each other.
void SoftmaxRow(float const* x, std::size_t n, float* y) {
  // The largest value is not taken off first: the interface's sum, in double, of exp as it comes. Where exp overflows,
  // infinity over infinity is NaN.
  rows::ExpRow(x, n, y);
  double sum = 0.0;
  for (std::size_t k = 0; k < n; ++k) sum += static_cast<double>(y[k]);
  for (std::size_t k = 0; k < n; ++k) y[k] = static_cast<float>(static_cast<double>(y[k]) / sum);
}

// Softmax down each of the columns of x [n, columns]; `sums` holds one value a column.
void SoftmaxColumns(float const* x, std::size_t n, std::vector<double>& sums, float* y) {
  std::size_t const columns = sums.size();
  std::fill(sums.begin(), sums.end(), 0.0);
  double* const sum = sums.data();
  rows::ExpRow(x, n * columns, y);
  for (std::size_t k = 0; k < n; ++k) {
    for (std::size_t i = 0; i < columns; ++i) sum[i] += static_cast<double>(y[k * columns + i]);
  }
  for (std::size_t k = 0; k < n; ++k, y += columns) {
    for (std::size_t i = 0; i < columns; ++i) y[i] = static_cast<float>(static_cast<double>(y[i]) / sum[i]);
  }
}

}  // namespace

void Softmax(float const* x, std::size_t count, std::size_t n, std::size_t inner, float* y) {
  std::vector<double> sums(count == 0 || inner == 1 ? 0 : inner);
  for (std::size_t begin = 0; begin < count; begin += n * inner) {
    if (inner == 1) {
      SoftmaxRow(x + begin, n, y + begin);
    } else {
      SoftmaxColumns(x + begin, n, sums, y + begin);
    }
  }
}

}  // namespace talvo::kernel::native
