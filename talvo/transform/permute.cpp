#include "talvo/transform/permute.h"

#include "talvo/kernel/native/permute.h"
#include "talvo/runtime/tensor_cpu_support.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "talvo/transform/transform_support.h"
#include "talvo/utility/log.h"

namespace talvo::kernel {

using runtime::TensorShape;
using support::ContextPtr;
using support::TensorPtr;
using support::Tensors;
using utility::Assert;
using LayerPtr = std::shared_ptr<runtime::LayerInfo>;
using ParamPtr = std::shared_ptr<runtime::InferenceParam>;

namespace {

bool IsInMainMemory(runtime::Tensor const& tensor) { return tensor.shape.location == TensorShape::MainMemory; }

}  // namespace

std::string Transform_MainMemory_Permute_Fallback::GetName() const { return "Transform_MainMemory_Permute_Fallback"; }

int Transform_MainMemory_Permute_Fallback::IsValidParam(LayerPtr layer, ParamPtr param) const {
  return support::StrictParam<runtime::TensorTransposeInfo>(layer, param);
}

bool Transform_MainMemory_Permute_Fallback::Config(LayerPtr layer, ParamPtr param, ContextPtr) {
  configured_ = false;
  if (IsValidParam(layer, param) == -1) return false;
  auto const& axes = static_cast<runtime::TensorTransposeInfo const&>(*layer).axes;
  axes_.clear();
  for (std::size_t i = 1; i < axes.size(); ++i) {
    if (axes[i] == 0) {
      Assert(false, "%s of layer %s: entry %zu of %zu axes is 0, the batch axis, which stands in front only",
             GetName().c_str(), layer->id.c_str(), i, axes.size());
    }
    axes_.push_back(axes[i] - 1u);
  }
  configured_ = true;
  return true;
}

bool Transform_MainMemory_Permute_Fallback::IsConfigured() const { return configured_; }

std::vector<TensorShape> Transform_MainMemory_Permute_Fallback::GetOutputShapes(
    std::vector<TensorShape> const& input_shapes) const {
  TensorShape const& input = support::ShapeAt(*this, input_shapes, 0);
  std::vector<unsigned int> dims;
  for (unsigned int axis : axes_) {
    if (axis >= input.dims.size()) {
      Assert(false, "%s: dims %s have no axis %u", GetName().c_str(), runtime::DimsText(input.dims).c_str(), axis);
    }
    dims.push_back(input.dims[axis]);
  }
  return {TensorShape(std::move(dims), input.data_type, TensorShape::FLEXIABLE, input.location, TensorShape::Extra())};
}

int Transform_MainMemory_Permute_Fallback::IsValidInput(Tensors const& inputs) const {
  return support::Judge(inputs, 1, IsInMainMemory);
}

int Transform_MainMemory_Permute_Fallback::Forward(Tensors const& inputs, Tensors& outputs, ContextPtr context) const {
  TensorPtr const input = support::Input(*this, inputs, 0, support::kAnyRank, 1);
  if (outputs.empty()) {
    support::Device(*this, context);
    outputs.push_back(functional::Transform_MainMemory_Permute_Fallback(input, axes_, context->device_cpu));
    return 0;
  }
  TensorPtr const output = support::GivenOrNewOutput(*this, inputs, outputs, context, runtime::ByteCount(input->shape));
  native::Transform_MainMemory_Permute_Fallback(input->data, input->shape.dims,
                                                runtime::ElementSize(input->shape.data_type), axes_, output->data);
  return 0;
}

int Transform_MainMemory_Permute_Fallback::IsValidOutput(Tensors const& outputs) const {
  return support::Judge(outputs, 1, IsInMainMemory);
}

namespace functional {

TensorPtr Transform_MainMemory_Permute_Fallback(TensorPtr const& input, std::vector<unsigned int> const& axes,
                                                std::shared_ptr<runtime::DeviceCPU> const& device) {
  Assert(input != nullptr && device != nullptr, "%s: the input or the device is null", __func__);
  return runtime::PermuteTensor(*input, axes, *device);
}

}  // namespace functional

}  // namespace talvo::kernel
