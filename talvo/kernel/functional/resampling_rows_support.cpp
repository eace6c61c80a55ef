#include "talvo/kernel/functional/resampling_rows_support.h"

#include "talvo/utility/restrict_support.h"

namespace talvo::kernel::functional {
namespace {

template <typename T>
void Gather(void const* TALVO_RESTRICT from, std::uint32_t const* TALVO_RESTRICT index, std::size_t n,
            void* TALVO_RESTRICT to) {
  auto const* const x = static_cast<T const*>(from);
  auto* const y = static_cast<T*>(to);
  for (std::size_t i = 0; i < n; ++i) y[i] = x[index[i]];
}

template <typename T>
void Double(void const* TALVO_RESTRICT from, std::uint32_t const*, std::size_t n, void* TALVO_RESTRICT to) {
  auto const* const x = static_cast<T const*>(from);
  auto* const y = static_cast<T*>(to);
  for (std::size_t i = 0; i < n / 2; ++i) {
    T const value = x[i];
    y[2 * i] = value;
    y[2 * i + 1] = value;
  }
  if (n % 2 != 0) y[n - 1] = x[n / 2];
}

// kCount 0: the count is not known here.
template <std::size_t kCount, typename T>
void Interleave(T const* TALVO_RESTRICT x, PhaseRows const& rows, T* TALVO_RESTRICT y) {
  std::size_t const count = kCount != 0 ? kCount : rows.count, n = rows.n, stride = rows.stride;
  for (std::size_t rest = rows.rectangles; rest > 0; --rest, x += rows.x_step, y += rows.y_step)
    for (std::size_t i = 0; i < n; ++i)
      for (std::size_t row = 0; row < count; ++row) y[i * count + row] = x[row * stride + i];
}

template <std::size_t kCount, typename T>
void Split(T const* TALVO_RESTRICT x, PhaseRows const& rows, T* TALVO_RESTRICT y) {
  std::size_t const count = kCount != 0 ? kCount : rows.count, n = rows.n, stride = rows.stride;
  for (std::size_t rest = rows.rectangles; rest > 0; --rest, x += rows.x_step, y += rows.y_step)
    for (std::size_t i = 0; i < n; ++i)
      for (std::size_t row = 0; row < count; ++row) y[row * stride + i] = x[i * count + row];
}

template <typename T>
void InterleaveAs(void const* x, PhaseRows const& rows, void* y) {
  auto* const interleave = rows.count == 2 ? Interleave<2, T> : rows.count == 3 ? Interleave<3, T> : Interleave<0, T>;
  interleave(static_cast<T const*>(x), rows, static_cast<T*>(y));
}

template <typename T>
void SplitAs(void const* x, PhaseRows const& rows, void* y) {
  auto* const split = rows.count == 2 ? Split<2, T> : rows.count == 3 ? Split<3, T> : Split<0, T>;
  split(static_cast<T const*>(x), rows, static_cast<T*>(y));
}

template <std::size_t kPlanes, typename T>
void Blend(T const* TALVO_RESTRICT x, std::size_t plane, rows::TwoPixels const* TALVO_RESTRICT positions, std::size_t n,
           float* TALVO_RESTRICT y) {
  for (std::size_t j = 0; j < n; ++j) {
    rows::TwoPixels const at = positions[j];
    for (std::size_t p = 0; p < kPlanes; ++p) {
      T const* const row = x + p * plane;
      y[p * n + j] = static_cast<float>(row[at.high]) * at.weight + static_cast<float>(row[at.low]) * at.rest;
    }
  }
}

}  // namespace

MoveRow GatherOf(unsigned int element_bytes) {
  return element_bytes == 1 ? Gather<unsigned char> : element_bytes == 2 ? Gather<std::int16_t> : Gather<float>;
}

MoveRow DoubleOf(unsigned int element_bytes) {
  return element_bytes == 1 ? Double<unsigned char> : element_bytes == 2 ? Double<std::int16_t> : Double<float>;
}

void InterleaveRows(unsigned int element_bytes, void const* x, PhaseRows const& rows, void* y) {
  (element_bytes == 2 ? InterleaveAs<std::int16_t> : InterleaveAs<float>)(x, rows, y);
}

void SplitPhases(unsigned int element_bytes, void const* x, PhaseRows const& rows, void* y) {
  (element_bytes == 2 ? SplitAs<std::int16_t> : SplitAs<float>)(x, rows, y);
}

void BlendColumns(float const* x, std::size_t planes, std::size_t plane, rows::TwoPixels const* positions,
                  std::size_t n, float* y) {
  (planes == 1 ? Blend<1, float> : Blend<kFewPlanes, float>)(x, plane, positions, n, y);
}

void BlendColumns(std::int16_t const* x, std::size_t planes, std::size_t plane, rows::TwoPixels const* positions,
                  std::size_t n, float* y) {
  (planes == 1 ? Blend<1, std::int16_t> : Blend<kFewPlanes, std::int16_t>)(x, plane, positions, n, y);
}

void BlendRows(float const* TALVO_RESTRICT top, float const* TALVO_RESTRICT low, float weight, float rest,
               std::size_t planes, std::size_t n, std::int16_t* TALVO_RESTRICT y, std::size_t y_step) {
  for (std::size_t p = 0; p < planes; ++p, top += n, low += n, y += y_step) {
    for (std::size_t j = 0; j < n; ++j) y[j] = static_cast<std::int16_t>(low[j] * weight + top[j] * rest);
  }
}

}  // namespace talvo::kernel::functional
