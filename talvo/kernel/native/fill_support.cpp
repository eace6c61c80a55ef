#include "talvo/kernel/native/fill_support.h"

#include <algorithm>
#include <cstdint>

namespace talvo::kernel::native {
namespace {

template <typename T>
void Fill(void const* element, std::size_t n, void* to) {
  std::fill_n(static_cast<T*>(to), n, *static_cast<T const*>(element));
}

}  // namespace

float* FillFloats(float value, std::size_t n, float* to) { return std::fill_n(to, n, value); }

void FillElements(void const* element, unsigned int element_bytes, std::size_t n, void* to) {
  if (element_bytes == 4) Fill<std::uint32_t>(element, n, to);
  if (element_bytes == 2) Fill<std::uint16_t>(element, n, to);
  if (element_bytes == 1) Fill<std::uint8_t>(element, n, to);
}

}  // namespace talvo::kernel::native
