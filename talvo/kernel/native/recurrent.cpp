#include "talvo/kernel/native/recurrent.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <memory>

#include "talvo/kernel/rows/gates.h"
#include "talvo/kernel/rows/matrix_product.h"
#include "talvo/utility/invariant.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::kernel::native {
namespace {

using utility::Refuse;
using Scratch = std::unique_ptr<float, decltype(&std::free)>;

constexpr std::size_t kGates = 4;

Scratch GateScratch(unsigned int hidden_size) {
  Scratch scratch(static_cast<float*>(std::malloc(kGates * hidden_size * sizeof(float))), &std::free);
  if (scratch == nullptr && hidden_size != 0) {
    Refuse("lstm_arm_sc_f32_m1: no memory for %zu floats", kGates * hidden_size);
  }
  return scratch;
}

void CheckLayers(char const* what, std::vector<float*> const& pointers, unsigned int num_layers) {
  if (pointers.size() < num_layers) {
    Refuse("lstm_arm_sc_f32_m1: %s has %zu entries, %u layers need as many", what, pointers.size(), num_layers);
  }
  auto const end = pointers.begin() + num_layers, null = std::find(pointers.begin(), end, nullptr);
  if (null != end) Refuse("lstm_arm_sc_f32_m1: entry %td of %s is null", null - pointers.begin(), what);
}

}  // namespace

void lstmcell_arm_c_f32_m1(float const* x, float* h, float* c, unsigned int in_size, unsigned int hidden_size,
                           bool if_bias, float const* weight_ih, float const* weight_hh, float const* bias_ih,
                           float const* bias_hh, float* scratch_ih, float* scratch_hh) {
  std::size_t const outputs = kGates * hidden_size;
  rows::MatrixVector(weight_ih, x, if_bias ? bias_ih : nullptr, outputs, in_size, scratch_ih);
  rows::MatrixVector(weight_hh, h, if_bias ? bias_hh : nullptr, outputs, hidden_size, scratch_hh);
  rows::LstmGates(scratch_ih, scratch_hh, hidden_size, c, h);
}

void lstm_arm_sc_f32_m1(float* x, float* h, float* c, float* y, unsigned int S, unsigned int in_size,
                        unsigned int hidden_size, unsigned int num_layers, unsigned int, bool if_bias,
                        bool bidirectional, std::vector<float*> const& weight_ih, std::vector<float*> const& weight_hh,
                        std::vector<float*> const& bias_ih, std::vector<float*> const& bias_hh) {
  if (bidirectional) {
    utility::InvariantFailed("0 && \"no support bidirectional rnns.\"", __func__, "lstm_arm_sc_f32_m1", __LINE__);
  }
  if (num_layers == 0) Refuse("lstm_arm_sc_f32_m1: 0 layers, needs 1");
  if (h == nullptr || c == nullptr || (S != 0 && (x == nullptr || y == nullptr))) {
    Refuse("lstm_arm_sc_f32_m1: x, h, c or y is null");
  }
  CheckLayers("weight_ih", weight_ih, num_layers);
  CheckLayers("weight_hh", weight_hh, num_layers);
  CheckLayers("bias_ih", bias_ih, if_bias ? num_layers : 0);
  CheckLayers("bias_hh", bias_hh, if_bias ? num_layers : 0);
  Scratch const scratch_ih = GateScratch(hidden_size), scratch_hh = GateScratch(hidden_size);
  for (std::size_t t = 0; t < S; ++t) {
    float const* below = x + t * in_size;
    unsigned int below_size = in_size;
    for (std::size_t l = 0; l < num_layers; ++l) {
      float* const layer_h = h + l * hidden_size;
      lstmcell_arm_c_f32_m1(below, layer_h, c + l * hidden_size, below_size, hidden_size, if_bias, weight_ih[l],
                            weight_hh[l], if_bias ? bias_ih[l] : nullptr, if_bias ? bias_hh[l] : nullptr,
                            scratch_ih.get(), scratch_hh.get());
      below = layer_h;
      below_size = hidden_size;
    }
    std::copy_n(below, hidden_size, y + t * hidden_size);
  }
}

}  // namespace talvo::kernel::native
