// Fourier transforms as products with constant matrices.
#include <cmath>

#include "tools/convert_onnx/translators.h"

namespace convert_onnx {
namespace {

using Values = std::vector<Value>;

constexpr double kPi = 3.14159265358979323846;

// Row k: the cosines or sines of -2 pi k i / length, or of its negative, times a window's values. [rows, length].
Floats Waves(long long rows, long long length, bool sines, bool inverse, std::vector<double> const& window) {
  Floats matrix(Count({rows, length}));
  for (long long k = 0; k < rows; ++k) {
    for (long long i = 0; i < length; ++i) {
      double const angle = 2 * kPi * static_cast<double>(Times(k, i) % length) / static_cast<double>(length);
      double const value = sines ? (inverse ? std::sin(angle) : -std::sin(angle)) : std::cos(angle);
      double const factor = inverse ? 1 / static_cast<double>(length) : 1;
      matrix[static_cast<std::size_t>(k * length + i)] =
          static_cast<float>(value * factor * (window.empty() ? 1 : window[static_cast<std::size_t>(i)]));
    }
  }
  return matrix;
}

// (a + b i)(C + S i) along an axis; the last axis holds the real and the imaginary part.
Values Transform(Node const& node, Builder& b) {
  Value const& x = node.TensorInput(0);
  std::size_t const axis = Axis(node.Int("axis", 1), x.shape.size()), last = x.shape.size() - 1;
  bool const inverse = node.Int("inverse", 0) != 0;
  if (axis == last) throw Refusal("attribute axis = the axis of the parts of a number");
  if (node.Given(1)) throw Refusal("input dft_length is given");
  long long const length = x.shape[axis], rows = node.Int("onesided", 0) != 0 ? length / 2 + 1 : length;
  Floats const cosines = Waves(rows, length, false, inverse, {}), sines = Waves(rows, length, true, inverse, {});
  if (x.shape[last] == 1) return {b.Join({b.Along(x, axis, cosines, rows), b.Along(x, axis, sines, rows)}, last)};
  if (x.shape[last] != 2) throw Refusal("a last axis of " + std::to_string(x.shape[last]) + ", needs 1 or 2");
  Value const real = b.Slice(x, last, 0, 1, 1), imaginary = b.Slice(x, last, 1, 1, 1);
  Value const y = b.Combine(kSub, b.Along(real, axis, cosines, rows), b.Along(imaginary, axis, sines, rows));
  Value const z = b.Combine(kAdd, b.Along(real, axis, sines, rows), b.Along(imaginary, axis, cosines, rows));
  return {b.Join({y, z}, last)};
}

// Frames of a real signal [1, samples, 1], each by the transform's matrix: one strided convolution.
Values ShortTime(Node const& node, Builder& b) {
  Value const& x = node.TensorInput(0);
  if (x.shape.size() < 2 || x.shape.size() > 3 || x.shape[0] != 1 || (x.shape.size() == 3 && x.shape[2] != 1))
    throw Refusal("a signal of shape " + Text(x.shape) + ", needs 1 x samples, real");
  auto const one = [&](std::size_t index) {
    Array const& array = node.ConstantInput(index);
    if (array.values.size() != 1) throw Refusal("input " + std::to_string(index) + " is no scalar");
    return array.Integers()[0];
  };
  std::vector<double> const window = node.Given(2) ? node.ConstantInput(2).values : std::vector<double>();
  long long const length = node.Given(3) ? one(3) : static_cast<long long>(window.size()), step = one(1);
  if (length < 1 || length > 65535 || step < 1 || step > 65535)
    throw Refusal("frames of " + std::to_string(length) + " every " + std::to_string(step));
  if (!window.empty() && static_cast<long long>(window.size()) != length)
    throw Refusal("a window of " + std::to_string(window.size()) + " for frames of " + std::to_string(length));
  long long const rows = node.Int("onesided", 1) != 0 ? length / 2 + 1 : length;
  Floats weight;  // real and imaginary rows in turn
  Floats const cosines = Waves(rows, length, false, false, window), sines = Waves(rows, length, true, false, window);
  for (std::ptrdiff_t k = 0; k < rows; ++k) {
    for (Floats const* const list : {&cosines, &sines})
      weight.insert(weight.end(), list->begin() + k * length, list->begin() + (k + 1) * length);
  }
  Window frame;
  frame.kernel_y = length, frame.stride_y = step;
  Value const made = b.Convolve(b.Flat(x, {1, x.shape[1], 1}), weight, {}, 2 * rows, 1, frame);
  long long const frames = made.dims[1];
  return {Builder::As(b.Permute(Builder::As(made, {2 * rows, frames}), {1, 0}), {1, frames, rows, 2})};
}

}  // namespace

void AddFourier(Translators& table) { table.insert({{"DFT", Transform}, {"STFT", ShortTime}}); }

}  // namespace convert_onnx
