#include "talvo/kernel/recurrent_support.h"

#include <cstring>

#include "talvo/kernel/kernel_support.h"

namespace talvo::kernel::recurrent {

Weights DecodeLayer(runtime::IKernel const& kernel, std::string const& layer_id, std::string const& where,
                    WeightTexts const& texts, unsigned int in_size, unsigned int hidden_size, unsigned int gates,
                    std::shared_ptr<runtime::Context> const& context) {
  auto const decode = [&](char const* what, std::string const& text, std::vector<unsigned int> dims) {
    return support::DecodeWeights(kernel, layer_id, (where + what).c_str(), text, std::move(dims),
                                  runtime::TensorShape::FLEXIABLE, context);
  };
  unsigned int const outputs = gates * hidden_size;
  Weights weights;
  weights.in_size = in_size;
  weights.weight_ih = decode("weight_ih", texts.weight_ih, {outputs, in_size});
  weights.weight_hh = decode("weight_hh", texts.weight_hh, {outputs, hidden_size});
  if (texts.bias_ih != nullptr) weights.bias_ih = decode("bias_ih", *texts.bias_ih, {outputs});
  if (texts.bias_hh != nullptr) weights.bias_hh = decode("bias_hh", *texts.bias_hh, {outputs});
  return weights;
}

void Clear(TensorPtr const& state) {
  if (state != nullptr) std::memset(state->data, 0, runtime::ByteCount(state->shape));
}

}  // namespace talvo::kernel::recurrent
