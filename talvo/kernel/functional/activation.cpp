#include "talvo/kernel/functional/activation.h"

#include <cmath>
#include <cstddef>
#include <limits>

#include "talvo/utility/log.h"

namespace talvo::kernel::functional {
namespace {

constexpr float kSixth = 0x1.555556p-3f;

// The order of the operands of each comparison decides what becomes of NaN and of the sign of zero.
struct ReluStep {
  float operator()(float x) const { return 0.0f > x ? 0.0f : x; }
};

struct Relu6Step {
  float operator()(float x) const {
    float const r = 0.0f > x ? 0.0f : x;
    return 6.0f < r ? 6.0f : r;
  }
};

struct SigmoidStep {
  float operator()(float x) const { return 1.0f / (std::exp(0.0f - x) + 1.0f); }
};

struct TanhStep {
  float operator()(float x) const { return std::tanh(x); }
};

struct HSigmoidStep {
  float operator()(float x) const {
    float t = x + 3.0f;
    t = t > 0.0f ? t : 0.0f;
    t = t < 6.0f ? t : 6.0f;
    return t * kSixth;
  }
};

struct HSwishStep {
  float operator()(float x) const { return HSigmoidStep()(x) * x; }
};

struct LeakyStep {
  float alpha;
  float operator()(float x) const { return x < 0.0f ? alpha * x : x; }
};

struct LinearStep {
  float scale, offset;
  float operator()(float x) const { return x * scale + offset; }
};

// y[i] = step(x[i]) for ascending i. The compiler tests the second loop for overlap and keeps a scalar one for it;
// equal ranges, which that test would turn away, have a loop of their own.
template <class Step>
void MapRow(Step step, float const* x, std::size_t n, float* y) {
  if (x == y) {
    for (std::size_t i = 0; i < n; ++i) y[i] = step(y[i]);
  } else {
    for (std::size_t i = 0; i < n; ++i) y[i] = step(x[i]);
  }
}

template <class Step>
void MapInPlace(char const* who, Step step, runtime::Tensor const* tensor) {
  using runtime::TensorShape;
  utility::Assert(tensor != nullptr, "%s: there is no tensor", who);
  TensorShape const& shape = tensor->shape;
  unsigned int const count = runtime::ElementCount(shape.dims);
  if (count == 0 || count > static_cast<unsigned int>(std::numeric_limits<int>::max())) return;
  bool const wide = shape.data_type <= TensorShape::UINT8 && runtime::ElementSize(shape.data_type) >= sizeof(float);
  if (!wide || tensor->data == nullptr) {
    utility::Assert(false, "%s: tensor of dims %s and data type %u%s, needs %zu bytes an element", who,
                    runtime::DimsText(shape.dims).c_str(), shape.data_type, wide ? " has no memory" : "",
                    sizeof(float));
  }
  auto* const values = static_cast<float*>(tensor->data);
  MapRow(step, values, count, values);
}

}  // namespace

void relu_f32(float const* in, unsigned int const& count, float* out) { MapRow(ReluStep{}, in, count, out); }

void relu6_f32(float const* in, unsigned int const& count, float* out) { MapRow(Relu6Step{}, in, count, out); }

void sigmoid_f32(float const* in, unsigned int const& count, float* out) { MapRow(SigmoidStep{}, in, count, out); }

void tanh_f32(float const* in, unsigned int const& count, float* out) { MapRow(TanhStep{}, in, count, out); }

void hsigmoid_f32(float const* in, unsigned int const& count, float* out) { MapRow(HSigmoidStep{}, in, count, out); }

void hswish_f32(float const* in, unsigned int const& count, float* out) { MapRow(HSwishStep{}, in, count, out); }

void leaky_f32(float const* in, unsigned int const& count, float const& alpha, float* out) {
  MapRow(LeakyStep{alpha}, in, count, out);
}

void linear_f32(float const* in, unsigned int const& count, float const& scale, float const& offset, float* out) {
  MapRow(LinearStep{scale, offset}, in, count, out);
}

void Sigmoid_F32_M2(std::shared_ptr<runtime::Tensor>& inout) {
  MapInPlace("Sigmoid_F32_M2", SigmoidStep{}, inout.get());
}

void PReLU_F32(std::shared_ptr<runtime::Tensor>& inout, float slope) {
  MapInPlace("PReLU_F32", LeakyStep{slope}, inout.get());
}

}  // namespace talvo::kernel::functional
