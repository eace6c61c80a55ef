#include "talvo/kernel/padding.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <utility>

#include "talvo/kernel/native/fill_support.h"
#include "talvo/kernel/rows/elementwise_rows.h"
#include "talvo/utility/invariant.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::kernel {
namespace {

using runtime::DeviceCPU;
using runtime::DimsText;
using runtime::TensorCPU;
using runtime::TensorShape;
using utility::Refuse;
using Pointer = std::shared_ptr<TensorCPU>;
using DevicePointer = std::shared_ptr<DeviceCPU>;

struct Borders {
  unsigned int l, r, t, b;
};

void RequireTensor(char const* function, char const* what, Pointer const& tensor) {
  if (tensor == nullptr) Refuse("%s: the %s is null", function, what);
}

// The rank, and memory behind the elements.
void RequireRank(char const* function, TensorCPU const& tensor, std::size_t rank) {
  bool const filled = tensor.data != nullptr || runtime::ElementCount(tensor.shape.dims) == 0;
  bool const ranked = tensor.shape.dims.size() == rank && tensor.strides.size() == rank;
  if (!filled || !ranked) {
    Refuse("%s: a tensor has dims %s%s; needs rank %zu", function, DimsText(tensor.shape.dims).c_str(),
           filled ? "" : " and no memory", rank);
  }
}

bool IsFloat(TensorShape const& shape) {
  return shape.location == TensorShape::MainMemory && shape.data_type == TensorShape::FLOAT32;
}

bool IsFloat(TensorShape const& shape, unsigned int layout) { return IsFloat(shape) && shape.layout == layout; }

// extent + before + after. Assert: over 32 bits.
unsigned int Widened(char const* function, unsigned int extent, unsigned int before, unsigned int after) {
  std::uint64_t const sum = std::uint64_t{extent} + before + after;
  if (sum > std::numeric_limits<unsigned int>::max()) {
    Refuse("%s: an extent of %u and borders of %u and %u exceed 32 bits", function, extent, before, after);
  }
  return static_cast<unsigned int>(sum);
}

// extent - before - after. Assert: below 0.
unsigned int Narrowed(char const* function, unsigned int extent, unsigned int before, unsigned int after) {
  if (std::uint64_t{before} + after > extent) {
    Refuse("%s: borders of %u and %u are cut from an extent of %u", function, before, after, extent);
  }
  return extent - before - after;
}

// A tensor of the input's data type, layout and location.
Pointer NewLike(char const* function, TensorCPU const& input, std::vector<unsigned int> dims,
                DevicePointer const& device, TensorShape::Extra extra = TensorShape::Extra()) {
  if (device == nullptr) Refuse("%s: the device is null", function);
  TensorShape const& shape = input.shape;
  return device->CreateTensor(
      TensorShape(std::move(dims), shape.data_type, shape.layout, shape.location, std::move(extra)), nullptr);
}

// One row: `before` times value, the elements, `after` times value. Returns the end.
float* PadRow(float const* from, std::size_t count, std::size_t before, std::size_t after, float value, float* to) {
  to = native::FillFloats(value, before, to);
  to = std::copy_n(from, count, to);
  return native::FillFloats(value, after, to);
}

// Of rank 3, or of rank 2: a row of each channel.
Pointer PadFloats(char const* function, Pointer const& input, std::size_t rank, Borders borders, float value,
                  DevicePointer const& device) {
  RequireTensor(function, "input", input);
  if (!IsFloat(input->shape, rank == 3 ? TensorShape::CHW : TensorShape::CL)) return nullptr;
  RequireRank(function, *input, rank);
  std::vector<unsigned int> dims = input->shape.dims;
  unsigned int const channels = dims[0], height = rank == 3 ? dims[1] : 1, width = dims.back();
  if (rank == 3) dims[1] = Widened(function, height, borders.t, borders.b);
  unsigned int const padded_width = dims.back() = Widened(function, width, borders.l, borders.r);
  auto result = NewLike(function, *input, std::move(dims), device);
  float* to = result->Data<float>();
  for (unsigned int c = 0; c < channels; ++c) {
    to = native::FillFloats(value, std::size_t{borders.t} * padded_width, to);
    float const* from = input->Data<float>() + std::size_t{c} * input->strides[0];
    for (unsigned int y = 0; y < height; ++y, from += input->strides[1]) {
      to = PadRow(from, width, borders.l, borders.r, value, to);
    }
    to = native::FillFloats(value, std::size_t{borders.b} * padded_width, to);
  }
  return result;
}

// Bytes of a packed group of `block` elements (rank 4), or of one element (rank 3, block 1). Assert: a wrong rank, a
// last axis shorter than the group.
std::size_t GroupBytes(char const* function, TensorCPU const& tensor, unsigned int block) {
  RequireRank(function, tensor, block == 1 ? 3 : 4);
  if (block > 1 && tensor.shape.dims[3] < block) {
    Refuse("%s: dims %s need a last axis of %u", function, DimsText(tensor.shape.dims).c_str(), block);
  }
  return std::size_t{block} * runtime::ElementSize(tensor.shape.data_type);
}

std::vector<unsigned int> Dims(unsigned int channels, unsigned int height, unsigned int width, unsigned int block) {
  if (block == 1) return {channels, height, width};
  return {channels, height, width, block};
}

// Copies channels x rows x columns groups from one tensor's (c, from_y, from_x) on to another's (c, to_y, to_x) on.
struct Window {
  unsigned int channels, rows, columns;
};
void CopyWindow(TensorCPU const& from, unsigned int from_y, unsigned int from_x, TensorCPU const& to, unsigned int to_y,
                unsigned int to_x, Window window, std::size_t group_bytes) {
  std::size_t const element_bytes = runtime::ElementSize(from.shape.data_type);
  auto const address = [=](TensorCPU const& tensor, std::size_t c, std::size_t y, std::size_t x) {
    return tensor.Data<unsigned char>() + (c * tensor.strides[0] + y * tensor.strides[1]) * element_bytes +
           x * group_bytes;
  };
  if (window.columns == 0) return;
  for (unsigned int c = 0; c < window.channels; ++c) {
    for (unsigned int y = 0; y < window.rows; ++y) {
      std::memcpy(address(to, c, to_y + y, to_x), address(from, c, from_y + y, from_x), window.columns * group_bytes);
    }
  }
}

Pointer PadZeros(char const* function, Pointer const& input, Borders borders, unsigned int block,
                 DevicePointer const& device) {
  RequireTensor(function, "input", input);
  // The tensor itself, whatever its type and rank: nothing is read.
  if (borders.l == 0 && borders.r == 0 && borders.t == 0 && borders.b == 0) return input;
  std::size_t const group_bytes = GroupBytes(function, *input, block);
  auto const& dims = input->shape.dims;
  unsigned int const height = Widened(function, dims[1], borders.t, borders.b);
  unsigned int const width = Widened(function, dims[2], borders.l, borders.r);
  auto result = NewLike(function, *input, Dims(dims[0], height, width, block), device);
  std::memset(result->data, 0, runtime::ByteCount(result->shape));
  CopyWindow(*input, 0, 0, *result, borders.t, borders.l, {dims[0], dims[1], dims[2]}, group_bytes);
  return result;
}

Pointer Cut(char const* function, Pointer const& input, unsigned int layout, Borders borders, unsigned int block,
            bool keep_extra, DevicePointer const& device) {
  RequireTensor(function, "input", input);
  if (!IsFloat(input->shape, layout)) return nullptr;
  std::size_t const group_bytes = GroupBytes(function, *input, block);
  auto const& dims = input->shape.dims;
  unsigned int const height = Narrowed(function, dims[1], borders.t, borders.b);
  unsigned int const width = Narrowed(function, dims[2], borders.l, borders.r);
  auto const extra = keep_extra ? input->shape.extra : TensorShape::Extra();
  auto result = NewLike(function, *input, Dims(dims[0], height, width, block), device, extra);
  CopyWindow(*input, borders.t, borders.l, *result, 0, 0, {dims[0], height, width}, group_bytes);
  return result;
}

// Whether a bias form takes these two tensors. Assert: null, or wrong ranks.
bool AcceptsBias(char const* function, Pointer const& inout, unsigned int layout, std::size_t rank,
                 Pointer const& bias) {
  RequireTensor(function, "tensor", inout);
  RequireTensor(function, "bias", bias);
  if (!IsFloat(bias->shape, TensorShape::GN) || !IsFloat(inout->shape, layout)) return false;
  RequireRank(function, *inout, rank);
  RequireRank(function, *bias, 2);
  return true;
}

std::size_t ChannelElements(TensorCPU const& tensor) {
  std::size_t elements = 1;
  for (std::size_t axis = 1; axis < tensor.shape.dims.size(); ++axis) elements *= tensor.shape.dims[axis];
  return elements;
}

void FillChannels(TensorCPU const& inout, TensorCPU const& bias) {
  std::size_t const elements = ChannelElements(inout);
  float* to = inout.Data<float>();
  for (unsigned int c = 0; c < inout.shape.dims[0]; ++c) {
    to = native::FillFloats(bias.Data<float>()[c], elements, to);
  }
}

int FillZero(char const* function, Pointer const& inout, unsigned int data_type) {
  RequireTensor(function, "tensor", inout);
  if (inout->shape.location != TensorShape::MainMemory || inout->shape.data_type != data_type) return -2;
  RequireRank(function, *inout, inout->shape.dims.size());
  unsigned int const bytes = runtime::ByteCount(inout->shape);
  if (bytes > 0) std::memset(inout->data, 0, bytes);
  return 0;
}

}  // namespace

Pointer Padding_HW_MainMemory_CHW_Float_Fallback_M1(Pointer input, unsigned int l, unsigned int r, unsigned int t,
                                                    unsigned int b, float value, DevicePointer device) {
  return PadFloats(__func__, input, 3, {l, r, t, b}, value, device);
}

Pointer Padding_HW_MainMemory_CHW_Zero_Fallback_M1(Pointer input, unsigned int l, unsigned int r, unsigned int t,
                                                   unsigned int b, DevicePointer device) {
  return PadFloats(__func__, input, 3, {l, r, t, b}, 0.0f, device);
}

Pointer Padding_L_MainMemory_CL_Float_Fallback_M1(Pointer input, unsigned int left, unsigned int right, float value,
                                                  DevicePointer device) {
  return PadFloats(__func__, input, 2, {left, right, 0, 0}, value, device);
}

Pointer ZeroPadding_HW_MainMemory_CHW_Int16_Fallback_M1(Pointer input, unsigned int l, unsigned int r, unsigned int t,
                                                        unsigned int b, DevicePointer device) {
  return PadZeros(__func__, input, {l, r, t, b}, 1, device);
}

Pointer ZeroPadding_HW_MainMemory_C4HW4_Int16_Fallback_M1(Pointer input, unsigned int l, unsigned int r, unsigned int t,
                                                          unsigned int b, DevicePointer device) {
  return PadZeros(__func__, input, {l, r, t, b}, 4, device);
}

Pointer ZeroPadding_HW_MainMemory_C8HW8_Int16_Fallback_M1(Pointer input, unsigned int l, unsigned int r, unsigned int t,
                                                          unsigned int b, DevicePointer device) {
  return PadZeros(__func__, input, {l, r, t, b}, 8, device);
}

Pointer Cutting_HW_MainMemory_Fallback_CHW_Float_M1(Pointer input, unsigned int l, unsigned int r, unsigned int t,
                                                    unsigned int b, DevicePointer device) {
  return Cut(__func__, input, TensorShape::CHW, {l, r, t, b}, 1, false, device);
}

Pointer Cutting_HW_MainMemory_Fallback_C4HW4_Float_M1(Pointer input, unsigned int l, unsigned int r, unsigned int t,
                                                      unsigned int b, DevicePointer device) {
  return Cut(__func__, input, TensorShape::C4HW4, {l, r, t, b}, 4, false, device);
}

Pointer Cutting_HW_MainMemory_Fallback_C8HW8_Float_M1(Pointer input, unsigned int l, unsigned int r, unsigned int t,
                                                      unsigned int b, DevicePointer device) {
  return Cut(__func__, input, TensorShape::C8HW8, {l, r, t, b}, 8, false, device);
}

Pointer Cut_HW_MainMemory_CHW_Float_M1(Pointer input, unsigned int l, unsigned int r, unsigned int t, unsigned int b,
                                       DevicePointer device) {
  return Cut(__func__, input, TensorShape::CHW, {l, r, t, b}, 1, true, device);
}

int ADDBias_MainMemory_CHW_Float_Fallback_M1(Pointer inout, Pointer bias) {
  if (!AcceptsBias(__func__, inout, TensorShape::CHW, 3, bias)) return -2;
  // The interface names an assertion of the platform; the kernels count the bias before they come here.
  TALVO_INVARIANT(bias->shape.dims[0] * bias->shape.dims[1] == inout->shape.dims[0]);
  std::size_t const elements = ChannelElements(*inout);
  float* row = inout->Data<float>();
  for (unsigned int c = 0; c < inout->shape.dims[0]; ++c, row += elements) {
    rows::CombineRow(rows::Operation::kAdd, {row, false}, {bias->Data<float>() + c, true}, elements, row);
  }
  return 0;
}

int FillBias_MainMemory_CHW_Float_Fallback_M1(Pointer inout, Pointer bias) {
  if (!AcceptsBias(__func__, inout, TensorShape::CHW, 3, bias)) return -2;
  TALVO_INVARIANT_TEXT(bias->shape.dims[0] * bias->shape.dims[1] == inout->shape.dims[0],
                       "bias->shape.dims[0]* bias->shape.dims[1] == inout->shape.dims[0]");
  FillChannels(*inout, *bias);
  return 0;
}

int FillBias_MainMemory_CL_Float_Fallback_M1(Pointer inout, Pointer bias) {
  if (!AcceptsBias(__func__, inout, TensorShape::CL, 2, bias)) return -2;
  TALVO_INVARIANT(bias->shape.dims[0] * bias->shape.dims[1] == inout->shape.dims[0]);
  FillChannels(*inout, *bias);
  return 0;
}

int FillBias_MainMemory_Float_Fallback_M1(Pointer inout, Pointer bias) {
  RequireTensor(__func__, "tensor", inout);
  RequireTensor(__func__, "bias", bias);
  if (!IsFloat(inout->shape)) return -2;
  RequireRank(__func__, *inout, inout->shape.dims.size());
  unsigned int const needed = runtime::ByteCount(inout->shape);
  unsigned int const held = bias->data == nullptr ? 0 : runtime::ByteCount(bias->shape);
  if (held < needed) Refuse("%s: the bias holds %u bytes, the tensor needs %u", __func__, held, needed);
  if (needed > 0) std::memmove(inout->data, bias->data, needed);
  return 0;
}

int FillZero_MainMemory_Float_Fallback_M1(Pointer inout) { return FillZero(__func__, inout, TensorShape::FLOAT32); }

int FillZero_MainMemory_Int16_Fallback_M1(Pointer inout) { return FillZero(__func__, inout, TensorShape::INT16); }

}  // namespace talvo::kernel
