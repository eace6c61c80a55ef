#include "talvo/kernel/functional/structural.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

#include "talvo/kernel/functional/structural_support.h"
#include "talvo/kernel/native/fill_support.h"
#include "talvo/kernel/native/structural.h"
#include "talvo/kernel/rows/elementwise_rows.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::kernel::functional {
namespace {

using runtime::Tensor;
using runtime::TensorShape;
using utility::Refuse;

using TensorPtr = std::shared_ptr<Tensor>;

constexpr char const* kConcatenate = "Concatenate_MainMemory_Fallback";
constexpr std::size_t kSliceValues = 9;  // begin, end, step of C, H, W
constexpr std::size_t kShortRow = 1024;  // floats; from here on the C library copies a row best

// Extents of the inputs joined along `axis`; their other extents are equal.
std::vector<unsigned int> JoinedDims(std::vector<TensorPtr> const& inputs, unsigned int axis) {
  std::uint64_t extent = 0;
  for (auto const& input : inputs) extent += input->shape.dims[axis];
  if (extent > std::numeric_limits<unsigned int>::max()) {
    Refuse("%s: %zu inputs add up to an extent over 32 bits", kConcatenate, inputs.size());
  }
  auto dims = inputs[0]->shape.dims;
  dims[axis] = static_cast<unsigned int>(extent);
  return dims;
}

void CheckJoin(std::vector<TensorPtr> const& inputs, unsigned int axis) {
  if (inputs.size() < 2) Refuse(nullptr);
  for (auto const& input : inputs) {
    if (input == nullptr) Refuse("%s: one of %zu inputs is null", kConcatenate, inputs.size());
  }
  TensorShape const& first = inputs[0]->shape;
  if (first.location != TensorShape::MainMemory) Refuse(nullptr);
  for (auto const& input : inputs) {
    TensorShape const& shape = input->shape;
    if (!EqualButAxis(shape.dims, first.dims, axis) || shape.location != first.location ||
        shape.data_type != first.data_type) {
      Refuse(nullptr);
    }
  }
  if (axis >= first.dims.size()) {
    Refuse("%s: axis %u, the inputs have rank %zu", kConcatenate, axis, first.dims.size());
  }
}

// A triple's choice of an axis: `count` elements from `begin` on.
struct Range {
  std::size_t begin, count, step;
};

// begin, begin + step, ... while below end: what is picked must lie inside, not the end.
Range AxisRange(support::Who const& who, std::vector<short> const& slice_dims, std::size_t axis, unsigned int extent,
                unsigned int selected) {
  int const begin = slice_dims[3 * axis], end = slice_dims[3 * axis + 1], step = slice_dims[3 * axis + 2];
  int const count = begin < end ? (end - begin + step - 1) / step : 0;
  bool const inside = count == 0 || (begin >= 0 && static_cast<unsigned int>(begin + (count - 1) * step) < extent);
  if (!inside || static_cast<unsigned int>(count) != selected) {
    Refuse("%s: {%d, %d, %d} selects %d of the %u elements of axis %zu, the output holds %u", who.Text().c_str(), begin,
           end, step, count, extent, axis, selected);
  }
  return {static_cast<std::size_t>(begin), static_cast<std::size_t>(count), static_cast<std::size_t>(step)};
}

// Copies the pieces of n floats at x + i * stride for each i of the range to y, and returns the end in y.
float* CopyPieces(Range range, float const* x, std::size_t stride, std::size_t n, float* y) {
  x += range.begin * stride;
  if (n <= kShortRow) {
    rows::CopyRows(x, range.step * stride, n, range.count, y);
  } else {
    for (std::size_t i = 0; i < range.count; ++i)
      std::memcpy(y + i * n, x + i * range.step * stride, n * sizeof(float));
  }
  return y + range.count * n;
}

// Gathers the selected elements of the selected rows of a plane, and returns the end in y.
float* CopyElements(Range rows, Range columns, float const* x, std::size_t width, float* y) {
  for (std::size_t r = 0; r < rows.count; ++r) {
    float const* const row = x + (rows.begin + r * rows.step) * width + columns.begin;
    for (std::size_t i = 0; i < columns.count; ++i) *y++ = row[i * columns.step];
  }
  return y;
}

// The selected rows and columns of one plane, and the end in y; whole rows in one piece each, or all in one.
float* CopyWindow(Range rows, Range columns, float const* x, std::size_t width, float* y) {
  bool const whole_rows = columns.count == width;
  if (columns.step != 1) return CopyElements(rows, columns, x, width, y);
  if (whole_rows && rows.step == 1) return CopyPieces({rows.begin, 1, 1}, x, width, rows.count * width, y);
  return CopyPieces(rows, x + columns.begin, width, columns.count, y);
}

}  // namespace

std::shared_ptr<runtime::TensorCPU> Concatenate_MainMemory_Fallback(std::vector<TensorPtr> const& inputs,
                                                                    unsigned int const& axis,
                                                                    std::shared_ptr<runtime::DeviceCPU> device) {
  CheckJoin(inputs, axis);
  if (device == nullptr) Refuse("%s: there is no CPU device", kConcatenate);
  TensorShape const& first = inputs[0]->shape;
  auto joined = device->CreateTensor(TensorShape(JoinedDims(inputs, axis), first.data_type, TensorShape::FLEXIABLE,
                                                 first.location, TensorShape::Extra()),
                                     nullptr);
  if (joined == nullptr) Refuse(nullptr);
  std::vector<void const*> sources;
  std::vector<std::vector<unsigned int>> dims;
  for (auto const& input : inputs) {
    sources.push_back(input->data);
    dims.push_back(input->shape.dims);
  }
  native::Concatenate_MainMemory_Fallback(sources, dims, runtime::ElementSize(first.data_type), axis, joined->data);
  return joined;
}

bool EqualButAxis(std::vector<unsigned int> const& a, std::vector<unsigned int> const& b, std::size_t axis) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (i != axis && a[i] != b[i]) return false;
  }
  return true;
}

std::vector<unsigned int> SliceExtents(support::Who const& who, std::vector<short> const& slice_dims) {
  if (slice_dims.size() < kSliceValues) {
    Refuse("%s: slice_dims holds %zu values, needs %zu", who.Text().c_str(), slice_dims.size(), kSliceValues);
  }
  std::vector<unsigned int> extents;
  for (std::size_t axis = 0; axis < 3; ++axis) {
    int const begin = slice_dims[3 * axis], end = slice_dims[3 * axis + 1], step = slice_dims[3 * axis + 2];
    if (step < 1) Refuse("%s: the step of axis %zu is %d, needs 1 or more", who.Text().c_str(), axis, step);
    extents.push_back(static_cast<unsigned int>((end - begin) / step));
  }
  return extents;
}

void Slice(support::Who const& who, TensorPtr const& input, std::vector<short> const& slice_dims,
           TensorPtr const& output) {
  SliceExtents(who, slice_dims);
  support::CheckTensor(who, "the input", input.get(), {sizeof(float), 3});
  support::CheckTensor(who, "the output", output.get(), {sizeof(float), 3});
  auto const &from = input->shape.dims, &to = output->shape.dims;
  if (runtime::ElementCount(to) == 0) return;  // there may be any number of empty rows
  auto const* const x = static_cast<float const*>(input->data);
  auto* y = static_cast<float*>(output->data);
  std::size_t const width = from[2], plane = width * from[1];
  Range const channels = AxisRange(who, slice_dims, 0, from[0], to[0]);
  if (to[1] == from[1] && to[2] == from[2]) {
    // Planes that follow each other are one piece.
    bool const one_piece = channels.step == 1;
    CopyPieces(one_piece ? Range{channels.begin, 1, 1} : channels, x, plane, one_piece ? to[0] * plane : plane, y);
    return;
  }
  Range const rows = AxisRange(who, slice_dims, 1, from[1], to[1]);
  Range const columns = to[2] == from[2] ? Range{0, width, 1} : AxisRange(who, slice_dims, 2, from[2], to[2]);
  for (std::size_t c = 0; c < channels.count; ++c) {
    y = CopyWindow(rows, columns, x + (channels.begin + c * channels.step) * plane, width, y);
  }
}

void Function_TensorSlice_Fallback_CHW_Float_M1(TensorPtr const& input, std::vector<short> const& slice_dims,
                                                TensorPtr const& output) {
  Slice("Function_TensorSlice_Fallback_CHW_Float_M1", input, slice_dims, output);
}

void Function_TensorExpand_Fallback_CHW_Float_M1(TensorPtr const& input, TensorPtr const& output) {
  support::CheckTensor(__func__, "the input", input.get(), {1, 3});
  support::CheckTensor(__func__, "the output", output.get(), {1, 3});
  auto const &from = input->shape.dims, &to = output->shape.dims;
  if (from[0] != 1 && from[1] != 1 && from[2] != 1) Refuse(nullptr);
  unsigned int const element_bytes = runtime::ElementSize(input->shape.data_type);
  if (element_bytes != runtime::ElementSize(output->shape.data_type)) {
    Refuse("%s: elements of %u bytes into elements of %u", __func__, element_bytes,
           runtime::ElementSize(output->shape.data_type));
  }
  std::size_t const channels = to[0], plane = std::size_t{to[1]} * to[2];
  if (from[1] != 1 || from[2] != 1 || from[0] != to[0] || plane == 0) return;
  auto const* const x = static_cast<unsigned char const*>(input->data);
  auto* const y = static_cast<unsigned char*>(output->data);
  for (std::size_t c = 0; c < channels; ++c) {
    native::FillElements(x + c * element_bytes, element_bytes, plane, y + c * plane * element_bytes);
  }
}

}  // namespace talvo::kernel::functional
