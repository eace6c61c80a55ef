#include "talvo/transform/transform_support.h"

#include "talvo/utility/log.h"

namespace talvo::kernel::support {

TensorPtr GivenOrNewOutput(runtime::IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
                           ContextPtr const& context, std::size_t bytes) {
  if (outputs.empty()) {
    outputs.push_back(NewOutput(kernel, inputs, context));
    return std::static_pointer_cast<runtime::TensorCPU>(outputs[0]);
  }
  auto output = std::dynamic_pointer_cast<runtime::TensorCPU>(outputs[0]);
  std::size_t const held = output == nullptr || output->data == nullptr ? 0 : runtime::ByteCount(output->shape);
  if (output == nullptr || held < bytes) {
    utility::Assert(false, "%s: the given output %s %zu bytes, needs %zu", kernel.GetName().c_str(),
                    output == nullptr ? "is no CPU tensor and holds" : "holds", held, bytes);
  }
  return output;
}

}  // namespace talvo::kernel::support
