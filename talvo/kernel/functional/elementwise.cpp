#include "talvo/kernel/functional/elementwise.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <utility>

#include "talvo/kernel/rows/elementwise_rows.h"
#include "talvo/runtime/tensor.h"
#include "talvo/utility/refuse_support.h"
#include "talvo/utility/restrict_support.h"

namespace talvo::kernel::functional {
namespace {

using Dims = std::vector<unsigned int>;

constexpr char const* kReduction = "TensorArithmetic_Fallback_M1";

// y[i] += x[i]. The rows do not overlap.
void AddRow(float const* TALVO_RESTRICT x, std::size_t n, float* TALVO_RESTRICT y) {
  for (std::size_t i = 0; i < n; ++i) y[i] += x[i];
}

// The array summed over one of its axes.
std::vector<float> SumAxis(float const* x, Dims const& dims, std::size_t axis) {
  std::size_t outer = 1, inner = 1;
  for (std::size_t i = 0; i < axis; ++i) outer *= dims[i];
  for (std::size_t i = axis + 1; i < dims.size(); ++i) inner *= dims[i];
  std::size_t const n = dims[axis];
  std::vector<float> sums(outer * inner);
  if (inner == 1) {
    rows::SumRows(x, n, outer, n, sums.data());
  } else {
    for (std::size_t o = 0; o < outer; ++o) {
      for (std::size_t k = 0; k < n; ++k) AddRow(x + (o * n + k) * inner, inner, sums.data() + o * inner);
    }
  }
  return sums;
}

}  // namespace

void elementwise_add_f32_m1(float const* a, float const* b, unsigned int const& count, float* out) {
  rows::CombineRow(rows::Operation::kAdd, {a, false}, {b, false}, count, out);
}

void elementwise_sub_f32_m1(float const* a, float const* b, unsigned int const& count, float* out) {
  rows::CombineRow(rows::Operation::kSub, {a, false}, {b, false}, count, out);
}

void elementwise_mul_f32_m1(float const* a, float const* b, unsigned int const& count, float* out) {
  rows::CombineRow(rows::Operation::kMul, {a, false}, {b, false}, count, out);
}

Dims ReducedDims(Dims dims, std::vector<short> const& axes) {
  if (axes.empty()) utility::Refuse("%s: no axes", kReduction);
  for (std::size_t i = axes.size(); i-- > 0; dims.erase(dims.begin() + axes[i])) {
    if (axes[i] < 0 || static_cast<std::size_t>(axes[i]) >= dims.size()) {
      utility::Refuse("%s: axis %d of an array of dims %s", kReduction, int{axes[i]}, runtime::DimsText(dims).c_str());
    }
  }
  return dims;
}

void Function_TensorTensorArithmetic_Sum_Fallback_Float_M1(float const* in, float* out, Dims dims,
                                                           std::vector<short>& axes) {
  std::size_t const results = runtime::ElementCount(ReducedDims(dims, axes));
  if (runtime::ElementCount(dims) == 0) {
    std::fill_n(out, results, 0.0f);
    axes.clear();
    return;
  }
  std::vector<float> sums;
  // From the last of the list on, each time from the array that the one before left: the caller's list is used up, and
  // the order of the sums is its order.
  for (; !axes.empty(); axes.pop_back()) {
    sums = SumAxis(sums.empty() ? in : sums.data(), dims, static_cast<std::size_t>(axes.back()));
    dims.erase(dims.begin() + axes.back());
  }
  std::memcpy(out, sums.data(), results * sizeof(float));
}

void Function_TensorTensorArithmetic_Mean_Fallback_Float_M1(float const* in, float* out, Dims dims,
                                                            std::vector<short>& axes) {
  std::size_t const sums = runtime::ElementCount(ReducedDims(dims, axes));
  std::size_t reduced = 1, results = runtime::ElementCount(dims);
  for (short axis : axes) {
    unsigned int const extent = dims[static_cast<std::size_t>(axis)];
    if (extent == 0) {
      utility::Refuse("%s: the mean over axis %d of dims %s", kReduction, int{axis}, runtime::DimsText(dims).c_str());
    }
    results /= extent;
    reduced *= extent;  // wraps for repeated axes alone, when no result is left to divide
  }
  Function_TensorTensorArithmetic_Sum_Fallback_Float_M1(in, out, std::move(dims), axes);
  auto const n = static_cast<float>(reduced);
  results = std::min(results, sums);  // repeated axes may leave fewer sums
  for (std::size_t i = 0; i < results; ++i) out[i] = out[i] / n;
}

}  // namespace talvo::kernel::functional
