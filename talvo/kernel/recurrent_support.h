// The arithmetic of recurrent layers, below their kernels and free forms: one step of a cell and a run over many steps.
// What distinguishes the families and their matrix steps is data. Internal.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "talvo/kernel/rows/matrix_product.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/tensor_cpu.h"

namespace talvo::kernel::recurrent {

using TensorPtr = std::shared_ptr<runtime::TensorCPU>;

constexpr unsigned int kRelu = 2, kTanh = 5;  // numbers of `activation_type`

/// What stands behind the matrix products of one step, as in rows/gates.h: `c` is replaced in place, where the family
/// has a cell state; `h_new` may be `h`. All of `size` elements, `a` and `b` of as many for each gate.
struct Step {
  float const *a, *b, *h;
  float *c, *h_new;
  std::size_t size;
  unsigned int activation;  // looked at by an RNN alone; Assert "Not Implemented.": neither kTanh nor kRelu
};

/// A family of cells by its gates.
struct Gates {
  unsigned int count;
  bool has_cell_state;
  void (*run)(Step const& step);  // none where the second product waits for the first: see kGruResetBefore
};
extern Gates const kRnn, kLstm, kGru;

/// A GRU whose candidate is tanh(W_in x + b_in + W_hn (r * h) + b_hn). For passes with the product kOrdered alone.
extern Gates const kGruResetBefore;

/// out = bias + weight in, as the free forms of functional/gemm.h.
using Connect = void(float const* in, unsigned int const& in_count, unsigned int const& out_count, float const* weight,
                     float const* bias, float* out);

/// When a form packs its weights: never; in a pass of enough steps, beside those it keeps; at once, and keeps no
/// others.
enum class Packing : unsigned char { kNever, kInPasses, kAtOnce };

/// A matrix step. `connect` takes packed weights where the form keeps them. Forms that pack sum in the order of the
/// inputs, so that any blocking over outputs and steps gives the same bits.
struct Product {
  Packing packing;
  Connect* connect;
  rows::Primitive<void(rows::PackedProductRun const&)> const* multiply;  // none where nothing is packed
};
extern Product const kOrdered, kBlas, kFused;

/// `weight` [outputs, inputs] as `product` keeps it: `weight` itself, or packed as in rows/fused_product.h.
TensorPtr Keep(Product const& product, TensorPtr const& weight, runtime::DeviceCPU& device);

/// The weights of one layer and direction, as `Keep` gives them: [gates * hidden_size, in_size], [gates * hidden_size,
/// hidden_size] and two biases [gates * hidden_size], null without bias.
struct Weights {
  unsigned int in_size = 0;
  TensorPtr weight_ih, weight_hh, bias_ih, bias_hh;
};

/// What a free form or a kernel computes, and its name, for the texts of refusals.
struct Form {
  char const* name;
  Gates const& gates;
  Product const& product;
};

/// One step of a cell. `inputs`, their checks and the results are those of functional/recurrent.h.
struct CellCall {
  Form const& form;
  std::vector<TensorPtr> const& inputs;
  Weights const& weights;
  unsigned int hidden_size;
  bool if_bias;
  unsigned int activation;
  std::shared_ptr<runtime::DeviceCPU> const& device;
};

/// The new hidden state, and for an LSTM behind it the new cell state.
std::vector<TensorPtr> RunCell(CellCall const& call);

/// One layer in one direction: x [steps, in_size] to hidden states, one every y_stride floats. h and c [hidden_size]
/// are the state before and afterwards; c is not looked at without cell state.
struct Pass {
  float const* x;
  std::size_t steps;
  bool reverse;  // from the last step to the first; results stand at their steps
  float *y, *h, *c;
  std::size_t y_stride, hidden_size;
  float* scratch;  // PassScratch elements
};

/// Elements that a pass over this many steps needs beside packed weights.
std::size_t PassScratch(Form const& form, std::size_t steps, std::size_t hidden_size);

/// Runs all steps of `pass`; packed weights come from `device`. The activation is tanh.
void RunPass(Form const& form, Weights const& weights, Pass const& pass, runtime::DeviceCPU& device);

}  // namespace talvo::kernel::recurrent
