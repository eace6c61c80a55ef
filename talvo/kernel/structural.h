// The kernels that move data without arithmetic, and softmax. `dim`, `slice_dims` and `new_shape` of their layers are
// written in the axes of the model, whose axis 0 is a batch that tensors do not have. In Forward each refuses through
// Assert, with its name and the numbers, tensors that it would read or write beyond their end.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "talvo/runtime/kernel.h"
#include "talvo/utility/export.h"

namespace talvo::kernel {

/// A kernel that hands its input tensors on as its outputs. Way has the registered name and what IsValidInput demands
/// of the one tensor. IsValidParam has the inverted form: 0 when neither layer nor parameter is given, -1 otherwise;
/// Config refuses 0, so that any layer is good.
template <class Way>
class TALVO_API PassThrough : public runtime::IKernel {
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
};

/// Where the application's tensors enter; any location.
struct TALVO_API InputWay {
  static constexpr char const* kName = "Input_Fallback_M1";
  static bool Accepts(runtime::Tensor const& tensor);
};

/// A layer without effect; main memory alone.
struct TALVO_API StraightWay {
  static constexpr char const* kName = "Straight_Through_Fallback_M1";
  static bool Accepts(runtime::Tensor const& tensor);
};

using Input_Fallback_M1 = PassThrough<InputWay>;
using Straight_Through_Fallback_M1 = PassThrough<StraightWay>;

extern template class TALVO_API PassThrough<InputWay>;
extern template class TALVO_API PassThrough<StraightWay>;

/// 128.0 in every element of a CHW tensor of the shape that the layer names; the inputs play no part.
class TALVO_API LayerPlaceholder_Fallback_Float_M1 : public runtime::IKernel {
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
  std::vector<unsigned short> output_shape_;
};

/// Joins two tensors or more of any element type along `dim`, counted from 0 as it stands. The result is FLEXIABLE.
/// GetOutputShapes compares the leading extents of the first two shapes for every axis, and Forward does not use it:
/// the shape of the result is that of functional::Concatenate_MainMemory_Fallback.
/// Assert in Forward: "Invalid forward input param", and for outputs that exist "Invalid forward output param" or "Not
/// Implemented.".
class TALVO_API Concatenate_MainMemory_Fallback : public runtime::IKernel {
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
  unsigned int axis_ = 0;
};

/// Joins tensors along the channels, the outermost axis of CHW, C4HW4 and C8HW8, by copying one behind the other;
/// packed tensors fill their blocks. `dim` must be 1, the channels of the model.
class TALVO_API Concatenate_C_Fallback_CnHWn_M1 : public runtime::IKernel {
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
};

/// Selects begin, begin + step, ... below end on each axis of a CHW tensor; see
/// functional::Function_TensorSlice_Fallback_CHW_Float_M1. A layer that IsValidParam refuses still configures the
/// kernel: only a missing or foreign one does not.
class TALVO_API Slice_Fallback_CHW_Float_M1 : public runtime::IKernel {
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
  std::string who_ = "Slice_Fallback_CHW_Float_M1";  // and the layer, once it is known
  std::vector<short> slice_dims_;
};

/// Spreads the one element of each channel over a plane; for any other input the output stays as the device made it.
/// See functional::Function_TensorExpand_Fallback_CHW_Float_M1. A layer that IsValidParam refuses still configures the
/// kernel: only a missing or foreign one does not.
/// Assert in GetOutputShapes: `new_shape` is not longer than the input's rank.
class TALVO_API Expand_Fallback_CHW_Float_M1 : public runtime::IKernel {
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
  std::vector<short> new_shape_;
};

/// Copies the tensor and inserts an axis of extent 1 into its dims; the layout stays. A layer that IsValidParam refuses
/// still configures the kernel: only a missing or foreign one does not.
/// Assert in GetOutputShapes, without a text: a position outside the result.
class TALVO_API UnSqueeze_Fallback_M1 : public runtime::IKernel {
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
  short dim_ = 0;
};

/// exp(x) / sum of exp(x) along axis `dim` - 1. exp in float, the sum in double and in ascending order, the quotient
/// in double; no maximum is subtracted, so that large inputs overflow. Assert in Forward: `dim` is 0 or above the rank.
class TALVO_API Softmax_Fallback_Float_M1 : public runtime::IKernel {
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
  unsigned short dim_ = 0;
};

}  // namespace talvo::kernel
