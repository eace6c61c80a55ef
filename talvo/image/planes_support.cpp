#include "talvo/image/planes_support.h"

#include <algorithm>

#include "talvo/utility/restrict.h"

namespace talvo::kernel::image {
namespace {

constexpr std::size_t kBlock =
    1024;  // pixels whose channels stay in the first cache while one plane after another passes

template <std::size_t kStep, class T>
void SplitThree(T const* TALVO_RESTRICT pixels, std::size_t count, T* TALVO_RESTRICT first, T* TALVO_RESTRICT second,
                T* TALVO_RESTRICT third) {
  for (std::size_t i = 0; i < count; ++i) {
    first[i] = pixels[kStep * i];
    second[i] = pixels[kStep * i + 1];
    third[i] = pixels[kStep * i + 2];
  }
}

template <class T>
void MergeThree(T const* TALVO_RESTRICT first, T const* TALVO_RESTRICT second, T const* TALVO_RESTRICT third,
                std::size_t count, T* TALVO_RESTRICT pixels) {
  for (std::size_t i = 0; i < count; ++i) {
    pixels[3 * i] = first[i];
    pixels[3 * i + 1] = second[i];
    pixels[3 * i + 2] = third[i];
  }
}

// y[i * y_step] = x[i * x_step]
template <class T>
void CopyStrided(T const* TALVO_RESTRICT x, std::size_t x_step, std::size_t count, T* TALVO_RESTRICT y,
                 std::size_t y_step) {
  for (std::size_t i = 0; i < count; ++i) y[i * y_step] = x[i * x_step];
}

}  // namespace

void SplitPixels3(unsigned char const* pixels, std::size_t count, Planes const& planes) {
  SplitThree<3>(pixels, count, planes[0], planes[1], planes[2]);
}

void SplitPixels4(unsigned char const* pixels, std::size_t count, Planes const& planes) {
  SplitThree<4>(pixels, count, planes[0], planes[1], planes[2]);
}

template <class T>
void SplitPixels(T const* pixels, std::size_t count, std::size_t channels, T* planes) {
  if (channels == 3) return SplitThree<3>(pixels, count, planes, planes + count, planes + 2 * count);
  for (std::size_t i = 0; i < count; i += kBlock) {
    std::size_t const length = std::min(kBlock, count - i);
    for (std::size_t c = 0; c < channels; ++c) {
      CopyStrided(pixels + i * channels + c, channels, length, planes + c * count + i, 1);
    }
  }
}

template <class T>
void MergePlanes(T const* planes, std::size_t count, std::size_t channels, T* pixels) {
  if (channels == 3) return MergeThree(planes, planes + count, planes + 2 * count, count, pixels);
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
