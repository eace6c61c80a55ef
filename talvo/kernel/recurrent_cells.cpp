#include <cstring>

#include "talvo/kernel/kernel_support.h"
#include "talvo/kernel/recurrent.h"
#include "talvo/kernel/recurrent_support.h"
#include "talvo/utility/log.h"

namespace talvo::kernel {

using recurrent::TensorPtr;
using runtime::TensorShape;
using support::ContextPtr;
using support::Tensors;
using utility::Assert;

namespace {

int JudgeVector(Tensors const& tensors, unsigned int size) {
  return support::Judge(tensors, 1, [size](runtime::Tensor const& tensor) {
    return support::IsInMainMemory(tensor, TensorShape::FLOAT32, TensorShape::C) && !tensor.shape.dims.empty() &&
           tensor.shape.dims[0] == size;
  });
}

}  // namespace

template <class Family, class Variant>
std::string RecurrentCell<Family, Variant>::GetName() const {
  return std::string(Family::kName) + "Cell_" + Variant::kName + "_C_F32_M1";
}

template <class Family, class Variant>
int RecurrentCell<Family, Variant>::IsValidParam(std::shared_ptr<runtime::LayerInfo> layer,
                                                 std::shared_ptr<runtime::InferenceParam> param) const {
  if (param != nullptr) return -1;
  auto const info = std::dynamic_pointer_cast<typename Family::CellInfo>(layer);
  if (info == nullptr) return -2;
  if (info->in_size == 0) return -3;
  if (info->hidden_size == 0) return -4;
  return recurrent::KnowsActivation(Family::Activation(*info)) ? 0 : -5;
}

template <class Family, class Variant>
bool RecurrentCell<Family, Variant>::Config(std::shared_ptr<runtime::LayerInfo> layer,
                                            std::shared_ptr<runtime::InferenceParam> param, ContextPtr context) {
  configured_ = false;
  if (IsValidParam(layer, param) != 0) return false;
  auto const& info = dynamic_cast<typename Family::CellInfo const&>(*layer);
  if (state_ != nullptr && (info.in_size != weights_.in_size || info.hidden_size != hidden_size_)) {
    Assert(false, "%s of layer %s: in_size %u and hidden_size %u while a state of %u and %u is alive",
           GetName().c_str(), info.id.c_str(), unsigned{info.in_size}, unsigned{info.hidden_size}, weights_.in_size,
           hidden_size_);
  }
  layer_id_ = info.id;
  hidden_size_ = info.hidden_size;
  activation_ = Family::Activation(info);
  weights_ = recurrent::DecodeLayer(
      *this, layer_id_, "",
      {info.weight_ih, info.weight_hh, info.if_bias ? &info.bias_ih : nullptr, info.if_bias ? &info.bias_hh : nullptr},
      info.in_size, hidden_size_, Family::kGates, context);
  if (!Family::kHasCellState && state_ == nullptr) {
    state_ = support::Device(*this, context).CreateZeroF32CMainMem(hidden_size_);
  }
  configured_ = true;
  return true;
}

template <class Family, class Variant>
bool RecurrentCell<Family, Variant>::IsConfigured() const {
  return configured_;
}

template <class Family, class Variant>
std::vector<TensorShape> RecurrentCell<Family, Variant>::GetOutputShapes(std::vector<TensorShape> const&) const {
  return {
      TensorShape({hidden_size_}, TensorShape::FLOAT32, TensorShape::C, TensorShape::MainMemory, TensorShape::Extra())};
}

template <class Family, class Variant>
int RecurrentCell<Family, Variant>::ResetRNNState() const {
  recurrent::Clear(state_);
  recurrent::Clear(cell_state_);
  return 0;
}

template <class Family, class Variant>
int RecurrentCell<Family, Variant>::IsValidInput(Tensors const& inputs) const {
  return JudgeVector(inputs, weights_.in_size);
}

template <class Family, class Variant>
int RecurrentCell<Family, Variant>::Forward(Tensors const& inputs, Tensors& outputs, ContextPtr context) const {
  if (!configured_) Assert(false, "%s: Forward before Config", GetName().c_str());
  auto const x = support::Input(*this, inputs, 0);
  if (support::Count(*x) < weights_.in_size) {
    Assert(false, "%s of layer %s: input has dims %s, needs %u elements", GetName().c_str(), layer_id_.c_str(),
           runtime::DimsText(x->shape.dims).c_str(), weights_.in_size);
  }
  support::Device(*this, context);
  bool const if_bias = weights_.bias_ih != nullptr && weights_.bias_hh != nullptr;
  auto const results = recurrent::RunCell<Family, Variant>(
      {GetName(), {x, state_, cell_state_}, weights_, hidden_size_, if_bias, activation_, context->device_cpu});
  if (Family::kHasCellState) {
    state_ = results[0];
    cell_state_ = results[1];
  } else {
    std::memcpy(state_->data, results[0]->data, runtime::ByteCount(state_->shape));
  }
  outputs.assign(1, results[0]);
  return 0;
}

template <class Family, class Variant>
int RecurrentCell<Family, Variant>::IsValidOutput(Tensors const& outputs) const {
  return JudgeVector(outputs, hidden_size_);
}

template class RecurrentCell<recurrent::Rnn, recurrent::Fallback>;
template class RecurrentCell<recurrent::Rnn, recurrent::Sgemm>;
template class RecurrentCell<recurrent::Rnn, recurrent::Arm>;
template class RecurrentCell<recurrent::Lstm, recurrent::Fallback>;
template class RecurrentCell<recurrent::Lstm, recurrent::Sgemm>;
template class RecurrentCell<recurrent::Lstm, recurrent::Arm>;
template class RecurrentCell<recurrent::Gru, recurrent::Fallback>;
template class RecurrentCell<recurrent::Gru, recurrent::Sgemm>;
template class RecurrentCell<recurrent::Gru, recurrent::Arm>;

}  // namespace talvo::kernel
