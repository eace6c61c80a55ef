// Two-dimensional pooling of FLOAT32 CHW tensors.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "talvo/kernel/functional/pooling_support.h"
#include "talvo/runtime/kernel.h"
#include "talvo/utility/export.h"

namespace talvo::runtime {
class AdaptiveAvgPool2dInfo;
class AvgPool2dInfo;
class DeviceCPU;
class MaxPool2dInfo;
class TensorCPU;
}  // namespace talvo::runtime

namespace talvo::kernel {

/// Average over a window. Output extents truncate: (H - kernel_y + padding_t + padding_b) / stride_y + 1 in unsigned
/// 32-bit arithmetic; the layer's ceil_mode has no effect.
struct AveragePooling {
  static constexpr char const* kName = "Pooling2D_Avg_Fallback_Float_M1";
  using Info = runtime::AvgPool2dInfo;

  void Read(Info const& info);
  std::vector<unsigned int> OutputDims(std::vector<unsigned int> const& dims) const;
  void Check(runtime::TensorCPU const& input) const;
  void Run(runtime::TensorCPU const& input, runtime::TensorCPU const& output, runtime::DeviceCPU& device) const;

  std::string layer_id;  // for messages
  functional::PoolingWindow window = {};
  bool count_include_pad = false;
};

/// Maximum over a window. Output extents are computed in float32, rounded up with ceil_mode and down without.
struct MaximumPooling {
  static constexpr char const* kName = "Pooling2D_Max_Fallback_Float_M1";
  using Info = runtime::MaxPool2dInfo;

  void Read(Info const& info);
  std::vector<unsigned int> OutputDims(std::vector<unsigned int> const& dims) const;
  void Check(runtime::TensorCPU const& input) const;
  void Run(runtime::TensorCPU const& input, runtime::TensorCPU const& output, runtime::DeviceCPU& device) const;

  std::string layer_id;  // for messages
  functional::PoolingWindow window = {};
  bool ceil_mode = false;
};

/// Average over regions that cover the input, whatever its size.
struct AdaptiveAveragePooling {
  static constexpr char const* kName = "AdaptivePooling2D_Avg_Fallback_CHW_Float_M1";
  using Info = runtime::AdaptiveAvgPool2dInfo;

  void Read(Info const& info);  // Assert: fewer than two entries in output_size
  std::vector<unsigned int> OutputDims(std::vector<unsigned int> const& dims) const;
  void Check(runtime::TensorCPU const& input) const;
  void Run(runtime::TensorCPU const& input, runtime::TensorCPU const& output, runtime::DeviceCPU& device) const;

  std::string layer_id;  // for messages
  unsigned int out_height = 0, out_width = 0;
};

/// The kernel of one kind of pooling. Takes no InferenceParam; input and output are FLOAT32 CHW in main memory.
/// GetOutputShapes refuses a stride of 0; Forward a window larger than the padded input. Both texts name the layer.
template <class Kind>
class Pooling : public runtime::IKernel {
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
  Kind kind_;
};

extern template class TALVO_API Pooling<AveragePooling>;
extern template class TALVO_API Pooling<MaximumPooling>;
extern template class TALVO_API Pooling<AdaptiveAveragePooling>;

using Pooling2D_Avg_Fallback_Float_M1 = Pooling<AveragePooling>;
using Pooling2D_Max_Fallback_Float_M1 = Pooling<MaximumPooling>;
using AdaptivePooling2D_Avg_Fallback_CHW_Float_M1 = Pooling<AdaptiveAveragePooling>;

}  // namespace talvo::kernel
