#include "talvo/kernel/functional/recurrent.h"

#include "talvo/kernel/recurrent_support.h"

namespace talvo::kernel::functional {
namespace {

using recurrent::Form;
using recurrent::kGru;
using recurrent::kLstm;
using recurrent::kOrdered;
using recurrent::kRnn;
using recurrent::kTanh;

using Tensor = std::shared_ptr<runtime::TensorCPU>;
using Tensors = std::vector<Tensor>;
using Number = unsigned int;
using Device = std::shared_ptr<runtime::DeviceCPU>;

Tensors Run(Form const& form, Tensors const& inputs, Number in_size, Number hidden_size, Number if_bias,
            Number activation, Tensor const& weight_ih, Tensor const& weight_hh, Tensor const& bias_ih,
            Tensor const& bias_hh, Device const& device) {
  return recurrent::RunCell(
      {form, inputs, {in_size, weight_ih, weight_hh, bias_ih, bias_hh}, hidden_size, if_bias != 0, activation, device});
}

}  // namespace

Tensor RNNCell_Fallback_C_F32_M1(Tensors const& inputs, Number const& in_size, Number const& hidden_size,
                                 Number const& if_bias, Number const& activation_type, Tensor const& weight_ih,
                                 Tensor const& weight_hh, Tensor const& bias_ih, Tensor const& bias_hh,
                                 Device const& device) {
  return Run({__func__, kRnn, kOrdered}, inputs, in_size, hidden_size, if_bias, activation_type, weight_ih, weight_hh,
             bias_ih, bias_hh, device)[0];
}

Tensor RNNCell_ARM_C_F32_M1(Tensors const& inputs, Number const& in_size, Number const& hidden_size,
                            Number const& if_bias, Number const& activation_type, Tensor const& weight_ih,
                            Tensor const& weight_hh, Tensor const& bias_ih, Tensor const& bias_hh,
                            Device const& device) {
  return Run({__func__, kRnn, kOrdered}, inputs, in_size, hidden_size, if_bias, activation_type, weight_ih, weight_hh,
             bias_ih, bias_hh, device)[0];
}

Tensors LSTMCell_Fallback_C_F32_M1(Tensors const& inputs, Number const& in_size, Number const& hidden_size,
                                   Number const& if_bias, Tensor const& weight_ih, Tensor const& weight_hh,
                                   Tensor const& bias_ih, Tensor const& bias_hh, Device const& device) {
  return Run({__func__, kLstm, kOrdered}, inputs, in_size, hidden_size, if_bias, kTanh, weight_ih, weight_hh, bias_ih,
             bias_hh, device);
}

Tensors LSTMCell_ARM_C_F32_M1(Tensors const& inputs, Number const& in_size, Number const& hidden_size,
                              Number const& if_bias, Tensor const& weight_ih, Tensor const& weight_hh,
                              Tensor const& bias_ih, Tensor const& bias_hh, Device const& device) {
  return Run({__func__, kLstm, kOrdered}, inputs, in_size, hidden_size, if_bias, kTanh, weight_ih, weight_hh, bias_ih,
             bias_hh, device);
}

Tensor GRUCell_Fallback_C_F32_M1(Tensors const& inputs, Number const& in_size, Number const& hidden_size,
                                 Number const& if_bias, Tensor const& weight_ih, Tensor const& weight_hh,
                                 Tensor const& bias_ih, Tensor const& bias_hh, Device const& device) {
  return Run({__func__, kGru, kOrdered}, inputs, in_size, hidden_size, if_bias, kTanh, weight_ih, weight_hh, bias_ih,
             bias_hh, device)[0];
}

Tensor GRUCell_ARM_C_F32_M1(Tensors const& inputs, Number const& in_size, Number const& hidden_size,
                            Number const& if_bias, Tensor const& weight_ih, Tensor const& weight_hh,
                            Tensor const& bias_ih, Tensor const& bias_hh, Device const& device) {
  return Run({__func__, kGru, kOrdered}, inputs, in_size, hidden_size, if_bias, kTanh, weight_ih, weight_hh, bias_ih,
             bias_hh, device)[0];
}

#if TALVO_WITH_BLAS
Tensor RNNCell_SGEMM_C_F32_M1(Tensors const& inputs, Number const& in_size, Number const& hidden_size,
                              Number const& if_bias, Number const& activation_type, Tensor const& weight_ih,
                              Tensor const& weight_hh, Tensor const& bias_ih, Tensor const& bias_hh,
                              Device const& device) {
  return Run({__func__, kRnn, recurrent::kBlas}, inputs, in_size, hidden_size, if_bias, activation_type, weight_ih,
             weight_hh, bias_ih, bias_hh, device)[0];
}

Tensors LSTMCell_SGEMM_C_F32_M1(Tensors const& inputs, Number const& in_size, Number const& hidden_size,
                                Number const& if_bias, Tensor const& weight_ih, Tensor const& weight_hh,
                                Tensor const& bias_ih, Tensor const& bias_hh, Device const& device) {
  return Run({__func__, kLstm, recurrent::kBlas}, inputs, in_size, hidden_size, if_bias, kTanh, weight_ih, weight_hh,
             bias_ih, bias_hh, device);
}

Tensor GRUCell_SGEMM_C_F32_M1(Tensors const& inputs, Number const& in_size, Number const& hidden_size,
                              Number const& if_bias, Tensor const& weight_ih, Tensor const& weight_hh,
                              Tensor const& bias_ih, Tensor const& bias_hh, Device const& device) {
  return Run({__func__, kGru, recurrent::kBlas}, inputs, in_size, hidden_size, if_bias, kTanh, weight_ih, weight_hh,
             bias_ih, bias_hh, device)[0];
}
#endif

}  // namespace talvo::kernel::functional
