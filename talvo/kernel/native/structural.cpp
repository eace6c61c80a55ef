#include "talvo/kernel/native/structural.h"

#include <cstddef>
#include <cstring>

#include "talvo/utility/refuse_support.h"

namespace talvo::kernel::native {
namespace {

using Dims = std::vector<unsigned int>;
using utility::Refuse;

// Product of the extents of axes begin .. end - 1.
std::size_t Product(Dims const& dims, std::size_t begin, std::size_t end) {
  std::size_t product = 1;
  for (std::size_t axis = begin; axis < end; ++axis) product *= dims[axis];
  return product;
}

}  // namespace

void Concatenate_MainMemory_Fallback(std::vector<void const*> const& sources, std::vector<Dims> const& source_dims,
                                     unsigned int element_bytes, unsigned int axis, void* destination) {
  if (sources.empty() || sources.size() != source_dims.size())
    Refuse("Concatenate_MainMemory_Fallback: %zu sources, %zu shapes", sources.size(), source_dims.size());
  std::size_t row_bytes = 0;             // of the result, for one index before the axis
  std::vector<std::size_t> chunk_bytes;  // of each source
  for (std::size_t i = 0; i < sources.size(); row_bytes += chunk_bytes[i++]) {
    if (axis >= source_dims[i].size()) {
      Refuse("Concatenate_MainMemory_Fallback: axis %u, source %zu has rank %zu", axis, i, source_dims[i].size());
    }
    chunk_bytes.push_back(Product(source_dims[i], axis, source_dims[i].size()) * element_bytes);
    if (chunk_bytes[i] != 0 && (sources[i] == nullptr || destination == nullptr))
      Refuse("Concatenate_MainMemory_Fallback: source %zu or the destination has no memory", i);
  }
  if (row_bytes == 0) return;  // there may be any number of empty rows
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
