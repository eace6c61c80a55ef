#include "talvo/kernel/functional/activation.h"

#include <cstddef>
#include <limits>

#include "talvo/kernel/kernel_support.h"
#include "talvo/kernel/rows/elementwise_rows.h"
#include "talvo/kernel/rows/exponential.h"

namespace talvo::kernel::functional {
namespace {

// The values of a tensor that is to be changed in place; `count` is 0 where nothing is.
struct InPlace {
  float* values;
  std::size_t count;
};

InPlace ValuesOf(char const* who, runtime::Tensor const* tensor) {
  if (tensor == nullptr) support::RefuseTensor(who, "the tensor", tensor, {});
  unsigned int const count = runtime::ElementCount(tensor->shape.dims);
  // Their count is an int in the interface: one above that is negative there, and nothing is done.
  if (count == 0 || count > static_cast<unsigned int>(std::numeric_limits<int>::max())) return {nullptr, 0};
  support::CheckTensor(who, "the tensor", tensor, {});
  return {static_cast<float*>(tensor->data), count};
}

}  // namespace

void relu_f32(float const* in, unsigned int const& count, float* out) { rows::ReluRow(in, count, out); }

void relu6_f32(float const* in, unsigned int const& count, float* out) { rows::Relu6Row(in, count, out); }

void sigmoid_f32(float const* in, unsigned int const& count, float* out) { rows::SigmoidRow(in, count, out); }

void tanh_f32(float const* in, unsigned int const& count, float* out) { rows::TanhRow(in, count, out); }

void hsigmoid_f32(float const* in, unsigned int const& count, float* out) { rows::HSigmoidRow(in, count, out); }

void hswish_f32(float const* in, unsigned int const& count, float* out) { rows::HSwishRow(in, count, out); }

void leaky_f32(float const* in, unsigned int const& count, float const& alpha, float* out) {
  rows::LeakyRow(alpha, in, count, out);
}

void linear_f32(float const* in, unsigned int const& count, float const& scale, float const& offset, float* out) {
  rows::LinearRow(scale, offset, in, count, out);
}

void sqrt_f32(float const* in, unsigned int const& count, float* out) { rows::SqrtRow(in, count, out); }

void log_f32(float const* in, unsigned int const& count, float* out) { rows::LogRow(in, count, out); }

void erf_f32(float const* in, unsigned int const& count, float* out) { rows::ErfRow(in, count, out); }

void clip_f32(float const* in, unsigned int const& count, float const& low, float const& high, float* out) {
  rows::ClipRow(low, high, in, count, out);
}

void Sigmoid_F32_M2(std::shared_ptr<runtime::Tensor>& inout) {
  InPlace const row = ValuesOf("Sigmoid_F32_M2", inout.get());
  rows::SigmoidRow(row.values, row.count, row.values);
}

void PReLU_F32(std::shared_ptr<runtime::Tensor>& inout, float slope) {
  InPlace const row = ValuesOf("PReLU_F32", inout.get());
  rows::LeakyRow(slope, row.values, row.count, row.values);
}

}  // namespace talvo::kernel::functional
