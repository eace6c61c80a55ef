#include "talvo/kernel/rows/gates.h"

#include <cmath>

namespace talvo::kernel::rows {
namespace {

float Sigmoid(float x) { return 1.0f / (std::exp(0.0f - x) + 1.0f); }

}  // namespace

void RnnGates(float const* a, float const* b, bool relu, std::size_t size, float* h_new) {
  for (std::size_t j = 0; j < size; ++j) {
    float const y = a[j] + b[j];
    h_new[j] = !relu ? std::tanh(y) : 0.0f > y ? 0.0f : y;
  }
}

void LstmGates(float const* a, float const* b, std::size_t size, float* c, float* h_new) {
  for (std::size_t j = 0; j < size; ++j) {
    std::size_t const at_f = size + j, at_g = 2 * size + j, at_o = 3 * size + j;
    float const i = Sigmoid(a[j] + b[j]), f = Sigmoid(a[at_f] + b[at_f]);
    float const g = std::tanh(a[at_g] + b[at_g]), o = Sigmoid(a[at_o] + b[at_o]);
    float const kept = c[j] * f, added = i * g;
    c[j] = kept + added;
    h_new[j] = std::tanh(c[j]) * o;
  }
}

void GruGates(float const* a, float const* b, float const* h, std::size_t size, float* h_new) {
  for (std::size_t j = 0; j < size; ++j) {
    std::size_t const at_z = size + j, at_n = 2 * size + j;
    float const r = Sigmoid(a[j] + b[j]), z = Sigmoid(a[at_z] + b[at_z]);
    float const n = std::tanh(a[at_n] + b[at_n] * r);
    float const d = z * (n - h[j]);
    h_new[j] = n - d;
  }
}

}  // namespace talvo::kernel::rows
