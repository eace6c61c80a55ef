// Between interleaved pixels and planes, on bare memory. Ranges do not overlap. Internal.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace talvo::kernel::image {

using Planes = std::array<unsigned char*, 3>;

/// planes[k][i] = pixels[3 i + k] for i < count and k < 3.
void SplitPixels3(unsigned char const* pixels, std::size_t count, Planes const& planes);

/// planes[k][i] = pixels[4 i + k] for i < count and k < 3; byte 3 is dropped.
void SplitPixels4(unsigned char const* pixels, std::size_t count, Planes const& planes);

/// planes[c * count + i] = pixels[i * channels + c], elements of 1 or 4 bytes.
template <class T>
void SplitPixels(T const* pixels, std::size_t count, std::size_t channels, T* planes);

/// pixels[i * channels + c] = planes[c * count + i], elements of 1 or 4 bytes.
template <class T>
void MergePlanes(T const* planes, std::size_t count, std::size_t channels, T* pixels);

extern template void SplitPixels(std::uint8_t const*, std::size_t, std::size_t, std::uint8_t*);
extern template void SplitPixels(std::uint32_t const*, std::size_t, std::size_t, std::uint32_t*);
extern template void MergePlanes(std::uint8_t const*, std::size_t, std::size_t, std::uint8_t*);
extern template void MergePlanes(std::uint32_t const*, std::size_t, std::size_t, std::uint32_t*);

}  // namespace talvo::kernel::image
