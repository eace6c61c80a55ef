#include "talvo/transform/permute.h"

#include "talvo/kernel/kernel_of_support.h"
#include "talvo/kernel/native/permute.h"
#include "talvo/runtime/tensor_cpu_support.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "talvo/transform/transform_support.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::kernel {

struct PermuteOperation : support::Strict<runtime::TensorTransposeInfo> {
  static constexpr char const* kName = "Transform_MainMemory_Permute_Fallback";

  bool Config(LayerPtr const& layer, ParamPtr const&, ContextPtr const&) override {
    auto const& entries = support::As<runtime::TensorTransposeInfo>(kName, layer).axes;
    layer_id = layer->id;
    axes.clear();
    // Entry 0 is the batch, which tensors do not have; the axes behind it count from 1.
    for (std::size_t i = 1; i < entries.size(); ++i) {
      if (entries[i] == 0) {
        Refuse("%s: entry %zu of %zu axes is 0, the batch axis, which stands in front only", Who().Text().c_str(), i,
               entries.size());
      }
      axes.push_back(entries[i] - 1u);
    }
    return true;
  }

  Shapes GetOutputShapes(Shapes const& shapes) const override {
    TensorShape const& input = support::ShapeAt(Who(), shapes, 0);
    std::vector<unsigned int> dims;
    for (unsigned int const axis : axes) {
      if (axis >= input.dims.size()) {
        Refuse("%s: dims %s have no axis %u", Who().Text().c_str(), runtime::DimsText(input.dims).c_str(), axis);
      }
      dims.push_back(input.dims[axis]);
    }
    return support::OneShape(std::move(dims), input.data_type, TensorShape::FLEXIABLE, input.location);
  }

  int IsValidInput(Tensors const& inputs) const override {
    return support::Judge(inputs, 1, support::LiesInMainMemory);
  }

  // The tests of the form on bare memory in their order, and then those that name the layer, before memory is taken.
  void Check(runtime::TensorCPU const& input, bool has_destination) const {
    if (input.data == nullptr) Refuse("Input shared pointer is null.");
    if (!has_destination) Refuse("Output shared pointer is null.");
    if (input.shape.dims.size() != axes.size()) Refuse("dimensions of shape must be equal to tranpose axes's.");
    std::vector<bool> seen(axes.size());
    for (unsigned int const axis : axes) {
      if (axis >= axes.size() || seen[axis]) {
        Refuse("%s: axis %u of dims %s is out of range or repeated", Who().Text().c_str(), axis,
               runtime::DimsText(input.shape.dims).c_str());
      }
      seen[axis] = true;
    }
    support::CheckTensor(Who(), "input 0", &input, {1});
  }

  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    support::NeedsConfig(kernel);
    auto const input = inputs.empty() ? nullptr : std::dynamic_pointer_cast<runtime::TensorCPU>(inputs[0]);
    if (input == nullptr) support::RefuseTensor(Who(), "input 0", nullptr, {});
    // A null output is refused below, by name; one without memory in the words of the form on bare memory.
    Check(*input, outputs.empty() || outputs[0] == nullptr || outputs[0]->data != nullptr);
    if (outputs.empty()) {
      support::Device(Who(), context);
      outputs.push_back(functional::Transform_MainMemory_Permute_Fallback(input, axes, context->device_cpu));
      return 0;
    }
    TensorPtr const output = support::GivenOutput(Who(), outputs, runtime::ByteCount(input->shape));
    native::Transform_MainMemory_Permute_Fallback(input->data, input->shape.dims,
                                                  runtime::ElementSize(input->shape.data_type), axes, output->data);
    return 0;
  }

  int IsValidOutput(Tensors const& outputs) const override { return IsValidInput(outputs); }

  support::Who Who() const { return {kName, layer_id}; }

  std::string layer_id;
  std::vector<unsigned int> axes;
};

template OperationPtr MakeOperation<PermuteOperation>();

namespace functional {

TensorPtr Transform_MainMemory_Permute_Fallback(TensorPtr const& input, std::vector<unsigned int> const& axes,
                                                std::shared_ptr<runtime::DeviceCPU> const& device) {
  if (input == nullptr || device == nullptr) Refuse("%s: the input or the device is null", __func__);
  return runtime::PermuteTensor(*input, axes, *device);
}

}  // namespace functional

}  // namespace talvo::kernel
