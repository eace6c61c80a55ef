#include "talvo/kernel/native/permute.h"

#include <cstddef>
#include <cstring>

#include "talvo/utility/log.h"

namespace talvo::kernel::native {
namespace {

using utility::Assert;

void CheckAxes(std::vector<unsigned int> const& axes) {
  std::vector<bool> seen(axes.size());
  for (unsigned int axis : axes) {
    Assert(axis < axes.size() && !seen[axis], "permute: axis %u is out of range or repeated among %zu axes", axis,
           axes.size());
    seen[axis] = true;
  }
}

}  // namespace

void Transform_MainMemory_Permute_Fallback(void const* source, std::vector<unsigned int> dims,
                                           unsigned int element_bytes, std::vector<unsigned int> axes,
                                           void* destination) {
  Assert(source != nullptr, "Input shared pointer is null.");
  Assert(destination != nullptr, "Output shared pointer is null.");
  Assert(element_bytes != 0, "bytes per element must be >= 1.");
  Assert(dims.size() == axes.size(), "dimensions of shape must be equal to tranpose axes's.");
  CheckAxes(axes);
  std::size_t total = 1;
  std::vector<std::size_t> step(axes.size());  // of the destination, for one step along each source axis
  for (std::size_t k = axes.size(); k-- > 0; total *= dims[axes[k]]) step[axes[k]] = total;
  auto const* from = static_cast<unsigned char const*>(source);
  auto* const to = static_cast<unsigned char*>(destination);
  for (std::size_t i = 0; i < total; ++i, from += element_bytes) {
    std::size_t rest = i, offset = 0;
    for (std::size_t axis = dims.size(); axis-- > 0; rest /= dims[axis]) offset += rest % dims[axis] * step[axis];
    std::memcpy(to + offset * element_bytes, from, element_bytes);
  }
}

}  // namespace talvo::kernel::native
