// A stacked LSTM in one direction on bare memory, state and scratch in the caller's hands.
#pragma once

#include <vector>

#include "talvo/utility/export.h"

namespace talvo::kernel::native {

/// One step of an LSTM cell with gates i, f, g, o: h and c [hidden_size] are replaced by the new state.
/// x [in_size]; weight_ih [4 * hidden_size, in_size], weight_hh [4 * hidden_size, hidden_size]; the biases
/// [4 * hidden_size] are read with `if_bias` alone; scratch_ih and scratch_hh [4 * hidden_size] hold nothing before and
/// after. x may be the h of another cell; nothing else overlaps. Gives the bits of LSTMCell_Fallback_C_F32_M1.
TALVO_API void lstmcell_arm_c_f32_m1(float const* x, float* h, float* c, unsigned int in_size, unsigned int hidden_size,
                                     bool if_bias, float const* weight_ih, float const* weight_hh, float const* bias_ih,
                                     float const* bias_hh, float* scratch_ih, float* scratch_hh);

/// Runs num_layers cells over x [S, in_size] and writes the last layer's hidden state of each step to
/// y [S, hidden_size]. h and c [num_layers, hidden_size] are the state before and afterwards. The vectors have an entry
/// for each layer, those of the biases with `if_bias` alone; layers above the first take hidden_size inputs.
/// `directions` is not looked at; with `bidirectional` the process ends. Assert: 0 layers, vectors with too few
/// entries, a null pointer, no memory for the scratch.
TALVO_API void lstm_arm_sc_f32_m1(float* x, float* h, float* c, float* y, unsigned int S, unsigned int in_size,
                                  unsigned int hidden_size, unsigned int num_layers, unsigned int directions,
                                  bool if_bias, bool bidirectional, std::vector<float*> const& weight_ih,
                                  std::vector<float*> const& weight_hh, std::vector<float*> const& bias_ih,
                                  std::vector<float*> const& bias_hh);

}  // namespace talvo::kernel::native
