#include "talvo/kernel/functional/structural.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

#include "talvo/kernel/functional/structural_support.h"
#include "talvo/kernel/native/structural.h"
#include "talvo/kernel/rows/elementwise_rows.h"
#include "talvo/utility/log.h"

namespace talvo::kernel::functional {
namespace {

using runtime::DimsText;
using runtime::Tensor;
using runtime::TensorShape;
using utility::Assert;

using TensorPtr = std::shared_ptr<Tensor>;

constexpr char const* kExpand = "Function_TensorExpand_Fallback_CHW_Float_M1";
constexpr std::size_t kSliceValues = 9;  // begin, end, step of C, H, W
constexpr std::size_t kShortRow = 1024;  // floats; from here on the C library copies a row best

// Extents of the inputs joined along `axis`; their other extents are equal.
std::vector<unsigned int> JoinedDims(std::vector<TensorPtr> const& inputs, unsigned int axis) {
  std::uint64_t extent = 0;
  for (auto const& input : inputs) extent += input->shape.dims[axis];
  Assert(extent <= std::numeric_limits<unsigned int>::max(),
         "Concatenate_MainMemory_Fallback: %zu inputs add up to an extent over 32 bits", inputs.size());
  auto dims = inputs[0]->shape.dims;
  dims[axis] = static_cast<unsigned int>(extent);
  return dims;
}

bool SameButAxis(std::vector<unsigned int> const& a, std::vector<unsigned int> const& b, unsigned int axis) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (i != axis && a[i] != b[i]) return false;
  }
  return true;
}

void CheckJoin(std::vector<TensorPtr> const& inputs, unsigned int axis) {
  Assert(inputs.size() >= 2, nullptr);
  for (auto const& input : inputs) {
    Assert(input != nullptr, "Concatenate_MainMemory_Fallback: one of %zu inputs is null", inputs.size());
  }
  TensorShape const& first = inputs[0]->shape;
  Assert(first.location == TensorShape::MainMemory, nullptr);
  for (auto const& input : inputs) {
    Assert(SameButAxis(input->shape.dims, first.dims, axis), nullptr);
    Assert(input->shape.location == first.location, nullptr);
    Assert(input->shape.data_type == first.data_type, nullptr);
  }
  Assert(axis < first.dims.size(), "Concatenate_MainMemory_Fallback: axis %u, the inputs have rank %zu", axis,
         first.dims.size());
}

// A tensor [C, H, W] with memory, whose elements take at least `element_bytes`.
Tensor const& CheckedPlanes(char const* who, char const* what, TensorPtr const& tensor, unsigned int element_bytes) {
  Assert(tensor != nullptr, "%s: the %s is null", who, what);
  TensorShape const& shape = tensor->shape;
  bool const wide = shape.data_type <= TensorShape::UINT8 && runtime::ElementSize(shape.data_type) >= element_bytes;
  bool const filled = tensor->data != nullptr || runtime::ElementCount(shape.dims) == 0;
  if (shape.dims.size() != 3 || !wide || !filled) {
    Assert(false, "%s: the %s has dims %s, data type %u%s; needs rank 3, %u bytes an element", who, what,
           DimsText(shape.dims).c_str(), shape.data_type, filled ? "" : " and no memory", element_bytes);
  }
  return *tensor;
}

// What a triple selects of an axis: begin, begin + step, ... while below `end`.
struct Range {
  std::size_t begin, end, step;
};

Range AxisRange(char const* who, std::vector<short> const& slice_dims, std::size_t axis, unsigned int extent,
                unsigned int selected) {
  int const begin = slice_dims[3 * axis], end = slice_dims[3 * axis + 1], step = slice_dims[3 * axis + 2];
  std::size_t const count = begin < end ? static_cast<std::size_t>((end - begin + step - 1) / step) : 0;
  bool const inside = count == 0 || (begin >= 0 && static_cast<unsigned int>(end) <= extent);
  if (!inside || count != selected) {
    Assert(false, "%s: {%d, %d, %d} selects %zu of the %u elements of axis %zu, the output holds %u", who, begin, end,
           step, count, extent, axis, selected);
  }
  if (count == 0) return {0, 0, 1};
  return {static_cast<std::size_t>(begin), static_cast<std::size_t>(end), static_cast<std::size_t>(step)};
}

// Copies the pieces of `count` floats at x + i * stride for each i of the range to y, and returns the end in y.
float* CopyPieces(Range range, float const* x, std::size_t stride, std::size_t count, float* y) {
  if (count == 0) return y;
  if (count <= kShortRow) {
    std::size_t const rows = (range.end - range.begin + range.step - 1) / range.step;
    rows::CopyRows(x + range.begin * stride, range.step * stride, count, rows, y);
    return y + rows * count;
  }
  for (std::size_t i = range.begin; i < range.end; i += range.step, y += count) {
    std::memcpy(y, x + i * stride, count * sizeof(float));
  }
  return y;
}

// Gathers the selected elements of the selected rows of a plane, and returns the end in y.
float* CopyElements(Range rows, Range columns, float const* x, std::size_t width, float* y) {
  for (std::size_t h = rows.begin; h < rows.end; h += rows.step) {
    for (std::size_t w = columns.begin; w < columns.end; w += columns.step) *y++ = x[h * width + w];
  }
  return y;
}

// One element of each of `channels` channels to the `plane` elements of that channel.
template <typename T>
void SpreadChannels(void const* x, std::size_t channels, std::size_t plane, void* y) {
  for (std::size_t c = 0; c < channels; ++c) {
    std::fill_n(static_cast<T*>(y) + c * plane, plane, static_cast<T const*>(x)[c]);
  }
}

}  // namespace

std::shared_ptr<runtime::TensorCPU> Concatenate_MainMemory_Fallback(std::vector<TensorPtr> const& inputs,
                                                                    unsigned int const& axis,
                                                                    std::shared_ptr<runtime::DeviceCPU> device) {
  CheckJoin(inputs, axis);
  Assert(device != nullptr, "Concatenate_MainMemory_Fallback: there is no CPU device");
  TensorShape const& first = inputs[0]->shape;
  auto joined = device->CreateTensor(TensorShape(JoinedDims(inputs, axis), first.data_type, TensorShape::FLEXIABLE,
                                                 first.location, TensorShape::Extra()),
                                     nullptr);
  Assert(joined != nullptr, nullptr);
  std::vector<void const*> sources;
  std::vector<std::vector<unsigned int>> dims;
  for (auto const& input : inputs) {
    sources.push_back(input->data);
    dims.push_back(input->shape.dims);
  }
  native::Concatenate_MainMemory_Fallback(sources, dims, runtime::ElementSize(first.data_type), axis, joined->data);
  return joined;
}

std::vector<unsigned int> SliceExtents(char const* who, std::vector<short> const& slice_dims) {
  Assert(slice_dims.size() >= kSliceValues, "%s: slice_dims holds %zu values, needs %zu", who, slice_dims.size(),
         kSliceValues);
  std::vector<unsigned int> extents;
  for (std::size_t axis = 0; axis < 3; ++axis) {
    int const begin = slice_dims[3 * axis], end = slice_dims[3 * axis + 1], step = slice_dims[3 * axis + 2];
    Assert(step >= 1, "%s: the step of axis %zu is %d, needs 1 or more", who, axis, step);
    extents.push_back(static_cast<unsigned int>((end - begin) / step));
  }
  return extents;
}

void Slice(char const* who, TensorPtr const& input, std::vector<short> const& slice_dims, TensorPtr const& output) {
  SliceExtents(who, slice_dims);
  auto const& from = CheckedPlanes(who, "input", input, sizeof(float)).shape.dims;
  auto const& to = CheckedPlanes(who, "output", output, sizeof(float)).shape.dims;
  auto const* const x = static_cast<float const*>(input->data);
  auto* y = static_cast<float*>(output->data);
  std::size_t const width = from[2], plane = width * from[1];
  Range const channels = AxisRange(who, slice_dims, 0, from[0], to[0]);
  if (to[1] == from[1] && to[2] == from[2]) {
    // Planes that follow each other are one piece.
    if (channels.step != 1) {
      CopyPieces(channels, x, plane, plane, y);
    } else {
      CopyPieces({0, 1, 1}, x + channels.begin * plane, 0, to[0] * plane, y);
    }
    return;
  }
  Range const rows = AxisRange(who, slice_dims, 1, from[1], to[1]);
  bool const whole_rows = to[2] == from[2];
  Range const columns = whole_rows ? Range{0, width, 1} : AxisRange(who, slice_dims, 2, from[2], to[2]);
  for (std::size_t c = channels.begin; c < channels.end; c += channels.step) {
    if (columns.step != 1) {
      y = CopyElements(rows, columns, x + c * plane, width, y);
    } else if (whole_rows && rows.step == 1) {
      y = CopyPieces({0, 1, 1}, x + c * plane + rows.begin * width, 0, to[1] * width, y);
    } else {
      y = CopyPieces(rows, x + c * plane + columns.begin, width, to[2], y);
    }
  }
}

void Function_TensorSlice_Fallback_CHW_Float_M1(TensorPtr const& input, std::vector<short> const& slice_dims,
                                                TensorPtr const& output) {
  Slice("Function_TensorSlice_Fallback_CHW_Float_M1", input, slice_dims, output);
}

void Function_TensorExpand_Fallback_CHW_Float_M1(TensorPtr const& input, TensorPtr const& output) {
  TensorShape const& from = CheckedPlanes(kExpand, "input", input, 1).shape;
  TensorShape const& to = CheckedPlanes(kExpand, "output", output, 1).shape;
  Assert(from.dims[0] == 1 || from.dims[1] == 1 || from.dims[2] == 1, nullptr);
  unsigned int const element_bytes = runtime::ElementSize(from.data_type);
  Assert(element_bytes == runtime::ElementSize(to.data_type), "%s: elements of %u bytes into elements of %u", kExpand,
         element_bytes, runtime::ElementSize(to.data_type));
  if (from.dims[1] != 1 || from.dims[2] != 1 || from.dims[0] != to.dims[0]) return;
  std::size_t const channels = to.dims[0], plane = std::size_t{to.dims[1]} * to.dims[2];
  if (element_bytes == 4) SpreadChannels<std::uint32_t>(input->data, channels, plane, output->data);
  if (element_bytes == 2) SpreadChannels<std::uint16_t>(input->data, channels, plane, output->data);
  if (element_bytes == 1) SpreadChannels<std::uint8_t>(input->data, channels, plane, output->data);
}

}  // namespace talvo::kernel::functional
