// Direct convolution of any kernel size, stride, dilation and group count in main memory. The result of a kernel is the
// same on every machine: the order of each sum is promised.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "talvo/runtime/kernel.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/utility/export.h"

namespace talvo::runtime {
class Conv1dInfo;
class Conv2dInfo;
class ConvTranspose2dInfo;
}  // namespace talvo::runtime

namespace talvo::kernel {

/// What a convolution takes from its layer. One dimension is a row: kernel_y = stride_y = dilation_y = 1, no padding at
/// the top and bottom. Channels that a division by the groups leaves over get no work.
struct ConvolutionFields {
  unsigned int kernel_x = 1, kernel_y = 1, stride_x = 1, stride_y = 1, dilation_x = 1, dilation_y = 1;
  unsigned int in_channels = 0, out_channels = 0, in_per_group = 0, out_per_group = 0, groups = 1;
  int padding_l = 0, padding_r = 0, padding_t = 0, padding_b = 0;
  bool if_bias = false;
};

struct Conv2dStep;
struct Conv1dStep;
struct ConvTranspose2dStep;

/// One input, one FLOAT32 output in main memory with `out_channels` channels; takes no InferenceParam. A result is the
/// bias (0 without one) + the sum over the input channels, each of whose products are summed from 0 in the order ky,
/// kx; the transposed form adds each product to the result by itself. Output channels beyond groups * out_per_group
/// hold 0. Config refuses weights and a bias that are too short; Forward refuses an input of another rank, type,
/// layout or channel count, a window larger than the padded input, and a bias of fewer values than output channels.
/// All refusals are Assert, with kernel, layer and numbers. GetOutputShapes computes in 32 bits and wraps.
template <class Step>
class TALVO_API DirectConvolution final : public runtime::IKernel {
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
  void CheckInput(runtime::TensorCPU const& input) const;
  void FillWithoutWork(runtime::TensorCPU const& output) const;

  bool configured_ = false;
  ConvolutionFields fields_;
  std::string layer_id_;  // for messages
  std::shared_ptr<runtime::TensorCPU> weight_, bias_;
};

extern template class TALVO_API DirectConvolution<Conv2dStep>;
extern template class TALVO_API DirectConvolution<Conv1dStep>;
extern template class TALVO_API DirectConvolution<ConvTranspose2dStep>;

/// CHW; weights [groups, out per group, in per group, kernel_y, kernel_x]. An output extent is
/// (extent + paddings - dilation * (kernel - 1) - 1) / stride + 1.
using Conv2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1 = DirectConvolution<Conv2dStep>;
/// CL; weights [groups, out per group, in per group, kernel_size]. The extent as above.
using Conv1D_Kn_Sn_Dn_Gn_Fallback_CL_Float_M1 = DirectConvolution<Conv1dStep>;
/// CHW; weights [groups, in per group, out per group, kernel_y, kernel_x]. The correlation, of stride 1, of the kernel
/// turned by 180 degrees with the input whose elements are `stride` apart and which has the paddings as borders of
/// nothing; they may be negative. An output extent is stride * extent + paddings - dilation * (kernel - 1).
using ConvTranspose2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1 = DirectConvolution<ConvTranspose2dStep>;

}  // namespace talvo::kernel
