// Recurrent kernels: an Elman RNN, an LSTM and a GRU, for one step (cells) and for whole sequences, in four variants of
// the matrix step. Fallback and ARM sum in the order of the inputs and give the same bits everywhere; SGEMM multiplies
// by the CBLAS in use. Fused gives the same bits everywhere too, others than Fallback: each element of a = W_ih x +
// b_ih and of b = W_hh h + b_hh is one chain, s = bias (0.0f without), then s = fmaf(weight[i], input[i], s) for i = 0,
// 1, ...; behind the two products all variants compute the same. Fused keeps its weights packed and not as they were;
// the others keep them as they were. The hidden state lives in the kernel from call to call until ResetRNNState: one
// kernel serves one stream and one thread. It advances when a Forward has succeeded, and not at all otherwise.
#pragma once

#include "talvo/kernel/kernel_of.h"
#include "talvo/utility/export.h"
#include "talvo/utility/features.h"

namespace talvo::kernel {

namespace recurrent {

struct Rnn;
struct Lstm;
struct Gru;
struct GruResetBefore;
struct Fallback;
struct Sgemm;
struct Arm;
struct Fused;

/// One step: x [in_size] to the new hidden state [hidden_size], layout C. The output of an LSTM is the state tensor
/// itself: the next Forward makes a new one, ResetRNNState clears it. IsValidParam: -1 with an inference parameter, -2
/// for another layer than the family's cell record, -3 for an in_size of 0, -4 for a hidden_size of 0, -5 for an RNN
/// whose activation is neither 5 (tanh) nor 2 (relu). Assert in Config: weights with too few bytes; another hidden_size
/// than that of the living state, for an LSTM a larger one. Assert in Forward, with kernel, layer and numbers: no
/// Config before, an input with fewer elements than in_size.
template <class Family, class Variant>
struct Cell;

/// A stack of layers over x [S, in_size or more], step t at t * in_size, to [S, directions * hidden_size], layout SC:
/// the last layer's hidden state of each step, with two directions the reverse one behind the forward one. A later
/// layer reads the hidden states of all directions of the one below. An RNN computes tanh whatever its activation.
/// IsValidParam: as for a cell, with the sequence record, -5 for no layers and -6 for the activation.
/// Assert in Config: weights with too few bytes, fewer weights than layers; a living state with fewer rows (layers
/// times directions) than needed, with rows of another hidden_size, or, where it is one row, with a shorter one. Assert
/// in Forward, with kernel, layer and numbers: no Config before, an input without dims or with fewer elements than
/// S * in_size; "Not Implemented." for two directions with a complex_rnn_type other than 0.
template <class Family, class Variant>
struct Sequence;

}  // namespace recurrent

extern template TALVO_API OperationPtr MakeOperation<recurrent::Sequence<recurrent::Rnn, recurrent::Fallback>>();
extern template TALVO_API OperationPtr MakeOperation<recurrent::Sequence<recurrent::Rnn, recurrent::Arm>>();
extern template TALVO_API OperationPtr MakeOperation<recurrent::Sequence<recurrent::Rnn, recurrent::Fused>>();
extern template TALVO_API OperationPtr MakeOperation<recurrent::Sequence<recurrent::Lstm, recurrent::Fallback>>();
extern template TALVO_API OperationPtr MakeOperation<recurrent::Sequence<recurrent::Lstm, recurrent::Arm>>();
extern template TALVO_API OperationPtr MakeOperation<recurrent::Sequence<recurrent::Lstm, recurrent::Fused>>();
extern template TALVO_API OperationPtr MakeOperation<recurrent::Sequence<recurrent::Gru, recurrent::Fallback>>();
extern template TALVO_API OperationPtr MakeOperation<recurrent::Sequence<recurrent::Gru, recurrent::Arm>>();
extern template TALVO_API OperationPtr MakeOperation<recurrent::Sequence<recurrent::Gru, recurrent::Fused>>();
extern template TALVO_API OperationPtr
MakeOperation<recurrent::Sequence<recurrent::GruResetBefore, recurrent::Fallback>>();
extern template TALVO_API OperationPtr MakeOperation<recurrent::Cell<recurrent::Rnn, recurrent::Fallback>>();
extern template TALVO_API OperationPtr MakeOperation<recurrent::Cell<recurrent::Rnn, recurrent::Arm>>();
extern template TALVO_API OperationPtr MakeOperation<recurrent::Cell<recurrent::Rnn, recurrent::Fused>>();
extern template TALVO_API OperationPtr MakeOperation<recurrent::Cell<recurrent::Lstm, recurrent::Fallback>>();
extern template TALVO_API OperationPtr MakeOperation<recurrent::Cell<recurrent::Lstm, recurrent::Arm>>();
extern template TALVO_API OperationPtr MakeOperation<recurrent::Cell<recurrent::Lstm, recurrent::Fused>>();
extern template TALVO_API OperationPtr MakeOperation<recurrent::Cell<recurrent::Gru, recurrent::Fallback>>();
extern template TALVO_API OperationPtr MakeOperation<recurrent::Cell<recurrent::Gru, recurrent::Arm>>();
extern template TALVO_API OperationPtr MakeOperation<recurrent::Cell<recurrent::Gru, recurrent::Fused>>();

using RNN_Fallback_SC_F32_M1 = KernelOf<recurrent::Sequence<recurrent::Rnn, recurrent::Fallback>>;
using RNN_ARM_SC_F32_M1 = KernelOf<recurrent::Sequence<recurrent::Rnn, recurrent::Arm>>;
using RNN_Fused_SC_F32_M1 = KernelOf<recurrent::Sequence<recurrent::Rnn, recurrent::Fused>>;
using LSTM_Fallback_SC_F32_M1 = KernelOf<recurrent::Sequence<recurrent::Lstm, recurrent::Fallback>>;
using LSTM_ARM_SC_F32_M1 = KernelOf<recurrent::Sequence<recurrent::Lstm, recurrent::Arm>>;
using LSTM_Fused_SC_F32_M1 = KernelOf<recurrent::Sequence<recurrent::Lstm, recurrent::Fused>>;
using GRU_Fallback_SC_F32_M1 = KernelOf<recurrent::Sequence<recurrent::Gru, recurrent::Fallback>>;
using GRU_ARM_SC_F32_M1 = KernelOf<recurrent::Sequence<recurrent::Gru, recurrent::Arm>>;
using GRU_Fused_SC_F32_M1 = KernelOf<recurrent::Sequence<recurrent::Gru, recurrent::Fused>>;
/// An extra kernel, registered by init_register_extra_operators: a GRU whose reset applies to the hidden state and not
/// to its product, n = tanh(W_in x + b_in + (W_hn (r * h) + b_hn)). All else is as for GRU_Fallback_SC_F32_M1.
using GRUResetBefore_Fallback_SC_F32_M1 = KernelOf<recurrent::Sequence<recurrent::GruResetBefore, recurrent::Fallback>>;

using RNNCell_Fallback_C_F32_M1 = KernelOf<recurrent::Cell<recurrent::Rnn, recurrent::Fallback>>;
using RNNCell_ARM_C_F32_M1 = KernelOf<recurrent::Cell<recurrent::Rnn, recurrent::Arm>>;
using RNNCell_Fused_C_F32_M1 = KernelOf<recurrent::Cell<recurrent::Rnn, recurrent::Fused>>;
using LSTMCell_Fallback_C_F32_M1 = KernelOf<recurrent::Cell<recurrent::Lstm, recurrent::Fallback>>;
using LSTMCell_ARM_C_F32_M1 = KernelOf<recurrent::Cell<recurrent::Lstm, recurrent::Arm>>;
using LSTMCell_Fused_C_F32_M1 = KernelOf<recurrent::Cell<recurrent::Lstm, recurrent::Fused>>;
using GRUCell_Fallback_C_F32_M1 = KernelOf<recurrent::Cell<recurrent::Gru, recurrent::Fallback>>;
using GRUCell_ARM_C_F32_M1 = KernelOf<recurrent::Cell<recurrent::Gru, recurrent::Arm>>;
using GRUCell_Fused_C_F32_M1 = KernelOf<recurrent::Cell<recurrent::Gru, recurrent::Fused>>;

#if TALVO_WITH_BLAS
extern template TALVO_API OperationPtr MakeOperation<recurrent::Sequence<recurrent::Rnn, recurrent::Sgemm>>();
extern template TALVO_API OperationPtr MakeOperation<recurrent::Sequence<recurrent::Lstm, recurrent::Sgemm>>();
extern template TALVO_API OperationPtr MakeOperation<recurrent::Sequence<recurrent::Gru, recurrent::Sgemm>>();
extern template TALVO_API OperationPtr MakeOperation<recurrent::Cell<recurrent::Rnn, recurrent::Sgemm>>();
extern template TALVO_API OperationPtr MakeOperation<recurrent::Cell<recurrent::Lstm, recurrent::Sgemm>>();
extern template TALVO_API OperationPtr MakeOperation<recurrent::Cell<recurrent::Gru, recurrent::Sgemm>>();

using RNN_SGEMM_SC_F32_M1 = KernelOf<recurrent::Sequence<recurrent::Rnn, recurrent::Sgemm>>;
using LSTM_SGEMM_SC_F32_M1 = KernelOf<recurrent::Sequence<recurrent::Lstm, recurrent::Sgemm>>;
using GRU_SGEMM_SC_F32_M1 = KernelOf<recurrent::Sequence<recurrent::Gru, recurrent::Sgemm>>;
using RNNCell_SGEMM_C_F32_M1 = KernelOf<recurrent::Cell<recurrent::Rnn, recurrent::Sgemm>>;
using LSTMCell_SGEMM_C_F32_M1 = KernelOf<recurrent::Cell<recurrent::Lstm, recurrent::Sgemm>>;
using GRUCell_SGEMM_C_F32_M1 = KernelOf<recurrent::Cell<recurrent::Gru, recurrent::Sgemm>>;
#endif

}  // namespace talvo::kernel
