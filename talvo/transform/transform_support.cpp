#include "talvo/transform/transform_support.h"

#include "talvo/utility/refuse_support.h"

namespace talvo::kernel::support {

TensorPtr GivenOutput(Who const& who, Tensors const& outputs, std::size_t bytes) {
  auto output = std::dynamic_pointer_cast<runtime::TensorCPU>(outputs[0]);
  std::size_t const held = output == nullptr || output->data == nullptr ? 0 : runtime::ByteCount(output->shape);
  if (output == nullptr || held < bytes) {
    utility::Refuse("%s: the given output %s %zu bytes, needs %zu", who.Text().c_str(),
                    output == nullptr ? "is no CPU tensor and holds" : "holds", held, bytes);
  }
  return output;
}

}  // namespace talvo::kernel::support
