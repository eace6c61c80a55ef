// What distinguishes the three recurrent families and the three variants of their matrix step. Internal.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "talvo/kernel/functional/gemm.h"
#include "talvo/kernel/recurrent.h"
#include "talvo/kernel/rows/gates.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/serialization/layer_info_rnn.h"
#include "talvo/utility/log.h"

namespace talvo::kernel::recurrent {

using TensorPtr = std::shared_ptr<runtime::TensorCPU>;

constexpr unsigned int kRelu = 2, kTanh = 5;  // numbers of `activation_type`
inline bool KnowsActivation(unsigned int type) { return type == kTanh || type == kRelu; }

/// What stands behind the matrix products of one step, as in rows/gates.h: `c` is replaced in place, where the family
/// has a cell state; `h_new` may be `h`.
struct Step {
  float const *a, *b, *h;
  float *c, *h_new;
  std::size_t size;
  unsigned int activation;
};

struct Rnn {
  using CellInfo = runtime::RNNCellInfo;
  using Info = runtime::RNNInfo;
  static constexpr char const* kName = "RNN";
  static constexpr unsigned int kGates = 1;
  static constexpr bool kHasCellState = false;
  template <class Record>
  static unsigned int Activation(Record const& record) {
    return record.activation_type;
  }
  static void Run(Step const& step) {
    if (!KnowsActivation(step.activation)) utility::Assert(false, "Not Implemented.");
    rows::RnnGates(step.a, step.b, step.activation == kRelu, step.size, step.h_new);
  }
};

struct Lstm {
  using CellInfo = runtime::LSTMCellInfo;
  using Info = runtime::LSTMInfo;
  static constexpr char const* kName = "LSTM";
  static constexpr unsigned int kGates = 4;
  static constexpr bool kHasCellState = true;
  template <class Record>
  static unsigned int Activation(Record const&) {
    return kTanh;
  }
  static void Run(Step const& step) { rows::LstmGates(step.a, step.b, step.size, step.c, step.h_new); }
};

struct Gru {
  using CellInfo = runtime::GRUCellInfo;
  using Info = runtime::GRUInfo;
  static constexpr char const* kName = "GRU";
  static constexpr unsigned int kGates = 3;
  static constexpr bool kHasCellState = false;
  template <class Record>
  static unsigned int Activation(Record const&) {
    return kTanh;
  }
  static void Run(Step const& step) { rows::GruGates(step.a, step.b, step.h, step.size, step.h_new); }
};

/// kOrdered: sums run in the order of the inputs, so that any blocking over outputs and steps gives the same bits.
struct Fallback {
  static constexpr char const* kName = "Fallback";
  static constexpr bool kOrdered = true;
  static constexpr auto* kConnect = &functional::fullconnection_fallback_c_f32_m1;
};

struct Arm {
  static constexpr char const* kName = "ARM";
  static constexpr bool kOrdered = true;
  static constexpr auto* kConnect = &functional::fullconnection_fallback_c_f32_m1;
};

struct Sgemm {
  static constexpr char const* kName = "SGEMM";
  static constexpr bool kOrdered = false;
  static constexpr auto* kConnect = &functional::fullconnection_sgemm_c_f32_m1;
};

/// The base64 texts of one layer and direction; the biases are null without bias.
struct WeightTexts {
  std::string const &weight_ih, &weight_hh;
  std::string const *bias_ih, *bias_hh;
};

/// The weights that `texts` hold, [gates * hidden_size, ...]. `where` stands before the array's name in refusals.
/// Assert, with kernel and layer: too few bytes.
Weights DecodeLayer(runtime::IKernel const& kernel, std::string const& layer_id, std::string const& where,
                    WeightTexts const& texts, unsigned int in_size, unsigned int hidden_size, unsigned int gates,
                    std::shared_ptr<runtime::Context> const& context);

/// Sets all bytes of `state` to 0, if there is one.
void Clear(TensorPtr const& state);

/// One step of a cell. `inputs`, their checks and the results are those of functional/recurrent.h.
struct CellCall {
  std::string const& name;  // of the function or kernel, for the texts of refusals
  std::vector<TensorPtr> const& inputs;
  Weights const& weights;
  unsigned int hidden_size;
  bool if_bias;
  unsigned int activation;
  std::shared_ptr<runtime::DeviceCPU> const& device;
};

/// The new hidden state, and for an LSTM behind it the new cell state. Made in functional/recurrent.cpp for every
/// family and variant.
template <class Family, class Variant>
std::vector<TensorPtr> RunCell(CellCall const& call);

}  // namespace talvo::kernel::recurrent
