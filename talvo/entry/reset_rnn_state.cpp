#include "talvo/entry/reset_rnn_state.h"

#include <memory>

#include "talvo/runtime/kernel.h"

namespace talvo::utility {
namespace {

void Reset(std::shared_ptr<runtime::IKernel> const& kernel) {
  if (kernel != nullptr) kernel->ResetRNNState();
}

}  // namespace

void ResetRNNState(runtime::Net const& net) {
  for (auto const& layer : net.layers) {
    if (layer == nullptr) continue;
    for (auto const& converter : layer->input_converters) Reset(converter.second);
    Reset(layer->kernel);
    for (auto const& converter : layer->output_converters) Reset(converter.second);
  }
}

}  // namespace talvo::utility
