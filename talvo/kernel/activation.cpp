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

// The input of an activation and the tensor that takes its results, as one row.
struct Row {
  Row(IKernel const& kernel, Tensors const& inputs, ContextPtr const& context)
      : x(support::Input(kernel, inputs, 0)),
        y(support::NewOutput(kernel, inputs, context)),
        in(x->Data<float>()),
        out(y->Data<float>()),
        count(runtime::ElementCount(x->shape.dims)) {}

  support::TensorPtr x, y;
  float const* in;
  float* out;
  unsigned int count;
};

using Map = void (*)(float const*, unsigned int const&, float*);

// An activation without parameters.
template <class Form>
struct PlainActivation : Form {
  explicit PlainActivation(Map of) : map(of) {}

  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    Row const row(kernel, inputs, context);
    map(row.in, row.count, row.out);
    return support::Give(row.y, outputs);
  }

  Map const map;
};

using StrictForm = support::Strict<ActivationInfo>;
using InvertedForm = support::Inverted;
using StrictActivation = PlainActivation<StrictForm>;

}  // namespace

struct ReluOperation {
  using Body = StrictActivation;
  static constexpr char const* kName = "ReLU_Fallback_Float_M1";
  static constexpr Map kForm = functional::relu_f32;
};

struct Relu6Operation {
  using Body = PlainActivation<InvertedForm>;
  static constexpr char const* kName = "ReLU6_Fallback_Float_M1";
  static constexpr Map kForm = functional::relu6_f32;
};

struct SigmoidOperation {
  using Body = StrictActivation;
  static constexpr char const* kName = "Sigmoid_Fallback_Float_M1";
  static constexpr Map kForm = functional::sigmoid_f32;
};

struct TanhOperation {
  using Body = StrictActivation;
  static constexpr char const* kName = "TanH_Fallback_Float_M1";
  static constexpr Map kForm = functional::tanh_f32;
};

struct HSigmoidOperation {
  using Body = StrictActivation;
  static constexpr char const* kName = "HSigmoid_Fallback_Float_M1";
  static constexpr Map kForm = functional::hsigmoid_f32;
};

struct HSwishOperation {
  using Body = StrictActivation;
  static constexpr char const* kName = "HSwish_Fallback_Float_M1";
  static constexpr Map kForm = functional::hswish_f32;
};

struct SqrtOperation {
  using Body = StrictActivation;
  static constexpr char const* kName = "Sqrt_Fallback_Float_M1";
  static constexpr Map kForm = functional::sqrt_f32;
};

struct LogOperation {
  using Body = StrictActivation;
  static constexpr char const* kName = "Log_Fallback_Float_M1";
  static constexpr Map kForm = functional::log_f32;
};

struct ErfOperation {
  using Body = StrictActivation;
  static constexpr char const* kName = "Erf_Fallback_Float_M1";
  static constexpr Map kForm = functional::erf_f32;
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
    Row const row(kernel, inputs, context);
    functional::leaky_f32(row.in, row.count, alpha, row.out);
    return support::Give(row.y, outputs);
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
    Row const row(kernel, inputs, context);
    functional::linear_f32(row.in, row.count, scale, offset, row.out);
    return support::Give(row.y, outputs);
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
    Row const row(kernel, inputs, context);
    functional::clip_f32(row.in, row.count, low, high, row.out);
    return support::Give(row.y, outputs);
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
    return support::Give(y, outputs);
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
