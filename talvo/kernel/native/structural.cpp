#include "talvo/kernel/native/structural.h"

#include <cstddef>
#include <cstring>

#include "talvo/utility/log.h"

namespace talvo::kernel::native {
namespace {

using Dims = std::vector<unsigned int>;

// Product of the extents of axes begin .. end - 1.
std::size_t Product(Dims const& dims, std::size_t begin, std::size_t end) {
  std::size_t product = 1;
  for (std::size_t axis = begin; axis < end; ++axis) product *= dims[axis];
  return product;
}

}  // namespace

void Concatenate_MainMemory_Fallback(std::vector<void const*> const& sources, std::vector<Dims> const& source_dims,
                                     unsigned int element_bytes, unsigned int axis, void* destination) {
  utility::Assert(!sources.empty() && sources.size() == source_dims.size(),
                  "Concatenate_MainMemory_Fallback: %zu sources, %zu shapes", sources.size(), source_dims.size());
  std::vector<std::size_t> chunk_bytes;  // of each source, for one index before the axis
  for (std::size_t i = 0; i < sources.size(); ++i) {
    utility::Assert(axis < source_dims[i].size(), "Concatenate_MainMemory_Fallback: axis %u, source %zu has rank %zu",
                    axis, i, source_dims[i].size());
    chunk_bytes.push_back(Product(source_dims[i], axis, source_dims[i].size()) * element_bytes);
    utility::Assert((sources[i] != nullptr && destination != nullptr) || chunk_bytes.back() == 0,
                    "Concatenate_MainMemory_Fallback: source %zu or the destination has no memory", i);
  }
  std::size_t const outer = Product(source_dims[0], 0, axis);
  auto* to = static_cast<unsigned char*>(destination);
  for (std::size_t o = 0; o < outer; ++o) {
    for (std::size_t i = 0; i < sources.size(); to += chunk_bytes[i], ++i) {
      if (chunk_bytes[i] == 0) continue;
      std::memcpy(to, static_cast<unsigned char const*>(sources[i]) + o * chunk_bytes[i], chunk_bytes[i]);
    }
  }
}

}  // namespace talvo::kernel::native
