#include "talvo/runtime/kernel.h"

namespace talvo::runtime {

IKernel::~IKernel() = default;

int IKernel::PrepareForward(std::shared_ptr<Context> const&, std::vector<std::shared_ptr<Tensor>> const&, bool const&,
                            std::vector<std::shared_ptr<Tensor>>&) {
  return 0;
}

int IKernel::ResetRNNState() const { return -4; }

}  // namespace talvo::runtime
