#include "talvo/kernel/native/permute.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include "talvo/kernel/rows/transpose.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::kernel::native {
namespace {

using utility::Refuse;
using Byte = unsigned char;

// One axis of the copy; steps in bytes.
struct Axis {
  std::size_t extent, source_step, destination_step;
};
using Axes = std::vector<Axis>;

void Check(std::vector<unsigned int> const& dims, std::vector<unsigned int> const& axes) {
  std::vector<bool> seen(axes.size());
  for (unsigned int const axis : axes) {
    if (axis >= axes.size() || seen[axis]) {
      Refuse("permute: axis %u is out of range or repeated among %zu axes", axis, axes.size());
    }
    seen[axis] = true;
  }
  std::uint64_t count = std::count(dims.begin(), dims.end(), 0u) == 0;
  for (unsigned int const extent : dims) {
    count *= extent;
    if (count > 0xFFFFFFFFu) Refuse("permute: dims of more than 4294967295 elements");
  }
}

// The axes in the destination's order. Axes of extent 1 are left out, neighbours that stay neighbours are one axis.
Axes MergedAxes(std::vector<unsigned int> const& dims, std::size_t element_bytes,
                std::vector<unsigned int> const& order) {
  std::vector<std::size_t> source_steps(dims.size());
  std::size_t step = element_bytes;
  for (std::size_t axis = dims.size(); axis-- > 0; step *= dims[axis]) source_steps[axis] = step;
  Axes merged;
  for (unsigned int axis : order) {
    if (dims[axis] == 1) continue;
    if (!merged.empty() && merged.back().source_step == source_steps[axis] * dims[axis]) {
      merged.back().extent *= dims[axis];
      merged.back().source_step = source_steps[axis];
    } else {
      merged.push_back({dims[axis], source_steps[axis], 0});
    }
  }
  step = element_bytes;
  for (std::size_t k = merged.size(); k-- > 0; step *= merged[k].extent) merged[k].destination_step = step;
  return merged;
}

// Calls visit(source, destination) for each index of the axes, the last of them fastest.
template <class Visit>
void ForEach(Axes const& axes, Byte const* source, Byte* destination, Visit const& visit) {
  std::vector<std::size_t> index(axes.size());
  for (;;) {
    visit(source, destination);
    std::size_t k = axes.size();
    for (; k > 0; --k) {
      Axis const& axis = axes[k - 1];
      source += axis.source_step;
      destination += axis.destination_step;
      if (++index[k - 1] < axis.extent) break;
      index[k - 1] = 0;
      source -= axis.source_step * axis.extent;
      destination -= axis.destination_step * axis.extent;
    }
    if (k == 0) return;
  }
}

// One axis is contiguous in the source, the last one in the destination: they span a plane for each index of the rest.
// The planes along the innermost axis of the rest go in one call: they may have a few elements each.
void MovePlanes(Axes axes, std::size_t element_bytes, Byte const* source, Byte* destination) {
  auto const contiguous =
      std::find_if(axes.begin(), axes.end(), [&](Axis const& axis) { return axis.source_step == element_bytes; });
  Axis const column_axis = *contiguous, row_axis = axes.back();
  axes.pop_back();
  axes.erase(contiguous);
  Axis const plane_axis = axes.empty() ? Axis{1, 0, 0} : axes.back();
  if (!axes.empty()) axes.pop_back();
  auto const step = [](std::size_t bytes) { return static_cast<std::ptrdiff_t>(bytes); };
  ForEach(axes, source, destination, [&](Byte const* from, Byte* to) {
    rows::TransposeElements(element_bytes, {from, step(row_axis.source_step), row_axis.extent, column_axis.extent, to,
                                            step(column_axis.destination_step), step(element_bytes), plane_axis.extent,
                                            step(plane_axis.source_step), step(plane_axis.destination_step)});
  });
}

void Permute(Axes axes, std::size_t element_bytes, Byte const* source, Byte* destination) {
  if (!axes.empty() && axes.back().source_step == element_bytes) {  // rows stay rows: a row is one element
    element_bytes *= axes.back().extent;
    axes.pop_back();
  }
  if (axes.empty()) {
    std::memcpy(destination, source, element_bytes);
  } else {
    MovePlanes(std::move(axes), element_bytes, source, destination);
  }
}

}  // namespace

void Transform_MainMemory_Permute_Fallback(void const* source, std::vector<unsigned int> dims,
                                           unsigned int element_bytes, std::vector<unsigned int> axes,
                                           void* destination) {
  if (source == nullptr) Refuse("Input shared pointer is null.");
  if (destination == nullptr) Refuse("Output shared pointer is null.");
  if (element_bytes == 0) Refuse("bytes per element must be >= 1.");
  if (dims.size() != axes.size()) Refuse("dimensions of shape must be equal to tranpose axes's.");
  Check(dims, axes);
  if (std::count(dims.begin(), dims.end(), 0u) != 0) return;
  Permute(MergedAxes(dims, element_bytes, axes), element_bytes, static_cast<Byte const*>(source),
          static_cast<Byte*>(destination));
}

}  // namespace talvo::kernel::native
