#include "talvo/kernel/functional/recurrent.h"

#include <climits>
#include <string>

#include "talvo/kernel/recurrent_support.h"

namespace talvo::kernel {
namespace recurrent {
namespace {

using utility::Assert;

void CheckCall(CellCall const& call, std::size_t inputs, unsigned int gates) {
  unsigned int const most = INT_MAX / gates;
  if (call.device == nullptr || call.inputs.size() < inputs || call.hidden_size > most) {
    Assert(false, "%s: %zu inputs, hidden size %u, %s device; needs %zu inputs, a size of at most %u and a device",
           call.name.c_str(), call.inputs.size(), call.hidden_size, call.device == nullptr ? "no" : "a", inputs, most);
  }
}

float const* Floats(CellCall const& call, char const* what, TensorPtr const& tensor, std::size_t needed) {
  using runtime::TensorShape;
  if (tensor == nullptr) Assert(false, "%s: %s is null, needs %zu floats", call.name.c_str(), what, needed);
  TensorShape const& shape = tensor->shape;
  bool const wide = shape.data_type <= TensorShape::UINT8 && runtime::ElementSize(shape.data_type) >= sizeof(float);
  if (!wide || tensor->data == nullptr || runtime::ElementCount(shape.dims) < needed) {
    Assert(false, "%s: %s has dims %s and data type %u%s, needs %zu floats", call.name.c_str(), what,
           runtime::DimsText(shape.dims).c_str(), shape.data_type, tensor->data == nullptr ? " and no memory" : "",
           needed);
  }
  return tensor->Data<float>();
}

TensorPtr StateOrZeros(CellCall const& call, std::size_t index) {
  return call.inputs[index] != nullptr ? call.inputs[index] : call.device->CreateZeroF32CMainMem(call.hidden_size);
}

// The variant's product of one weight with one input.
template <class Variant>
TensorPtr Connect(CellCall const& call, char const* in_name, TensorPtr const& in, unsigned int in_count,
                  unsigned int outputs, char const* weight_name, TensorPtr const& weight, char const* bias_name,
                  TensorPtr const& bias) {
  auto out = call.device->CreateF32CMainMemory(outputs, nullptr);
  Variant::kConnect(Floats(call, in_name, in, in_count), in_count, outputs,
                    Floats(call, weight_name, weight, std::size_t{outputs} * in_count),
                    call.if_bias ? Floats(call, bias_name, bias, outputs) : nullptr, out->Data<float>());
  return out;
}

}  // namespace

template <class Family, class Variant>
std::vector<TensorPtr> RunCell(CellCall const& call) {
  CheckCall(call, Family::kHasCellState ? 3 : 2, Family::kGates);
  unsigned int const size = call.hidden_size, outputs = Family::kGates * size;
  TensorPtr const h = StateOrZeros(call, 1);
  TensorPtr const a = Connect<Variant>(call, "x", call.inputs[0], call.weights.in_size, outputs, "weight_ih",
                                       call.weights.weight_ih, "bias_ih", call.weights.bias_ih);
  TensorPtr const b = Connect<Variant>(call, "h", h, size, outputs, "weight_hh", call.weights.weight_hh, "bias_hh",
                                       call.weights.bias_hh);
  std::vector<TensorPtr> results = {call.device->CreateF32CMainMemory(size, nullptr)};
  if (Family::kHasCellState) {
    results.push_back(call.device->CreateF32CMainMemory(size, Floats(call, "c", StateOrZeros(call, 2), size)));
  }
  Family::Run({a->Data<float>(), b->Data<float>(), h->Data<float>(), results.back()->Data<float>(),
               results[0]->Data<float>(), size, call.activation});
  return results;
}

template std::vector<TensorPtr> RunCell<Rnn, Fallback>(CellCall const&);
template std::vector<TensorPtr> RunCell<Rnn, Arm>(CellCall const&);
template std::vector<TensorPtr> RunCell<Rnn, Sgemm>(CellCall const&);
template std::vector<TensorPtr> RunCell<Lstm, Fallback>(CellCall const&);
template std::vector<TensorPtr> RunCell<Lstm, Arm>(CellCall const&);
template std::vector<TensorPtr> RunCell<Lstm, Sgemm>(CellCall const&);
template std::vector<TensorPtr> RunCell<Gru, Fallback>(CellCall const&);
template std::vector<TensorPtr> RunCell<Gru, Arm>(CellCall const&);
template std::vector<TensorPtr> RunCell<Gru, Sgemm>(CellCall const&);

}  // namespace recurrent

namespace functional {

using namespace recurrent;  // the families and variants by their plain names

TensorPtr RNNCell_Fallback_C_F32_M1(const std::vector<TensorPtr>& inputs, const unsigned int& in_size,
                                    const unsigned int& hidden_size, const unsigned int& if_bias,
                                    const unsigned int& activation_type, const TensorPtr& weight_ih,
                                    const TensorPtr& weight_hh, const TensorPtr& bias_ih, const TensorPtr& bias_hh,
                                    const std::shared_ptr<runtime::DeviceCPU>& device) {
  return RunCell<Rnn, Fallback>({"RNNCell_Fallback_C_F32_M1",
                                 inputs,
                                 {in_size, weight_ih, weight_hh, bias_ih, bias_hh},
                                 hidden_size,
                                 if_bias != 0,
                                 activation_type,
                                 device})[0];
}

TensorPtr RNNCell_SGEMM_C_F32_M1(const std::vector<TensorPtr>& inputs, const unsigned int& in_size,
                                 const unsigned int& hidden_size, const unsigned int& if_bias,
                                 const unsigned int& activation_type, const TensorPtr& weight_ih,
                                 const TensorPtr& weight_hh, const TensorPtr& bias_ih, const TensorPtr& bias_hh,
                                 const std::shared_ptr<runtime::DeviceCPU>& device) {
  return RunCell<Rnn, Sgemm>({"RNNCell_SGEMM_C_F32_M1",
                              inputs,
                              {in_size, weight_ih, weight_hh, bias_ih, bias_hh},
                              hidden_size,
                              if_bias != 0,
                              activation_type,
                              device})[0];
}

TensorPtr RNNCell_ARM_C_F32_M1(const std::vector<TensorPtr>& inputs, const unsigned int& in_size,
                               const unsigned int& hidden_size, const unsigned int& if_bias,
                               const unsigned int& activation_type, const TensorPtr& weight_ih,
                               const TensorPtr& weight_hh, const TensorPtr& bias_ih, const TensorPtr& bias_hh,
                               const std::shared_ptr<runtime::DeviceCPU>& device) {
  return RunCell<Rnn, Arm>({"RNNCell_ARM_C_F32_M1",
                            inputs,
                            {in_size, weight_ih, weight_hh, bias_ih, bias_hh},
                            hidden_size,
                            if_bias != 0,
                            activation_type,
                            device})[0];
}

std::vector<TensorPtr> LSTMCell_Fallback_C_F32_M1(const std::vector<TensorPtr>& inputs, const unsigned int& in_size,
                                                  const unsigned int& hidden_size, const unsigned int& if_bias,
                                                  const TensorPtr& weight_ih, const TensorPtr& weight_hh,
                                                  const TensorPtr& bias_ih, const TensorPtr& bias_hh,
                                                  const std::shared_ptr<runtime::DeviceCPU>& device) {
  return RunCell<Lstm, Fallback>({"LSTMCell_Fallback_C_F32_M1",
                                  inputs,
                                  {in_size, weight_ih, weight_hh, bias_ih, bias_hh},
                                  hidden_size,
                                  if_bias != 0,
                                  kTanh,
                                  device});
}

std::vector<TensorPtr> LSTMCell_SGEMM_C_F32_M1(const std::vector<TensorPtr>& inputs, const unsigned int& in_size,
                                               const unsigned int& hidden_size, const unsigned int& if_bias,
                                               const TensorPtr& weight_ih, const TensorPtr& weight_hh,
                                               const TensorPtr& bias_ih, const TensorPtr& bias_hh,
                                               const std::shared_ptr<runtime::DeviceCPU>& device) {
  return RunCell<Lstm, Sgemm>({"LSTMCell_SGEMM_C_F32_M1",
                               inputs,
                               {in_size, weight_ih, weight_hh, bias_ih, bias_hh},
                               hidden_size,
                               if_bias != 0,
                               kTanh,
                               device});
}

std::vector<TensorPtr> LSTMCell_ARM_C_F32_M1(const std::vector<TensorPtr>& inputs, const unsigned int& in_size,
                                             const unsigned int& hidden_size, const unsigned int& if_bias,
                                             const TensorPtr& weight_ih, const TensorPtr& weight_hh,
                                             const TensorPtr& bias_ih, const TensorPtr& bias_hh,
                                             const std::shared_ptr<runtime::DeviceCPU>& device) {
  return RunCell<Lstm, Arm>({"LSTMCell_ARM_C_F32_M1",
                             inputs,
                             {in_size, weight_ih, weight_hh, bias_ih, bias_hh},
                             hidden_size,
                             if_bias != 0,
                             kTanh,
                             device});
}

TensorPtr GRUCell_Fallback_C_F32_M1(const std::vector<TensorPtr>& inputs, const unsigned int& in_size,
                                    const unsigned int& hidden_size, const unsigned int& if_bias,
                                    const TensorPtr& weight_ih, const TensorPtr& weight_hh, const TensorPtr& bias_ih,
                                    const TensorPtr& bias_hh, const std::shared_ptr<runtime::DeviceCPU>& device) {
  return RunCell<Gru, Fallback>({"GRUCell_Fallback_C_F32_M1",
                                 inputs,
                                 {in_size, weight_ih, weight_hh, bias_ih, bias_hh},
                                 hidden_size,
                                 if_bias != 0,
                                 kTanh,
                                 device})[0];
}

TensorPtr GRUCell_SGEMM_C_F32_M1(const std::vector<TensorPtr>& inputs, const unsigned int& in_size,
                                 const unsigned int& hidden_size, const unsigned int& if_bias,
                                 const TensorPtr& weight_ih, const TensorPtr& weight_hh, const TensorPtr& bias_ih,
                                 const TensorPtr& bias_hh, const std::shared_ptr<runtime::DeviceCPU>& device) {
  return RunCell<Gru, Sgemm>({"GRUCell_SGEMM_C_F32_M1",
                              inputs,
                              {in_size, weight_ih, weight_hh, bias_ih, bias_hh},
                              hidden_size,
                              if_bias != 0,
                              kTanh,
                              device})[0];
}

TensorPtr GRUCell_ARM_C_F32_M1(const std::vector<TensorPtr>& inputs, const unsigned int& in_size,
                               const unsigned int& hidden_size, const unsigned int& if_bias, const TensorPtr& weight_ih,
                               const TensorPtr& weight_hh, const TensorPtr& bias_ih, const TensorPtr& bias_hh,
                               const std::shared_ptr<runtime::DeviceCPU>& device) {
  return RunCell<Gru, Arm>({"GRUCell_ARM_C_F32_M1",
                            inputs,
                            {in_size, weight_ih, weight_hh, bias_ih, bias_hh},
                            hidden_size,
                            if_bias != 0,
                            kTanh,
                            device})[0];
}

}  // namespace functional
}  // namespace talvo::kernel
