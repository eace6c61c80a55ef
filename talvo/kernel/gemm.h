// The kernels that multiply matrices: pointwise convolution by the matrix product of the platform, and full connections
// by that product or by sums whose order is fixed.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "talvo/runtime/kernel.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/utility/export.h"

namespace talvo::kernel {

/// Convolution with a 1x1 kernel, stride 1 and no padding, as one product of W [out_channels, in_channels] with
/// x [in_channels, H * W]; the bias is added behind the product. Config takes such a Conv2dInfo without inference
/// parameter and with non-zero channels and groups. W is one dense matrix whatever `groups` says. A bias is not added
/// to an input whose layout is not CHW. Assert in Config: weights or bias with fewer bytes than that, a bias where the
/// channels do not divide by the groups. Assert in Forward, with kernel, layer and numbers: no Config before, elements
/// of fewer than 4 bytes, a rank other than 3, other channels.
class TALVO_API Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1 : public runtime::IKernel {
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
  std::string layer_id_;
  unsigned int in_channels_ = 0, out_channels_ = 0;
  std::shared_ptr<runtime::TensorCPU> weight_, bias_;  // [1, out, in, 1, 1]; [groups, out / groups], null without bias
};

/// The product alone: output [M, H, W] = weight [M, K] input [K, H, W], of which weight may have further dims.
/// Assert: a null tensor or one without memory, elements of fewer than 4 bytes, ranks or extents that do not fit.
TALVO_API void Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1_Convolution(std::shared_ptr<runtime::TensorCPU> input,
                                                                       std::shared_ptr<runtime::TensorCPU> output,
                                                                       std::shared_ptr<runtime::TensorCPU> weight);

/// y = W x + bias for x [in_features] and W [out_features, in_features], layout C. Step has the registered name and the
/// free form that computes. Config takes a FullConnectionInfo without inference parameter and with non-zero features.
/// Assert in Config: weights or bias with fewer bytes than the features need. Assert in Forward, with kernel, layer and
/// numbers: no Config before, an input with fewer elements than `in_features`.
template <class Step>
class TALVO_API FullConnection : public runtime::IKernel {
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
  std::string layer_id_;
  unsigned int in_features_ = 0, out_features_ = 0;
  std::shared_ptr<runtime::TensorCPU> weight_, bias_;  // [out_features, in_features]; [out_features], null without bias
};

struct FallbackFullConnectionStep {
  static constexpr char const* kName = "FullConnection_Fallback_C_Float_M1";
  static void Run(float const* in, unsigned int in_count, unsigned int out_count, float const* weight,
                  float const* bias, float* out);
};

struct SgemmFullConnectionStep {
  static constexpr char const* kName = "FullConnection_SGEMM_C_Float_M1";
  static void Run(float const* in, unsigned int in_count, unsigned int out_count, float const* weight,
                  float const* bias, float* out);
};

extern template class TALVO_API FullConnection<FallbackFullConnectionStep>;
extern template class TALVO_API FullConnection<SgemmFullConnectionStep>;

using FullConnection_Fallback_C_Float_M1 = FullConnection<FallbackFullConnectionStep>;
using FullConnection_SGEMM_C_Float_M1 = FullConnection<SgemmFullConnectionStep>;

}  // namespace talvo::kernel
