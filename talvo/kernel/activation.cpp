#include "talvo/kernel/activation.h"

#include "talvo/kernel/functional/activation.h"
#include "talvo/kernel/kernel_of_support.h"
#include "talvo/kernel/rows/elementwise_rows.h"
#include "talvo/serialization/layer_info_activation.h"
#include "talvo/utility/base64_support.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::kernel {

using runtime::ActivationInfo;
using runtime::ClipInfo;

namespace {

// A new tensor in `outputs` with map(in, count, out) of the input's elements.
template <class Map>
int MapInput(IKernel const& kernel, Tensors const& inputs, Tensors& outputs, ContextPtr const& context,
             Map const& map) {
  auto const x = support::Input(kernel, inputs, 0);
  auto y = support::NewOutput(kernel, inputs, context);
  map(x->Data<float>(), runtime::ElementCount(x->shape.dims), y->Data<float>());
  outputs.clear();
  outputs.push_back(std::move(y));
  return 0;
}

// An activation without parameters.
template <class Form, void (*kMap)(float const*, unsigned int const&, float*)>
struct PlainActivation : Form {
  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    return MapInput(kernel, inputs, outputs, context, kMap);
  }
};

using StrictForm = support::Strict<ActivationInfo>;
using InvertedForm = support::Inverted;

}  // namespace

struct ReluOperation : PlainActivation<StrictForm, functional::relu_f32> {
  static constexpr char const* kName = "ReLU_Fallback_Float_M1";
};

struct Relu6Operation : PlainActivation<InvertedForm, functional::relu6_f32> {
  static constexpr char const* kName = "ReLU6_Fallback_Float_M1";
};

struct SigmoidOperation : PlainActivation<StrictForm, functional::sigmoid_f32> {
  static constexpr char const* kName = "Sigmoid_Fallback_Float_M1";
};

struct TanhOperation : PlainActivation<StrictForm, functional::tanh_f32> {
  static constexpr char const* kName = "TanH_Fallback_Float_M1";
};

struct HSigmoidOperation : PlainActivation<StrictForm, functional::hsigmoid_f32> {
  static constexpr char const* kName = "HSigmoid_Fallback_Float_M1";
};

struct HSwishOperation : PlainActivation<StrictForm, functional::hswish_f32> {
  static constexpr char const* kName = "HSwish_Fallback_Float_M1";
};

struct LeakyOperation : InvertedForm {
  static constexpr char const* kName = "Leaky_Fallback_Float_M1";

  bool Config(LayerPtr const& layer, ParamPtr const&, ContextPtr const&) override {
    // The inverted judgement let any layer through: the class is asked for here.
    auto const* const info = dynamic_cast<ActivationInfo const*>(layer.get());
    if (info == nullptr) return false;
    alpha = info->activation_alpha;
    return true;
  }

  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    return MapInput(kernel, inputs, outputs, context, [this](float const* in, unsigned int count, float* out) {
      functional::leaky_f32(in, count, alpha, out);
    });
  }

  float alpha = 0.1f;
};

struct LinearOperation : InvertedForm {
  static constexpr char const* kName = "Linear_Fallback_Float_M1";

  bool Config(LayerPtr const& layer, ParamPtr const&, ContextPtr const&) override {
    auto const* const info = dynamic_cast<ActivationInfo const*>(layer.get());
    if (info == nullptr) return false;
    scale = info->activation_alpha;
    offset = info->activation_beta;
    return true;
  }

  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    return MapInput(kernel, inputs, outputs, context, [this](float const* in, unsigned int count, float* out) {
      functional::linear_f32(in, count, scale, offset, out);
    });
  }

  float scale = 1.0f, offset = 0.0f;
};

struct PReluOperation : InvertedForm {
  static constexpr char const* kName = "PReLU_Fallback_Float_M1";

  bool Config(LayerPtr const& layer, ParamPtr const&, ContextPtr const&) override {
    auto const* const info = dynamic_cast<ActivationInfo const*>(layer.get());
    if (info == nullptr || info->weight.empty()) return false;
    float first;
    std::size_t const bytes = runtime::support::DecodeBase64(info->weight, &first, sizeof first);
    if (bytes < sizeof first) {
      utility::Refuse("%s of layer %s: weight holds %zu bytes, the slope needs %zu", kName, info->id.c_str(), bytes,
                      sizeof first);
    }
    slope = first;
    return true;
  }

  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs, ContextPtr const&) const override {
    std::shared_ptr<runtime::Tensor> inout = support::Input(kernel, inputs, 0);
    functional::PReLU_F32(inout, slope);
    // In place: the result is the input's own tensor. The caller may pass one list as both.
    if (&outputs != &inputs) outputs = inputs;
    return 0;
  }

  float slope = 0.25f;
};

struct SqrtOperation : PlainActivation<StrictForm, functional::sqrt_f32> {
  static constexpr char const* kName = "Sqrt_Fallback_Float_M1";
};

struct LogOperation : PlainActivation<StrictForm, functional::log_f32> {
  static constexpr char const* kName = "Log_Fallback_Float_M1";
};

struct ErfOperation : PlainActivation<StrictForm, functional::erf_f32> {
  static constexpr char const* kName = "Erf_Fallback_Float_M1";
};

struct ClipOperation : support::Strict<ClipInfo> {
  static constexpr char const* kName = "Clip_Fallback_Float_M1";

  bool Config(LayerPtr const& layer, ParamPtr const&, ContextPtr const&) override {
    auto const& info = support::As<ClipInfo>(kName, layer);
    low = info.minimum_value;
    high = info.maximum_value;
    return true;
  }

  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    return MapInput(kernel, inputs, outputs, context, [this](float const* in, unsigned int count, float* out) {
      functional::clip_f32(in, count, low, high, out);
    });
  }

  float low = ClipInfo().minimum_value, high = ClipInfo().maximum_value;
};

struct PReluChannelOperation : StrictForm {
  static constexpr char const* kName = "PReLUChannel_Fallback_CHW_Float_M1";

  bool Config(LayerPtr const& layer, ParamPtr const&, ContextPtr const& context) override {
    auto const& info = support::As<ActivationInfo>(kName, layer);
    layer_id = info.id;
    if (info.num_parameters <= 0) {
      utility::Refuse("%s of layer %s: %d parameters, needs one for each channel", kName, layer_id.c_str(),
                      info.num_parameters);
    }
    slopes = support::DecodeWeights(kName, layer_id, "weight", info.weight,
                                    {static_cast<unsigned int>(info.num_parameters)}, TensorShape::FLEXIABLE, context);
    return true;
  }

  int IsValidInput(Tensors const& inputs) const override {
    return support::JudgeOneImage(inputs, TensorShape::FLOAT32);
  }
  int IsValidOutput(Tensors const& outputs) const override {
    return support::JudgeOneImage(outputs, TensorShape::FLOAT32);
  }

  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    support::NeedsConfig(kernel);
    auto const x = support::Input({kName, layer_id}, inputs, 0, 3);
    auto const& dims = x->shape.dims;
    // More slopes than channels do no harm.
    if (dims[0] > slopes->shape.dims[0]) {
      utility::Refuse("%s of layer %s: input 0 has dims %s, there are %u slopes", kName, layer_id.c_str(),
                      runtime::DimsText(dims).c_str(), slopes->shape.dims[0]);
    }
    auto const y = support::NewOutput(kernel, inputs, context);
    std::size_t const plane = std::size_t{dims[1]} * dims[2];
    for (std::size_t c = 0; c < dims[0]; ++c) {
      rows::LeakyRow(slopes->Data<float>()[c], x->Data<float>() + c * plane, plane, y->Data<float>() + c * plane);
    }
    outputs.assign(1, y);
    return 0;
  }

  std::string layer_id;
  support::TensorPtr slopes;
};

template OperationPtr MakeOperation<ReluOperation>();
template OperationPtr MakeOperation<Relu6Operation>();
template OperationPtr MakeOperation<SigmoidOperation>();
template OperationPtr MakeOperation<TanhOperation>();
template OperationPtr MakeOperation<HSigmoidOperation>();
template OperationPtr MakeOperation<HSwishOperation>();
template OperationPtr MakeOperation<LeakyOperation>();
template OperationPtr MakeOperation<LinearOperation>();
template OperationPtr MakeOperation<PReluOperation>();
template OperationPtr MakeOperation<SqrtOperation>();
template OperationPtr MakeOperation<LogOperation>();
template OperationPtr MakeOperation<ErfOperation>();
template OperationPtr MakeOperation<ClipOperation>();
template OperationPtr MakeOperation<PReluChannelOperation>();

}  // namespace talvo::kernel
