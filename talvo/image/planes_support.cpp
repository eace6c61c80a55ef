#include "talvo/image/planes_support.h"

#include <algorithm>
#include <type_traits>

#include "talvo/kernel/rows/pixels.h"
#include "talvo/utility/restrict.h"

namespace talvo::kernel::image {
namespace {

constexpr std::size_t kBlock =
    1024;  // pixels whose channels stay in the first cache while one plane after another passes

// y[i * y_step] = x[i * x_step]
template <class T>
void CopyStrided(T const* TALVO_RESTRICT x, std::size_t x_step, std::size_t count, T* TALVO_RESTRICT y,
                 std::size_t y_step) {
  for (std::size_t i = 0; i < count; ++i) y[i * y_step] = x[i * x_step];
}

}  // namespace

void SplitPixels3(unsigned char const* pixels, std::size_t count, Planes const& planes) {
  rows::SplitThree(pixels, count, planes[0], planes[1], planes[2]);
}

void SplitPixels4(unsigned char const* pixels, std::size_t count, Planes const& planes) {
  rows::SplitFour(pixels, count, planes[0], planes[1], planes[2]);
}

template <class T>
void SplitPixels(T const* pixels, std::size_t count, std::size_t channels, T* planes) {
  if constexpr (std::is_same_v<T, std::uint8_t>) {
    if (channels == 3) return rows::SplitThree(pixels, count, planes, planes + count, planes + 2 * count);
  }
  for (std::size_t i = 0; i < count; i += kBlock) {
    std::size_t const length = std::min(kBlock, count - i);
    for (std::size_t c = 0; c < channels; ++c) {
      CopyStrided(pixels + i * channels + c, channels, length, planes + c * count + i, 1);
    }
  }
}

template <class T>
void MergePlanes(T const* planes, std::size_t count, std::size_t channels, T* pixels) {
  if constexpr (std::is_same_v<T, std::uint8_t>) {
    if (channels == 3) return rows::MergeThree(planes, planes + count, planes + 2 * count, count, pixels);
  }
  for (std::size_t i = 0; i < count; i += kBlock) {
    std::size_t const length = std::min(kBlock, count - i);
    for (std::size_t c = 0; c < channels; ++c) {
      CopyStrided(planes + c * count + i, 1, length, pixels + i * channels + c, channels);
    }
  }
}

template void SplitPixels(std::uint8_t const*, std::size_t, std::size_t, std::uint8_t*);
template void SplitPixels(std::uint32_t const*, std::size_t, std::size_t, std::uint32_t*);
template void MergePlanes(std::uint8_t const*, std::size_t, std::size_t, std::uint8_t*);
template void MergePlanes(std::uint32_t const*, std::size_t, std::size_t, std::uint32_t*);

}  // namespace talvo::kernel::image
