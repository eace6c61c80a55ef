// Recurrent kernels: an Elman RNN, an LSTM and a GRU, for one step (cells) and for whole sequences, in three variants
// of the matrix step. Fallback and ARM sum in the order of the inputs and give the same bits everywhere; SGEMM
// multiplies by the CBLAS in use. The hidden state lives in the kernel from call to call until ResetRNNState: one
// kernel serves one stream and one thread.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/kernel.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/utility/export.h"

namespace talvo::kernel {

namespace recurrent {

// Families and variants, described in recurrent_support.h.
struct Rnn;
struct Lstm;
struct Gru;
struct Fallback;
struct Arm;
struct Sgemm;

/// The weights of one layer and direction: [gates * hidden_size, in_size], [gates * hidden_size, hidden_size] and two
/// biases [gates * hidden_size], null without bias.
struct Weights {
  unsigned int in_size = 0;
  std::shared_ptr<runtime::TensorCPU> weight_ih, weight_hh, bias_ih, bias_hh;
};

}  // namespace recurrent

/// One step: x [in_size] to the new hidden state [hidden_size], layout C. The output of an LSTM is the state tensor
/// itself. IsValidParam: -1 with an inference parameter, -2 for another layer than the family's cell record, -3 for an
/// in_size of 0, -4 for a hidden_size of 0, -5 for an RNN whose activation is neither 5 (tanh) nor 2 (relu).
/// Assert in Config: weights with too few bytes, sizes that change while a state is alive. Assert in Forward, with
/// kernel, layer and numbers: no Config before, an input with fewer elements than in_size.
template <class Family, class Variant>
class TALVO_API RecurrentCell : public runtime::IKernel {
 public:
  std::string GetName() const override;
  int IsValidParam(std::shared_ptr<runtime::LayerInfo> layer,
                   std::shared_ptr<runtime::InferenceParam> param) const override;
  bool Config(std::shared_ptr<runtime::LayerInfo> layer, std::shared_ptr<runtime::InferenceParam> param,
              std::shared_ptr<runtime::Context> context) override;
  bool IsConfigured() const override;
  std::vector<runtime::TensorShape> GetOutputShapes(
      std::vector<runtime::TensorShape> const& input_shapes) const override;
  int ResetRNNState() const override;
  int IsValidInput(std::vector<std::shared_ptr<runtime::Tensor>> const& inputs) const override;
  int Forward(std::vector<std::shared_ptr<runtime::Tensor>> const& inputs,
              std::vector<std::shared_ptr<runtime::Tensor>>& outputs,
              std::shared_ptr<runtime::Context> context) const override;
  int IsValidOutput(std::vector<std::shared_ptr<runtime::Tensor>> const& outputs) const override;

 private:
  bool configured_ = false;
  std::string layer_id_;
  unsigned int hidden_size_ = 0, activation_ = 0;
  recurrent::Weights weights_;
  mutable std::shared_ptr<runtime::TensorCPU> state_, cell_state_;  // [hidden_size]; the second for an LSTM alone
};

/// A stack of layers over x [S, in_size] to [S, directions * hidden_size], layout SC: the last layer's hidden state of
/// each step, with two directions the reverse one behind the forward one. A later layer reads the hidden states of all
/// directions of the one below. An RNN computes tanh whatever its activation. IsValidParam: as for a cell, with the
/// sequence record, -5 for no layers and -6 for the activation.
/// Assert in Config: what a cell refuses, fewer weights than layers, layers or directions that change while a state is
/// alive. Assert in Forward, with kernel, layer and numbers: no Config before, an input of rank below 2, of another
/// width or with too few elements; "Not Implemented." for two directions with a complex_rnn_type other than 0.
template <class Family, class Variant>
class TALVO_API RecurrentSequence : public runtime::IKernel {
 public:
  std::string GetName() const override;
  int IsValidParam(std::shared_ptr<runtime::LayerInfo> layer,
                   std::shared_ptr<runtime::InferenceParam> param) const override;
  bool Config(std::shared_ptr<runtime::LayerInfo> layer, std::shared_ptr<runtime::InferenceParam> param,
              std::shared_ptr<runtime::Context> context) override;
  bool IsConfigured() const override;
  std::vector<runtime::TensorShape> GetOutputShapes(
      std::vector<runtime::TensorShape> const& input_shapes) const override;
  int ResetRNNState() const override;
  int IsValidInput(std::vector<std::shared_ptr<runtime::Tensor>> const& inputs) const override;
  int Forward(std::vector<std::shared_ptr<runtime::Tensor>> const& inputs,
              std::vector<std::shared_ptr<runtime::Tensor>>& outputs,
              std::shared_ptr<runtime::Context> context) const override;
  int IsValidOutput(std::vector<std::shared_ptr<runtime::Tensor>> const& outputs) const override;

 private:
  void CheckState(std::string const& layer_id, unsigned int in_size, unsigned int hidden_size, unsigned int directions,
                  unsigned int num_layers) const;
  void MakeState(runtime::DeviceCPU& device) const;
  void RunLayer(std::size_t layer, runtime::TensorCPU const& below, runtime::TensorCPU const& above,
                runtime::DeviceCPU& device) const;

  bool configured_ = false;
  std::string layer_id_;
  unsigned int in_size_ = 0, hidden_size_ = 0, directions_ = 1, num_layers_ = 0, complex_rnn_type_ = 0;
  std::vector<recurrent::Weights> layers_[2];  // forward and reverse, one record for each layer
  // [num_layers * directions, hidden_size], for each layer the forward row, then the reverse one; the second for an
  // LSTM alone.
  mutable std::shared_ptr<runtime::TensorCPU> state_, cell_state_;
};

extern template class TALVO_API RecurrentSequence<recurrent::Rnn, recurrent::Fallback>;
extern template class TALVO_API RecurrentSequence<recurrent::Rnn, recurrent::Sgemm>;
extern template class TALVO_API RecurrentSequence<recurrent::Rnn, recurrent::Arm>;
extern template class TALVO_API RecurrentSequence<recurrent::Lstm, recurrent::Fallback>;
extern template class TALVO_API RecurrentSequence<recurrent::Lstm, recurrent::Sgemm>;
extern template class TALVO_API RecurrentSequence<recurrent::Lstm, recurrent::Arm>;
extern template class TALVO_API RecurrentSequence<recurrent::Gru, recurrent::Fallback>;
extern template class TALVO_API RecurrentSequence<recurrent::Gru, recurrent::Sgemm>;
extern template class TALVO_API RecurrentSequence<recurrent::Gru, recurrent::Arm>;
extern template class TALVO_API RecurrentCell<recurrent::Rnn, recurrent::Fallback>;
extern template class TALVO_API RecurrentCell<recurrent::Rnn, recurrent::Sgemm>;
extern template class TALVO_API RecurrentCell<recurrent::Rnn, recurrent::Arm>;
extern template class TALVO_API RecurrentCell<recurrent::Lstm, recurrent::Fallback>;
extern template class TALVO_API RecurrentCell<recurrent::Lstm, recurrent::Sgemm>;
extern template class TALVO_API RecurrentCell<recurrent::Lstm, recurrent::Arm>;
extern template class TALVO_API RecurrentCell<recurrent::Gru, recurrent::Fallback>;
extern template class TALVO_API RecurrentCell<recurrent::Gru, recurrent::Sgemm>;
extern template class TALVO_API RecurrentCell<recurrent::Gru, recurrent::Arm>;

using RNN_Fallback_SC_F32_M1 = RecurrentSequence<recurrent::Rnn, recurrent::Fallback>;
using RNN_SGEMM_SC_F32_M1 = RecurrentSequence<recurrent::Rnn, recurrent::Sgemm>;
using RNN_ARM_SC_F32_M1 = RecurrentSequence<recurrent::Rnn, recurrent::Arm>;
using LSTM_Fallback_SC_F32_M1 = RecurrentSequence<recurrent::Lstm, recurrent::Fallback>;
using LSTM_SGEMM_SC_F32_M1 = RecurrentSequence<recurrent::Lstm, recurrent::Sgemm>;
using LSTM_ARM_SC_F32_M1 = RecurrentSequence<recurrent::Lstm, recurrent::Arm>;
using GRU_Fallback_SC_F32_M1 = RecurrentSequence<recurrent::Gru, recurrent::Fallback>;
using GRU_SGEMM_SC_F32_M1 = RecurrentSequence<recurrent::Gru, recurrent::Sgemm>;
using GRU_ARM_SC_F32_M1 = RecurrentSequence<recurrent::Gru, recurrent::Arm>;
using RNNCell_Fallback_C_F32_M1 = RecurrentCell<recurrent::Rnn, recurrent::Fallback>;
using RNNCell_SGEMM_C_F32_M1 = RecurrentCell<recurrent::Rnn, recurrent::Sgemm>;
using RNNCell_ARM_C_F32_M1 = RecurrentCell<recurrent::Rnn, recurrent::Arm>;
using LSTMCell_Fallback_C_F32_M1 = RecurrentCell<recurrent::Lstm, recurrent::Fallback>;
using LSTMCell_SGEMM_C_F32_M1 = RecurrentCell<recurrent::Lstm, recurrent::Sgemm>;
using LSTMCell_ARM_C_F32_M1 = RecurrentCell<recurrent::Lstm, recurrent::Arm>;
using GRUCell_Fallback_C_F32_M1 = RecurrentCell<recurrent::Gru, recurrent::Fallback>;
using GRUCell_SGEMM_C_F32_M1 = RecurrentCell<recurrent::Gru, recurrent::Sgemm>;
using GRUCell_ARM_C_F32_M1 = RecurrentCell<recurrent::Gru, recurrent::Arm>;

}  // namespace talvo::kernel
