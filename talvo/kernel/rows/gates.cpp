#include "talvo/kernel/rows/gates.h"

#include <algorithm>

#include "talvo/kernel/rows/elementwise_rows.h"
#include "talvo/kernel/rows/exponential.h"

namespace talvo::kernel::rows {
namespace {

constexpr std::size_t kBlock = 256;  // cells whose gates are computed at a time, in the nearest cache

void AddRow(float const* a, float const* b, std::size_t n, float* y) {
  for (std::size_t j = 0; j < n; ++j) y[j] = a[j] + b[j];
}

}  // namespace

void RnnGates(float const* a, float const* b, bool relu, std::size_t size, float* h_new) {
  AddRow(a, b, size, h_new);
  (relu ? ReluRow : TanhRow)(h_new, size, h_new);
}

void LstmGates(float const* a, float const* b, std::size_t size, float* c, float* h_new) {
  float i[kBlock], f[kBlock], g[kBlock], o[kBlock];
  for (std::size_t begin = 0; begin < size; begin += kBlock) {
    std::size_t const n = std::min(kBlock, size - begin);
    float* const gates[] = {i, f, g, o};
    for (std::size_t k = 0; k < 4; ++k) AddRow(a + k * size + begin, b + k * size + begin, n, gates[k]);
    SigmoidRow(i, n, i);
    SigmoidRow(f, n, f);
    TanhRow(g, n, g);
    SigmoidRow(o, n, o);
    for (std::size_t j = 0; j < n; ++j) {
      float const kept = c[begin + j] * f[j], added = i[j] * g[j];
      c[begin + j] = kept + added;
    }
    TanhRow(c + begin, n, i);
    for (std::size_t j = 0; j < n; ++j) h_new[begin + j] = i[j] * o[j];
  }
}

void GruGates(float const* a, float const* b, float const* h, std::size_t size, float* h_new) {
  float r[kBlock], z[kBlock], n[kBlock];
  for (std::size_t begin = 0; begin < size; begin += kBlock) {
    std::size_t const count = std::min(kBlock, size - begin);
    AddRow(a + begin, b + begin, count, r);
    AddRow(a + size + begin, b + size + begin, count, z);
    SigmoidRow(r, count, r);
    SigmoidRow(z, count, z);
    for (std::size_t j = 0; j < count; ++j) {
      float const reset = b[2 * size + begin + j] * r[j];
      n[j] = a[2 * size + begin + j] + reset;
    }
    TanhRow(n, count, n);
    for (std::size_t j = 0; j < count; ++j) {
      float const d = z[j] * (n[j] - h[begin + j]);
      h_new[begin + j] = n[j] - d;
    }
  }
}

void GruResets(float const* a, float* b, float const* h, std::size_t size, float* reset) {
  AddRow(a, b, 2 * size, b);
  SigmoidRow(b, 2 * size, b);
  for (std::size_t j = 0; j < size; ++j) reset[j] = b[j] * h[j];
}

void GruUpdates(float const* a, float const* b, float const* z, float const* h, std::size_t size, float* h_new) {
  float n[kBlock];
  for (std::size_t begin = 0; begin < size; begin += kBlock) {
    std::size_t const count = std::min(kBlock, size - begin);
    AddRow(a + begin, b + begin, count, n);
    TanhRow(n, count, n);
    for (std::size_t j = 0; j < count; ++j) {
      float const d = z[begin + j] * (n[j] - h[begin + j]);
      h_new[begin + j] = n[j] - d;
    }
  }
}

}  // namespace talvo::kernel::rows
