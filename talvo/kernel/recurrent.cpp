#include "talvo/kernel/recurrent.h"

#include <algorithm>

#include "talvo/kernel/kernel_support.h"
#include "talvo/kernel/recurrent_support.h"
#include "talvo/kernel/rows/matrix_product.h"
#include "talvo/utility/log.h"

namespace talvo::kernel {

using recurrent::TensorPtr;
using runtime::TensorShape;
using support::ContextPtr;
using support::Tensors;
using utility::Assert;
using utility::StrFormat;

namespace {

constexpr std::size_t kPackFrom = 4;      // steps from which packed weights pay
constexpr std::size_t kStepsAtOnce = 64;  // steps whose input products are made together

// y = W x + bias for row after row. Where the order of the sums is ours and the rows are many, W is packed once.
template <class Variant>
class RowProduct {
 public:
  RowProduct(TensorPtr const& weight, TensorPtr const& bias, std::size_t rows, runtime::DeviceCPU& device)
      : outputs_(weight->shape.dims[0]),
        inputs_(weight->shape.dims[1]),
        weight_(weight->Data<float>()),
        bias_(bias != nullptr ? bias->Data<float>() : nullptr) {
    if (!Variant::kOrdered || rows < kPackFrom) return;
    packed_ = device.CreateF32FlexiableMainMemory({static_cast<unsigned int>(rows::PackedOutputs(outputs_)), inputs_},
                                                  nullptr);
    rows::PackWeights(weight_, outputs_, inputs_, packed_->Data<float>());
  }

  void Run(float const* x, std::size_t rows, float* y) const {
    if (packed_ != nullptr) {
      rows::PackedProduct(packed_->Data<float>(), x, bias_, rows, outputs_, inputs_, y);
    } else {
      for (std::size_t r = 0; r < rows; ++r) {
        Variant::kConnect(x + r * inputs_, inputs_, outputs_, weight_, bias_, y + r * outputs_);
      }
    }
  }

 private:
  unsigned int outputs_, inputs_;
  float const *weight_, *bias_;
  TensorPtr packed_;
};

// One layer in one direction: x [steps, in_size] to hidden states, one every y_stride floats. h and c [hidden_size] are
// the state before and afterwards; c is null without cell state.
struct Pass {
  float const* x;
  std::size_t steps;
  bool reverse;
  float *y, *h, *c;
  std::size_t y_stride, hidden_size;
};

template <class Family, class Variant>
void RunPass(Pass const& pass, recurrent::Weights const& weights, runtime::DeviceCPU& device) {
  std::size_t const steps = pass.steps, size = pass.hidden_size, outputs = Family::kGates * size;
  RowProduct<Variant> const from_x(weights.weight_ih, weights.bias_ih, steps, device);
  RowProduct<Variant> const from_h(weights.weight_hh, weights.bias_hh, steps, device);
  auto const rows_at_once = static_cast<unsigned int>(std::min(steps, kStepsAtOnce));
  auto const gates = static_cast<unsigned int>(outputs);
  auto const a = device.CreateF32FlexiableMainMemory({rows_at_once, gates}, nullptr);
  auto const b = device.CreateF32CMainMemory(gates, nullptr);
  float const* h = pass.h;
  for (std::size_t done = 0; done < steps; done += rows_at_once) {
    std::size_t const rows = std::min<std::size_t>(rows_at_once, steps - done);
    std::size_t const first = pass.reverse ? steps - done - rows : done;
    from_x.Run(pass.x + first * weights.in_size, rows, a->Data<float>());
    for (std::size_t r = 0; r < rows; ++r) {
      std::size_t const row = pass.reverse ? rows - 1 - r : r;
      float* const h_new = pass.y + (first + row) * pass.y_stride;
      from_h.Run(h, 1, b->Data<float>());
      Family::Run({a->Data<float>() + row * outputs, b->Data<float>(), h, pass.c, h_new, size, recurrent::kTanh});
      h = h_new;
    }
  }
  if (h != pass.h) std::copy_n(h, size, pass.h);
}

constexpr char const* kDirections[] = {"forward", "reverse"};

// The texts of one stacked layer in one direction.
template <class Info>
recurrent::WeightTexts TextsOf(runtime::IKernel const& kernel, Info const& info, unsigned int direction,
                               std::size_t layer) {
  auto const entry = [&](char const* name, auto const& forward, auto const& reverse) -> std::string const& {
    auto const& texts = direction == 0 ? forward : reverse;
    if (layer >= texts.size()) {
      Assert(false, "%s of layer %s: %s_%s has %zu entries, %u layers need as many", kernel.GetName().c_str(),
             info.id.c_str(), name, kDirections[direction], texts.size(), unsigned{info.num_layers});
    }
    return texts[layer];
  };
  return {entry("weight_ih", info.weight_ih_forward, info.weight_ih_reverse),
          entry("weight_hh", info.weight_hh_forward, info.weight_hh_reverse),
          info.if_bias ? &entry("bias_ih", info.bias_ih_forward, info.bias_ih_reverse) : nullptr,
          info.if_bias ? &entry("bias_hh", info.bias_hh_forward, info.bias_hh_reverse) : nullptr};
}

bool IsSequence(runtime::Tensor const& tensor, unsigned int width) {
  return support::IsInMainMemory(tensor, TensorShape::FLOAT32) && tensor.shape.dims.size() >= 2 &&
         tensor.shape.dims[1] == width;
}

}  // namespace

template <class Family, class Variant>
std::string RecurrentSequence<Family, Variant>::GetName() const {
  return std::string(Family::kName) + "_" + Variant::kName + "_SC_F32_M1";
}

template <class Family, class Variant>
int RecurrentSequence<Family, Variant>::IsValidParam(std::shared_ptr<runtime::LayerInfo> layer,
                                                     std::shared_ptr<runtime::InferenceParam> param) const {
  if (param != nullptr) return -1;
  auto const info = std::dynamic_pointer_cast<typename Family::Info>(layer);
  if (info == nullptr) return -2;
  if (info->in_size == 0) return -3;
  if (info->hidden_size == 0) return -4;
  if (info->num_layers == 0) return -5;
  return recurrent::KnowsActivation(Family::Activation(*info)) ? 0 : -6;
}

template <class Family, class Variant>
bool RecurrentSequence<Family, Variant>::Config(std::shared_ptr<runtime::LayerInfo> layer,
                                                std::shared_ptr<runtime::InferenceParam> param, ContextPtr context) {
  configured_ = false;
  if (IsValidParam(layer, param) != 0) return false;
  auto const& info = dynamic_cast<typename Family::Info const&>(*layer);
  unsigned int const directions = info.bidirectional ? 2 : 1;
  CheckState(info.id, info.in_size, info.hidden_size, directions, info.num_layers);
  layer_id_ = info.id;
  in_size_ = info.in_size;
  hidden_size_ = info.hidden_size;
  directions_ = directions;
  num_layers_ = info.num_layers;
  complex_rnn_type_ = info.complex_rnn_type;
  unsigned int const above = complex_rnn_type_ != 0 ? hidden_size_ : directions_ * hidden_size_;
  for (unsigned int d = 0; d < 2; ++d) {
    layers_[d].clear();
    for (std::size_t l = 0; d < directions_ && l < num_layers_; ++l) {
      layers_[d].push_back(recurrent::DecodeLayer(*this, layer_id_, StrFormat("%s %zu: ", kDirections[d], l),
                                                  TextsOf(*this, info, d, l), l == 0 ? in_size_ : above, hidden_size_,
                                                  Family::kGates, context));
    }
  }
  configured_ = true;
  return true;
}

template <class Family, class Variant>
bool RecurrentSequence<Family, Variant>::IsConfigured() const {
  return configured_;
}

template <class Family, class Variant>
std::vector<TensorShape> RecurrentSequence<Family, Variant>::GetOutputShapes(
    std::vector<TensorShape> const& input_shapes) const {
  TensorShape const& input = support::ShapeAt(*this, input_shapes, 0);
  if (input.dims.empty()) Assert(false, "%s: an input without dims has no steps", GetName().c_str());
  return {TensorShape({input.dims[0], directions_ * hidden_size_}, TensorShape::FLOAT32, TensorShape::SC,
                      TensorShape::MainMemory, TensorShape::Extra())};
}

template <class Family, class Variant>
int RecurrentSequence<Family, Variant>::ResetRNNState() const {
  recurrent::Clear(state_);
  recurrent::Clear(cell_state_);
  return 0;
}

template <class Family, class Variant>
int RecurrentSequence<Family, Variant>::IsValidInput(Tensors const& inputs) const {
  return support::Judge(inputs, 1, [this](auto const& tensor) { return IsSequence(tensor, in_size_); });
}

template <class Family, class Variant>
int RecurrentSequence<Family, Variant>::Forward(Tensors const& inputs, Tensors& outputs, ContextPtr context) const {
  if (!configured_) Assert(false, "%s: Forward before Config", GetName().c_str());
  auto const x = support::Input(*this, inputs, 0);
  auto const& dims = x->shape.dims;
  if (dims.size() < 2 || dims[1] != in_size_ || support::Count(*x) / in_size_ < dims[0]) {
    Assert(false, "%s of layer %s: input has dims %s, needs [steps, %u]", GetName().c_str(), layer_id_.c_str(),
           runtime::DimsText(dims).c_str(), in_size_);
  }
  if (directions_ == 2 && complex_rnn_type_ != 0) Assert(false, "Not Implemented.");
  auto& device = support::Device(*this, context);
  auto const y = support::NewOutput(*this, inputs, context);
  MakeState(device);
  TensorPtr below = x;
  for (std::size_t l = 0; l < num_layers_; ++l) {
    TensorPtr const above = l + 1 == num_layers_ ? y : device.CreateTensor(y->shape, nullptr);
    RunLayer(l, *below, *above, device);
    below = above;
  }
  outputs.assign(1, y);
  return 0;
}

template <class Family, class Variant>
int RecurrentSequence<Family, Variant>::IsValidOutput(Tensors const& outputs) const {
  return support::Judge(outputs, 1, [this](auto const& tensor) {
    return tensor.shape.layout == TensorShape::SC && IsSequence(tensor, directions_ * hidden_size_);
  });
}

template <class Family, class Variant>
void RecurrentSequence<Family, Variant>::CheckState(std::string const& layer_id, unsigned int in_size,
                                                    unsigned int hidden_size, unsigned int directions,
                                                    unsigned int num_layers) const {
  bool const same =
      in_size == in_size_ && hidden_size == hidden_size_ && directions == directions_ && num_layers == num_layers_;
  if (state_ == nullptr || same) return;
  Assert(false,
         "%s of layer %s: in_size %u, hidden_size %u, %u directions and %u layers while a state of %u, %u, %u and %u "
         "is alive",
         GetName().c_str(), layer_id.c_str(), in_size, hidden_size, directions, num_layers, in_size_, hidden_size_,
         directions_, num_layers_);
}

template <class Family, class Variant>
void RecurrentSequence<Family, Variant>::MakeState(runtime::DeviceCPU& device) const {
  if (state_ != nullptr) return;
  std::vector<unsigned int> const dims = {directions_ * num_layers_, hidden_size_};
  auto const state = device.CreateZeroF32FlexiableMainMem(dims);
  if (Family::kHasCellState) cell_state_ = device.CreateZeroF32FlexiableMainMem(dims);
  state_ = state;  // both or none, when memory runs out: CheckState looks at this one
}

// The order of layers and steps changes no value: a layer reads what the one below gave for the same step.
template <class Family, class Variant>
void RecurrentSequence<Family, Variant>::RunLayer(std::size_t layer, runtime::TensorCPU const& below,
                                                  runtime::TensorCPU const& above, runtime::DeviceCPU& device) const {
  for (std::size_t d = 0; d < directions_; ++d) {
    std::size_t const row = (layer * directions_ + d) * hidden_size_;
    Pass pass = {};
    pass.x = below.Data<float>();
    pass.steps = above.shape.dims[0];
    pass.reverse = d == 1;
    pass.y = above.Data<float>() + d * hidden_size_;
    pass.y_stride = std::size_t{directions_} * hidden_size_;
    pass.h = state_->template Data<float>() + row;
    pass.c = Family::kHasCellState ? cell_state_->template Data<float>() + row : nullptr;
    pass.hidden_size = hidden_size_;
    RunPass<Family, Variant>(pass, layers_[d][layer], device);
  }
}

template class RecurrentSequence<recurrent::Rnn, recurrent::Fallback>;
template class RecurrentSequence<recurrent::Rnn, recurrent::Sgemm>;
template class RecurrentSequence<recurrent::Rnn, recurrent::Arm>;
template class RecurrentSequence<recurrent::Lstm, recurrent::Fallback>;
template class RecurrentSequence<recurrent::Lstm, recurrent::Sgemm>;
template class RecurrentSequence<recurrent::Lstm, recurrent::Arm>;
template class RecurrentSequence<recurrent::Gru, recurrent::Fallback>;
template class RecurrentSequence<recurrent::Gru, recurrent::Sgemm>;
template class RecurrentSequence<recurrent::Gru, recurrent::Arm>;

}  // namespace talvo::kernel
