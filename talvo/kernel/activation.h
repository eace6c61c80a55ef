// The nine activation kernels: FLOAT32 tensors in main memory of any layout, taken as a flat run of elements. The
// arithmetic is that of kernel/functional/activation.h.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "talvo/runtime/kernel.h"
#include "talvo/utility/export.h"

namespace talvo::kernel {

/// Which judgement a kernel passes on its layer. Strict: 0 for an ActivationInfo without inference parameter, -1
/// otherwise, and Config refuses -1. Inverted: 0 when neither is given, -1 otherwise, and Config refuses 0, so that any
/// layer is good.
enum class ParamForm { kStrict, kInverted };

/// One activation that writes a new tensor. Step has the registered name, the form of the judgement, Read, which takes
/// the parameters from the layer and says whether it could, and Run, which computes a row.
/// Assert in Forward: no input, no context, elements of fewer than 4 bytes.
template <class Step>
class TALVO_API Activation : public runtime::IKernel {
 public:
  std::string GetName() const override;
  int IsValidParam(std::shared_ptr<runtime::LayerInfo> layer,
                   std::shared_ptr<runtime::InferenceParam> param) const override;
  bool Config(std::shared_ptr<runtime::LayerInfo> layer, std::shared_ptr<runtime::InferenceParam> param,
              std::shared_ptr<runtime::Context> context) override;
  bool IsConfigured() const override;
  std::vector<runtime::TensorShape> GetOutputShapes(
      std::vector<runtime::TensorShape> const& input_shapes) const override;
  int IsValidInput(std::vector<std::shared_ptr<runtime::Tensor>> const& inputs) const override;
  int Forward(std::vector<std::shared_ptr<runtime::Tensor>> const& inputs,
              std::vector<std::shared_ptr<runtime::Tensor>>& outputs,
              std::shared_ptr<runtime::Context> context) const override;
  int IsValidOutput(std::vector<std::shared_ptr<runtime::Tensor>> const& outputs) const override;

 private:
  bool configured_ = false;
  Step step_;
};

/// A step without parameters reads nothing: every layer will do.
struct TALVO_API NoParameters {
  bool Read(runtime::LayerInfo const* layer);
};

struct TALVO_API ReluStep : NoParameters {
  static constexpr char const* kName = "ReLU_Fallback_Float_M1";
  static constexpr ParamForm kForm = ParamForm::kStrict;
  void Run(float const* in, unsigned int count, float* out) const;
};

struct TALVO_API Relu6Step : NoParameters {
  static constexpr char const* kName = "ReLU6_Fallback_Float_M1";
  static constexpr ParamForm kForm = ParamForm::kInverted;
  void Run(float const* in, unsigned int count, float* out) const;
};

struct TALVO_API SigmoidStep : NoParameters {
  static constexpr char const* kName = "Sigmoid_Fallback_Float_M1";
  static constexpr ParamForm kForm = ParamForm::kStrict;
  void Run(float const* in, unsigned int count, float* out) const;
};

struct TALVO_API TanhStep : NoParameters {
  static constexpr char const* kName = "TanH_Fallback_Float_M1";
  static constexpr ParamForm kForm = ParamForm::kStrict;
  void Run(float const* in, unsigned int count, float* out) const;
};

struct TALVO_API HSigmoidStep : NoParameters {
  static constexpr char const* kName = "HSigmoid_Fallback_Float_M1";
  static constexpr ParamForm kForm = ParamForm::kStrict;
  void Run(float const* in, unsigned int count, float* out) const;
};

struct TALVO_API HSwishStep : NoParameters {
  static constexpr char const* kName = "HSwish_Fallback_Float_M1";
  static constexpr ParamForm kForm = ParamForm::kStrict;
  void Run(float const* in, unsigned int count, float* out) const;
};

/// alpha is `activation_alpha`, exactly widened. A layer that is no ActivationInfo cannot be read.
struct TALVO_API LeakyStep {
  static constexpr char const* kName = "Leaky_Fallback_Float_M1";
  static constexpr ParamForm kForm = ParamForm::kInverted;
  bool Read(runtime::LayerInfo const* layer);
  void Run(float const* in, unsigned int count, float* out) const;
  float alpha = 0.1f;
};

/// scale is `activation_alpha`, offset `activation_beta`, exactly widened. A layer that is no ActivationInfo cannot be
/// read.
struct TALVO_API LinearStep {
  static constexpr char const* kName = "Linear_Fallback_Float_M1";
  static constexpr ParamForm kForm = ParamForm::kInverted;
  bool Read(runtime::LayerInfo const* layer);
  void Run(float const* in, unsigned int count, float* out) const;
  float scale = 1.0f, offset = 0.0f;
};

using ReLU_Fallback_Float_M1 = Activation<ReluStep>;
using ReLU6_Fallback_Float_M1 = Activation<Relu6Step>;
using Sigmoid_Fallback_Float_M1 = Activation<SigmoidStep>;
using TanH_Fallback_Float_M1 = Activation<TanhStep>;
using HSigmoid_Fallback_Float_M1 = Activation<HSigmoidStep>;
using HSwish_Fallback_Float_M1 = Activation<HSwishStep>;
using Leaky_Fallback_Float_M1 = Activation<LeakyStep>;
using Linear_Fallback_Float_M1 = Activation<LinearStep>;

extern template class TALVO_API Activation<ReluStep>;
extern template class TALVO_API Activation<Relu6Step>;
extern template class TALVO_API Activation<SigmoidStep>;
extern template class TALVO_API Activation<TanhStep>;
extern template class TALVO_API Activation<HSigmoidStep>;
extern template class TALVO_API Activation<HSwishStep>;
extern template class TALVO_API Activation<LeakyStep>;
extern template class TALVO_API Activation<LinearStep>;

/// x < 0 ? slope * x : x with one slope for all channels, in place: the outputs are the input tensors themselves, and
/// other readers of the input see the new values. The slope is the first float of `weight`; an empty `weight`, or a
/// layer that is no ActivationInfo, makes Config return false. The judgement has the inverted form.
/// Assert in Config: a `weight` of fewer than 4 bytes. Assert in Forward: no input, elements of fewer than 4 bytes.
class TALVO_API PReLU_Fallback_Float_M1 : public runtime::IKernel {
 public:
  std::string GetName() const override;
  int IsValidParam(std::shared_ptr<runtime::LayerInfo> layer,
                   std::shared_ptr<runtime::InferenceParam> param) const override;
  bool Config(std::shared_ptr<runtime::LayerInfo> layer, std::shared_ptr<runtime::InferenceParam> param,
              std::shared_ptr<runtime::Context> context) override;
  bool IsConfigured() const override;
  std::vector<runtime::TensorShape> GetOutputShapes(
      std::vector<runtime::TensorShape> const& input_shapes) const override;
  int IsValidInput(std::vector<std::shared_ptr<runtime::Tensor>> const& inputs) const override;
  int Forward(std::vector<std::shared_ptr<runtime::Tensor>> const& inputs,
              std::vector<std::shared_ptr<runtime::Tensor>>& outputs,
              std::shared_ptr<runtime::Context> context) const override;
  int IsValidOutput(std::vector<std::shared_ptr<runtime::Tensor>> const& outputs) const override;

 private:
  bool configured_ = false;
  float slope_ = 0.25f;
};

}  // namespace talvo::kernel
