// One step of a recurrent cell on tensors. The Fallback and ARM forms sum in the order of the inputs and give the same
// bits; the SGEMM forms multiply by the CBLAS in use.
#pragma once

#include <memory>
#include <vector>

#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/utility/export.h"
#include "talvo/utility/features.h"

namespace talvo::kernel::functional {

/// `inputs` are x [in_size] and h [hidden_size], for an LSTM also c [hidden_size]; a null h or c counts as zeros.
/// weight_ih [G * hidden_size, in_size], weight_hh [G * hidden_size, hidden_size], biases [G * hidden_size], read with
/// `if_bias` alone; G is 1 for RNN, 4 for LSTM (gates i, f, g, o), 3 for GRU (r, z, n). Results are new tensors of
/// `device`. Assert, with the function's name: too few inputs, a tensor that is null or shorter than told, no device.
using GruCell = std::shared_ptr<runtime::TensorCPU>(
    const std::vector<std::shared_ptr<runtime::TensorCPU>>& inputs, const unsigned int& in_size,
    const unsigned int& hidden_size, const unsigned int& if_bias, const std::shared_ptr<runtime::TensorCPU>& weight_ih,
    const std::shared_ptr<runtime::TensorCPU>& weight_hh, const std::shared_ptr<runtime::TensorCPU>& bias_ih,
    const std::shared_ptr<runtime::TensorCPU>& bias_hh, const std::shared_ptr<runtime::DeviceCPU>& device);

/// The same; the two results are the new hidden state and the new cell state.
using LstmCell = std::vector<std::shared_ptr<runtime::TensorCPU>>(
    const std::vector<std::shared_ptr<runtime::TensorCPU>>& inputs, const unsigned int& in_size,
    const unsigned int& hidden_size, const unsigned int& if_bias, const std::shared_ptr<runtime::TensorCPU>& weight_ih,
    const std::shared_ptr<runtime::TensorCPU>& weight_hh, const std::shared_ptr<runtime::TensorCPU>& bias_ih,
    const std::shared_ptr<runtime::TensorCPU>& bias_hh, const std::shared_ptr<runtime::DeviceCPU>& device);

/// The same; `activation_type` is 5 for tanh or 2 for relu. Assert "Not Implemented.": another one.
using RnnCell = std::shared_ptr<runtime::TensorCPU>(const std::vector<std::shared_ptr<runtime::TensorCPU>>& inputs,
                                                    const unsigned int& in_size, const unsigned int& hidden_size,
                                                    const unsigned int& if_bias, const unsigned int& activation_type,
                                                    const std::shared_ptr<runtime::TensorCPU>& weight_ih,
                                                    const std::shared_ptr<runtime::TensorCPU>& weight_hh,
                                                    const std::shared_ptr<runtime::TensorCPU>& bias_ih,
                                                    const std::shared_ptr<runtime::TensorCPU>& bias_hh,
                                                    const std::shared_ptr<runtime::DeviceCPU>& device);

TALVO_API RnnCell RNNCell_Fallback_C_F32_M1, RNNCell_ARM_C_F32_M1;
TALVO_API LstmCell LSTMCell_Fallback_C_F32_M1, LSTMCell_ARM_C_F32_M1;
TALVO_API GruCell GRUCell_Fallback_C_F32_M1, GRUCell_ARM_C_F32_M1;
#if TALVO_WITH_BLAS
TALVO_API RnnCell RNNCell_SGEMM_C_F32_M1;
TALVO_API LstmCell LSTMCell_SGEMM_C_F32_M1;
TALVO_API GruCell GRUCell_SGEMM_C_F32_M1;
#endif

}  // namespace talvo::kernel::functional
