// What a recurrent cell does behind its two matrix products a = W_ih x + b_ih and b = W_hh h + b_hh, on bare memory.
// Sigmoid and tanh are those of exponential.h. Internal.
#pragma once

#include <cstddef>

namespace talvo::kernel::rows {

/// h_new = tanh(a + b), or 0 > y ? 0 : y of y = a + b with `relu`. All [size].
void RnnGates(float const* a, float const* b, bool relu, std::size_t size, float* h_new);

/// Gates i, f, g, o of a + b, [4 * size] each: c = c * f + i * g, each product rounded; h_new = tanh(c) * o.
/// c [size] is replaced in place; h_new [size] overlaps none of the others.
void LstmGates(float const* a, float const* b, std::size_t size, float* c, float* h_new);

/// Gates r, z, n, [3 * size] each; the reset applies behind the hidden bias: n = tanh(a_n + b_n * r);
/// h_new = n - z * (n - h). h_new [size] may be h.
void GruGates(float const* a, float const* b, float const* h, std::size_t size, float* h_new);

/// The first part of a GRU whose reset applies to the hidden state before its product: gates r and z of a + b, [2 *
/// size], z in place of b's second part, and reset = r * h. All [size] but a and b; reset overlaps none of the others.
void GruResets(float const* a, float* b, float const* h, std::size_t size, float* reset);

/// The second: n = tanh(a + b) and h_new = n - z * (n - h). All [size]; h_new may be h.
void GruUpdates(float const* a, float const* b, float const* z, float const* h, std::size_t size, float* h_new);

}  // namespace talvo::kernel::rows
