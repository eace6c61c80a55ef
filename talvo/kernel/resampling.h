// Kernels that change the size of planes or sample them at given positions: upsampling, pixel shuffle, grid sampling.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "talvo/runtime/context.h"
#include "talvo/runtime/kernel.h"
#include "talvo/utility/export.h"

namespace talvo::kernel {

/// For Upsample2dInfo, nearest or bilinear; output C, floor(H scale_factor_y + 0.5), floor(W scale_factor_x + 0.5).
/// Assert: an unknown unsample_type; in Config, a scale that is negative or NaN; extents over 32 bits.
template <class Planes>
class TALVO_API Upsampling2D : public runtime::IKernel {
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
  float scale_factor_y_ = 0.0f, scale_factor_x_ = 0.0f;
  bool align_corner_ = false;
  std::string sampling_;
  short output_step_size_ = 0;
};

/// For PixelShuffleInfo: channels to pixels by trunc(upscale_factor) above 1, otherwise the reverse by
/// trunc(1 / upscale_factor). Assert, in GetOutputShapes: a factor of 0 or NaN, channels that are no multiple of the
/// square, extents over 32 bits.
template <class Planes>
class TALVO_API Pixelshuffle : public runtime::IKernel {
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
  float upscale_factor_ = 0.0f;
};

struct FloatPlanes;
struct Int16Planes;  // upsampling takes an InferenceParamUpsampling2DQuant and writes its step to the output shape

extern template class Upsampling2D<FloatPlanes>;
extern template class Upsampling2D<Int16Planes>;
extern template class Pixelshuffle<FloatPlanes>;
extern template class Pixelshuffle<Int16Planes>;

using Upsampling2D_Fallback_CHW_Float_M1 = Upsampling2D<FloatPlanes>;
using Upsampling2D_Fallback_CHW_Int16_M1 = Upsampling2D<Int16Planes>;
using Pixelshuffle_Fallback_CHW_Float_M1 = Pixelshuffle<FloatPlanes>;
using Pixelshuffle_Fallback_CHW_Int16_M1 = Pixelshuffle<Int16Planes>;

/// For GridSampleInfo; inputs are the planes and the grid [H, W, 2] of positions x, y in [-1, 1]; output C, H, W of the
/// grid. Assert: an unknown mode or padding_mode; a grid of rank below 2 or of fewer than 2 H W elements.
class TALVO_API GridSample_Fallback_CHW_Float_M1 : public runtime::IKernel {
 public:
  std::string GetName() const override;
  int IsValidParam(std::shared_ptr<runtime::LayerInfo> layer,
                   std::shared_ptr<runtime::InferenceParam> param) const override;
  bool Config(std::shared_ptr<runtime::LayerInfo> layer, std::shared_ptr<runtime::InferenceParam> param,
              std::shared_ptr<runtime::Context> context) override;
  bool IsConfigured() const override;
  std::vector<runtime::TensorShape> GetOutputShapes(
      std::vector<runtime::TensorShape> const& input_shapes) const override;
  /// A grid is refused only when it is both not of rank 3 and without an extent of 2 at axis 2.
  int IsValidInput(std::vector<std::shared_ptr<runtime::Tensor>> const& inputs) const override;
  int Forward(std::vector<std::shared_ptr<runtime::Tensor>> const& inputs,
              std::vector<std::shared_ptr<runtime::Tensor>>& outputs,
              std::shared_ptr<runtime::Context> context) const override;
  int IsValidOutput(std::vector<std::shared_ptr<runtime::Tensor>> const& outputs) const override;

 private:
  bool configured_ = false;
  std::string mode_, padding_mode_;
  bool align_corners_ = false;
};

}  // namespace talvo::kernel
