#include "talvo/transform/transform_fallback.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <utility>

#include "talvo/kernel/native/permute.h"
#include "talvo/kernel/rows/saturate.h"
#include "talvo/utility/invariant.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::kernel {
namespace {

using runtime::DimsText;
using runtime::ElementSize;
using runtime::TensorShape;
using utility::Refuse;
using DevicePtr = std::shared_ptr<runtime::DeviceCPU>;
using Dims = std::vector<unsigned int>;
using TensorPtr = std::shared_ptr<runtime::TensorCPU>;

constexpr unsigned int kAnyLayout = std::numeric_limits<unsigned int>::max();

// A blocked arrangement of a plain tensor, outermost axis first. "C4" is the outer part c / 4 of axis C, "c4" its inner
// part c % 4, a letter alone the whole axis.
struct Arrangement {
  unsigned int plain_layout;
  char const* plain_axes;
  unsigned int layout;
  char const* axes;
};

constexpr Arrangement kC4HW4 = {TensorShape::CHW, "CHW", TensorShape::C4HW4, "C4HWc4"};
constexpr Arrangement kC8HW8 = {TensorShape::CHW, "CHW", TensorShape::C8HW8, "C8HWc8"};
constexpr Arrangement kGN4C4HW4n4c = {TensorShape::GNCHW, "GNCHW", TensorShape::GN4C4HW4n4c, "GN4C4HWn4c4"};
constexpr Arrangement kGN4C4HW4c4n = {TensorShape::GNCHW, "GNCHW", TensorShape::GN4C4HW4n4c, "GN4C4HWc4n4"};
constexpr Arrangement kGN8C8HW8n8c = {TensorShape::GNCHW, "GNCHW", TensorShape::GN8C8HW8n8c, "GN8C8HWn8c8"};
constexpr Arrangement kGN8C8HW8c8n = {TensorShape::GNCHW, "GNCHW", TensorShape::GN8C8HW8c8n, "GN8C8HWc8n8"};
constexpr Arrangement kGN4C8HW4n8c = {TensorShape::GNCHW, "GNCHW", TensorShape::GN4C8HW4n8c, "GN4C8HWn4c8"};
constexpr Arrangement kGN8C4HW8n4c = {TensorShape::GNCHW, "GNCHW", TensorShape::GN8C4HW8n4c, "GN8C4HWn8c4"};
constexpr Arrangement kGN4C8HW8c4n = {TensorShape::GNCHW, "GNCHW", TensorShape::GN4C8HW8c4n, "GN4C8HWc8n4"};
constexpr Arrangement kGN2C2HW2c2n = {TensorShape::GNCHW, "GNCHW", TensorShape::GN2C2HW2c2n, "GN2C2HWc2n2"};
constexpr Arrangement kGN16C16HW16c16n = {TensorShape::GNCHW, "GNCHW", TensorShape::GN16C16HW16c16n, "GN16C16HWc16n16"};
constexpr Arrangement kGN4CHW4 = {TensorShape::GNCHW, "GNCHW", TensorShape::GN4CHW4, "GN4CHWn4"};
constexpr Arrangement kGN8CHW8 = {TensorShape::GNCHW, "GNCHW", TensorShape::GN8CHW8, "GN8CHWn8"};
constexpr Arrangement kGNC8HW8 = {TensorShape::GNCHW, "GNCHW", TensorShape::GN8CHW8, "GNC8HWc8"};
constexpr Arrangement kGCNHW = {TensorShape::GNCHW, "GNCHW", TensorShape::GNCHW, "GCNHW"};
constexpr Arrangement kGHWN4C44c4n = {TensorShape::GNCHW, "GNCHW", TensorShape::GN4C4HW4n4c, "GHWN4C4c4n4"};
constexpr Arrangement kGC4N4HW4c4n = {TensorShape::GNCHW, "GNCHW", TensorShape::GC4N4HW4c4n, "GC4N4HWc4n4"};
constexpr Arrangement kG4NCHW4 = {TensorShape::GNCHW, "GNCHW", TensorShape::G4NCHW4, "G4NCHWg4"};
constexpr Arrangement kG8NCHW8 = {TensorShape::GNCHW, "GNCHW", TensorShape::G8NCHW8, "G8NCHWg8"};
constexpr Arrangement kN8C88c8n = {kAnyLayout, "NC", TensorShape::N8C88c8n, "N8C8c8n8"};

// The plain axes with each blocked one split into outer and inner part: memory does not change, and an arrangement is
// an order of the split axes.
struct SplitAxes {
  Dims extents;
  Dims order;  // axis i of the arrangement is split axis order[i]
};

// The block size of a plain axis; 1 where the arrangement does not split it.
unsigned int BlockOf(Arrangement const& arrangement, char axis) {
  char const* const inner = std::strchr(arrangement.axes, std::tolower(axis));
  return inner == nullptr ? 1 : static_cast<unsigned int>(std::atoi(inner + 1));
}

SplitAxes Split(Arrangement const& arrangement, Dims const& dims) {
  SplitAxes split;
  std::string names;  // of the split axes: a capital for the outer or whole axis, a small letter for the inner
  for (std::size_t axis = 0; axis < dims.size(); ++axis) {
    char const name = arrangement.plain_axes[axis];
    unsigned int const block = BlockOf(arrangement, name);
    if (dims[axis] % block != 0) {
      Refuse("layout %s to %s: dims %s, axis %c needs a multiple of %u", arrangement.plain_axes, arrangement.axes,
             DimsText(dims).c_str(), name, block);
    }
    split.extents.push_back(dims[axis] / block);
    names += name;
    if (block == 1) continue;
    split.extents.push_back(block);
    names += static_cast<char>(std::tolower(name));
  }
  for (char const* letter = arrangement.axes; *letter != '\0'; ++letter) {
    if (std::isalpha(*letter)) split.order.push_back(static_cast<unsigned int>(names.find(*letter)));
  }
  return split;
}

Dims Permuted(Dims const& extents, Dims const& order) {
  Dims permuted;
  for (unsigned int axis : order) permuted.push_back(extents[axis]);
  return permuted;
}

Dims Inverse(Dims const& order) {
  Dims inverse(order.size());
  for (unsigned int axis = 0; axis < order.size(); ++axis) inverse[order[axis]] = axis;
  return inverse;
}

unsigned int CheckedExtent(std::uint64_t extent, Dims const& dims) {
  if (extent > std::numeric_limits<unsigned int>::max()) {
    Refuse("layout conversion of dims %s: an extent does not fit 32 bits", DimsText(dims).c_str());
  }
  return static_cast<unsigned int>(extent);
}

unsigned int RoundUp(unsigned int extent, unsigned int block, Dims const& dims) {
  return CheckedExtent((std::uint64_t{extent} + block - 1) / block * block, dims);
}

// Whether a conversion answers at all. Assert: what it would answer cannot be made.
bool Accepts(char const* axes, unsigned int layout, TensorPtr const& input, DevicePtr const& device) {
  if (input == nullptr) Refuse("layout conversion from %s: the input is null", axes);
  TensorShape const& shape = input->shape;
  if (shape.location != TensorShape::MainMemory || (layout != kAnyLayout && shape.layout != layout)) return false;
  auto const rank = static_cast<std::size_t>(std::count_if(axes, axes + std::strlen(axes), ::isalpha));
  if (shape.dims.size() != rank || device == nullptr ||
      (input->data == nullptr && runtime::ElementCount(shape.dims) != 0)) {
    Refuse("layout conversion from %s: dims %s of rank %zu%s%s, needs rank %zu", axes, DimsText(shape.dims).c_str(),
           shape.dims.size(), device == nullptr ? ", no device" : "", input->data == nullptr ? ", no memory" : "",
           rank);
  }
  return true;
}

TensorPtr NewLike(TensorPtr const& input, Dims dims, unsigned int layout, DevicePtr const& device,
                  TensorShape::Extra extra = TensorShape::Extra()) {
  return device->CreateTensor(
      TensorShape(std::move(dims), input->shape.data_type, layout, input->shape.location, extra), nullptr);
}

// For the two functions that look at N and C before anything else.
void NeedNAndC(Arrangement const& arrangement, TensorPtr const& input) {
  if (input == nullptr || input->shape.dims.size() <= 2) {
    Refuse("layout %s to %s: the input has no axes N and C", arrangement.plain_axes, arrangement.axes);
  }
}

TensorPtr ToBlocked(Arrangement const& arrangement, TensorPtr const& input, DevicePtr const& device) {
  if (!Accepts(arrangement.plain_axes, arrangement.plain_layout, input, device)) return nullptr;
  SplitAxes const split = Split(arrangement, input->shape.dims);
  TensorPtr output = NewLike(input, Permuted(split.extents, split.order), arrangement.layout, device);
  native::Transform_MainMemory_Permute_Fallback(input->data, split.extents, ElementSize(input->shape.data_type),
                                                split.order, output->data);
  return output;
}

// Channels C, H, W at `source` to blocks of channels at `destination`. The last block may lack channels, which become
// zeros: it passes through a block of scratch.
void BlockChannels(Arrangement const& arrangement, Dims const& dims, unsigned int element_bytes,
                   unsigned char const* source, unsigned char* destination) {
  unsigned int const block = BlockOf(arrangement, 'C'), tail = dims[0] % block;
  std::size_t const plane_bytes = std::size_t{dims[1]} * dims[2] * element_bytes;
  std::size_t const whole_bytes = (dims[0] - tail) * plane_bytes;
  SplitAxes const whole = Split(arrangement, {dims[0] - tail, dims[1], dims[2]});
  if (whole_bytes != 0) {
    native::Transform_MainMemory_Permute_Fallback(source, whole.extents, element_bytes, whole.order, destination);
  }
  if (tail == 0 || plane_bytes == 0) return;
  std::vector<unsigned char> last(block * plane_bytes);
  std::memcpy(last.data(), source + whole_bytes, tail * plane_bytes);
  SplitAxes const split = Split(arrangement, {block, dims[1], dims[2]});
  native::Transform_MainMemory_Permute_Fallback(last.data(), split.extents, element_bytes, split.order,
                                                destination + whole_bytes);
}

// dims: those of the result; the memory is the same for blocks one by one and for blocks stacked as one image.
TensorPtr ChannelsToBlocks(Arrangement const& arrangement, TensorPtr const& input, Dims dims, DevicePtr const& device) {
  TensorPtr output = NewLike(input, std::move(dims), arrangement.layout, device);
  BlockChannels(arrangement, input->shape.dims, ElementSize(input->shape.data_type), input->Data<unsigned char>(),
                output->Data<unsigned char>());
  return output;
}

TensorPtr ToChannelBlocks(Arrangement const& arrangement, TensorPtr const& input, DevicePtr const& device) {
  if (!Accepts(arrangement.plain_axes, arrangement.plain_layout, input, device)) return nullptr;
  Dims const& dims = input->shape.dims;
  unsigned int const block = BlockOf(arrangement, 'C');
  unsigned int const blocks = RoundUp(dims[0], block, dims) / block;
  return ChannelsToBlocks(arrangement, input, {blocks, dims[1], dims[2], block}, device);
}

void CheckLanes(Arrangement const& arrangement, Dims const& dims) {
  if (dims.back() == BlockOf(arrangement, 'C')) return;
  Refuse("layout %s to %s: dims %s, the last one needs to be %u", arrangement.axes, arrangement.plain_axes,
         DimsText(dims).c_str(), BlockOf(arrangement, 'C'));
}

// Blocks at `source` to the channels `plain_dims`, which are whole blocks.
void UnblockChannels(Arrangement const& arrangement, Dims const& plain_dims, unsigned int element_bytes,
                     void const* source, void* destination) {
  SplitAxes const split = Split(arrangement, plain_dims);
  native::Transform_MainMemory_Permute_Fallback(source, Permuted(split.extents, split.order), element_bytes,
                                                Inverse(split.order), destination);
}

TensorPtr ToChannels(Arrangement const& arrangement, TensorPtr const& input, DevicePtr const& device) {
  if (!Accepts(arrangement.axes, arrangement.layout, input, device)) return nullptr;
  Dims const& dims = input->shape.dims;
  CheckLanes(arrangement, dims);
  Dims const plain = {CheckedExtent(std::uint64_t{dims[0]} * dims[3], dims), dims[1], dims[2]};
  TensorPtr output = NewLike(input, plain, arrangement.plain_layout, device, input->shape.extra);
  UnblockChannels(arrangement, plain, ElementSize(input->shape.data_type), input->data, output->data);
  return output;
}

// The first `kept_bytes` of each of `count` rows, one behind the other.
std::vector<unsigned char> CropRows(unsigned char const* rows, std::size_t count, std::size_t row_bytes,
                                    std::size_t kept_bytes) {
  std::vector<unsigned char> kept(count * kept_bytes);
  for (std::size_t row = 0; row < count; ++row) {
    std::memcpy(kept.data() + row * kept_bytes, rows + row * row_bytes, kept_bytes);
  }
  return kept;
}

using Pack = TensorPtr (*)(TensorPtr, DevicePtr);

// The `held` weights at `values`, of dims G, N, C, H, W, with N and C padded to multiples of 4 if `pad`, in the
// arrangement of `pack`.
TensorPtr PackWeights(void const* values, std::size_t held, unsigned int data_type, Dims dims, bool pad, Pack pack,
                      DevicePtr const& device) {
  unsigned int const count = runtime::ElementCount(dims);
  if (held < count || device == nullptr) {
    Refuse("weight array of dims %s: %zu values%s, needs %u", DimsText(dims).c_str(), held,
           device == nullptr ? " and no device" : "", count);
  }
  bool const ragged = dims[1] % 4 != 0 || dims[2] % 4 != 0;
  TensorShape shape(std::move(dims), data_type, TensorShape::GNCHW, TensorShape::MainMemory, TensorShape::Extra());
  TensorPtr tensor = device->CreateTensor(std::move(shape), count == 0 ? nullptr : values);
  if (pad && ragged) tensor = Function_Tensor_GNCHW_Concat_Value(tensor, 0.0f, device);
  return pack(tensor, device);
}

template <typename Element>
std::vector<Element> PackArray(std::vector<Element> const& values, Dims dims, bool pad, Pack pack,
                               DevicePtr const& device) {
  constexpr unsigned int kDataType = sizeof(Element) == sizeof(float) ? TensorShape::FLOAT32 : TensorShape::FLOAT16;
  TensorPtr const packed = PackWeights(values.data(), values.size(), kDataType, std::move(dims), pad, pack, device);
  auto const* const first = packed->template Data<Element>();
  return std::vector<Element>(first, first + runtime::ElementCount(packed->shape.dims));
}

}  // namespace

TensorPtr Function_Tensor_CHW_To_C4HW4_Fallback(TensorPtr input, DevicePtr device) {
  return ToChannelBlocks(kC4HW4, input, device);
}

TensorPtr Function_Tensor_CHW_To_C8HW8_Fallback(TensorPtr input, DevicePtr device) {
  return ToChannelBlocks(kC8HW8, input, device);
}

TensorPtr Function_Tensor_C4HW4_To_CHW_Fallback(TensorPtr input, DevicePtr device) {
  return ToChannels(kC4HW4, input, device);
}

TensorPtr Function_Tensor_C8HW8_To_CHW_Fallback(TensorPtr input, DevicePtr device) {
  return ToChannels(kC8HW8, input, device);
}

TensorPtr Function_Tensor_CHW_To_C4HW4_Image2D_Fallback(TensorPtr input, DevicePtr device) {
  if (!Accepts(kC4HW4.plain_axes, kC4HW4.plain_layout, input, device)) return nullptr;
  Dims const& dims = input->shape.dims;
  std::uint64_t const blocks = RoundUp(dims[0], 4, dims) / 4;
  return ChannelsToBlocks(kC4HW4, input, {1, CheckedExtent(blocks * dims[1], dims), dims[2], 4}, device);
}

TensorPtr Function_Tensor_C4HW4_Image2D_To_CHW_Fallback(TensorPtr input, int width, int height, DevicePtr device) {
  if (!Accepts(kC4HW4.axes, kC4HW4.layout, input, device)) return nullptr;
  Dims const& dims = input->shape.dims;
  CheckLanes(kC4HW4, dims);
  auto const rows = static_cast<unsigned int>(height), columns = static_cast<unsigned int>(width);
  // An image lower than one block gives no blocks: nothing is read, and any width will do.
  bool const told = height >= 1 && width >= 0, reads = told && rows <= dims[1];
  if (!told || (reads && (dims[0] == 0 || columns > dims[2]))) {
    Refuse("C4HW4 image of dims %s: blocks of %d rows and %d columns do not fit", DimsText(dims).c_str(), height,
           width);
  }
  Dims const plain = {CheckedExtent(std::uint64_t{dims[1] / rows} * 4, dims), rows, columns};
  unsigned int const element_bytes = ElementSize(input->shape.data_type);
  TensorPtr output = NewLike(input, plain, TensorShape::CHW, device, input->shape.extra);
  if (runtime::ElementCount(plain) == 0) return output;
  if (columns == dims[2]) {
    UnblockChannels(kC4HW4, plain, element_bytes, input->data, output->data);
  } else {
    std::size_t const pixel_bytes = std::size_t{4} * element_bytes;
    auto const kept = CropRows(input->Data<unsigned char>(), std::size_t{dims[1] / rows} * rows, dims[2] * pixel_bytes,
                               columns * pixel_bytes);
    UnblockChannels(kC4HW4, plain, element_bytes, kept.data(), output->data);
  }
  return output;
}

TensorPtr Function_Tensor_GNCHW_To_GN4C4HW4n4c_Fallback(TensorPtr input, DevicePtr device) {
  return ToBlocked(kGN4C4HW4n4c, input, device);
}

TensorPtr Function_Tensor_GNCHW_To_GN4C4HW4c4n_Fallback(TensorPtr input, DevicePtr device) {
  return ToBlocked(kGN4C4HW4c4n, input, device);
}

TensorPtr Function_Tensor_GNCHW_To_GN8C8HW8n8c_Fallback(TensorPtr input, DevicePtr device) {
  return ToBlocked(kGN8C8HW8n8c, input, device);
}

TensorPtr Function_Tensor_GNCHW_To_GN8C8HW8c8n_Fallback(TensorPtr input, DevicePtr device) {
  return ToBlocked(kGN8C8HW8c8n, input, device);
}

TensorPtr Function_Tensor_GNCHW_To_GN4C8HW4n8c_Fallback(TensorPtr input, DevicePtr device) {
  return ToBlocked(kGN4C8HW4n8c, input, device);
}

TensorPtr Function_Tensor_GNCHW_To_GN8C4HW8n4c_Fallback(TensorPtr input, DevicePtr device) {
  return ToBlocked(kGN8C4HW8n4c, input, device);
}

TensorPtr Function_Tensor_GNCHW_To_GN4C8HW8c4n_Fallback(TensorPtr input, DevicePtr device) {
  return ToBlocked(kGN4C8HW8c4n, input, device);
}

TensorPtr Function_Tensor_GNCHW_To_GN2C2HW2c2n_Fallback(TensorPtr input, DevicePtr device) {
  return ToBlocked(kGN2C2HW2c2n, input, device);
}

TensorPtr Function_Tensor_GNCHW_To_GN16C16HW16c16n_Fallback(TensorPtr input, DevicePtr device) {
  return ToBlocked(kGN16C16HW16c16n, input, device);
}

TensorPtr Function_Tensor_GNCHW_To_GN4CHW4_Fallback(TensorPtr input, DevicePtr device) {
  return ToBlocked(kGN4CHW4, input, device);
}

TensorPtr Function_Tensor_GNCHW_To_GN8CHW8_Fallback(TensorPtr input, DevicePtr device) {
  return ToBlocked(kGN8CHW8, input, device);
}

TensorPtr Function_Tensor_GNCHW_To_GNC8HW8_Fallback(TensorPtr input, DevicePtr device) {
  return ToBlocked(kGNC8HW8, input, device);
}

TensorPtr Function_Tensor_GNCHW_To_GCNHW_Fallback(TensorPtr input, DevicePtr device) {
  return ToBlocked(kGCNHW, input, device);
}

TensorPtr Function_Tensor_GNCHW_To_GHWN4C44c4n_Fallback(TensorPtr input, DevicePtr device) {
  return ToBlocked(kGHWN4C44c4n, input, device);
}

TensorPtr Function_Tensor_GNCHW_To_GC4N4HW4c4n_Fallback(TensorPtr input, DevicePtr device) {
  return ToBlocked(kGC4N4HW4c4n, input, device);
}

TensorPtr Function_Tensor_GNCHW_To_G4NCHW4_Fallback(TensorPtr input, DevicePtr device) {
  NeedNAndC(kG4NCHW4, input);
  TALVO_INVARIANT(input->shape.dims[1] == 1);
  TALVO_INVARIANT(input->shape.dims[2] == 1);
  return ToBlocked(kG4NCHW4, input, device);
}

TensorPtr Function_Tensor_GNCHW_To_G8NCHW8_Fallback(TensorPtr input, DevicePtr device) {
  NeedNAndC(kG8NCHW8, input);
  TALVO_INVARIANT(input->shape.dims[1] == 1);
  TALVO_INVARIANT(input->shape.dims[2] == 1);
  return ToBlocked(kG8NCHW8, input, device);
}

TensorPtr Function_Tensor_NC_To_N8C88c8n_Fallback(TensorPtr input, DevicePtr device) {
  return ToBlocked(kN8C88c8n, input, device);
}

TensorPtr Function_Tensor_GNCHW_Concat_Value(TensorPtr input, float value, DevicePtr device) {
  if (!Accepts("GNCHW", TensorShape::GNCHW, input, device)) return nullptr;
  Dims const& dims = input->shape.dims;
  Dims const padded = {dims[0], RoundUp(dims[1], 4, dims), RoundUp(dims[2], 4, dims), dims[3], dims[4]};
  TensorPtr output = NewLike(input, padded, TensorShape::GNCHW, device);
  std::size_t const plane_bytes = std::size_t{dims[3]} * dims[4] * ElementSize(input->shape.data_type);
  std::size_t const read_bytes = dims[2] * plane_bytes, row_bytes = padded[2] * plane_bytes;
  // A byte for elements of any size: 1.0f becomes the float of four bytes 0x01.
  int const fill = rows::Saturated<int>(value) & 0xFF;
  auto const* from = input->Data<unsigned char>();
  auto* to = output->Data<unsigned char>();
  if (runtime::ElementCount(padded) == 0) return output;  // whatever the other extents are
  for (std::size_t g = 0; g < dims[0]; ++g) {
    for (std::size_t n = 0; n < dims[1]; ++n, from += read_bytes, to += row_bytes) {
      std::memcpy(to, from, read_bytes);
      std::memset(to + read_bytes, fill, row_bytes - read_bytes);
    }
    std::memset(to, fill, (padded[1] - dims[1]) * row_bytes);
    to += (padded[1] - dims[1]) * row_bytes;
  }
  return output;
}

std::vector<float> Function_FloatArray_GNCHW_To_GN4C4HW4c4n_Fallback(std::vector<float> values, unsigned int G,
                                                                     unsigned int N, unsigned int C, unsigned int H,
                                                                     unsigned int W, DevicePtr device) {
  return PackArray(values, {G, N, C, H, W}, true, Function_Tensor_GNCHW_To_GN4C4HW4c4n_Fallback, device);
}

std::vector<half_float::half> Function_HalfArray_GNCHW_To_GN4C4HW4c4n_Fallback(std::vector<half_float::half> values,
                                                                               unsigned int G, unsigned int N,
                                                                               unsigned int C, unsigned int H,
                                                                               unsigned int W, DevicePtr device) {
  return PackArray(values, {G, N, C, H, W}, true, Function_Tensor_GNCHW_To_GN4C4HW4c4n_Fallback, device);
}

std::vector<float> Function_FloatArray_GNCHW_To_GC4N4HW4c4n_Fallback(std::vector<float> values, unsigned int G,
                                                                     unsigned int N, unsigned int C, unsigned int H,
                                                                     unsigned int W, DevicePtr device) {
  // The name says GC4N4; the packing is that of GN4C4.
  return PackArray(values, {G, N, C, H, W}, true, Function_Tensor_GNCHW_To_GN4C4HW4c4n_Fallback, device);
}

std::vector<float> Function_FloatArray_GNCHW_To_GHWN4C44c4n_Fallback(std::vector<float> values, unsigned int G,
                                                                     unsigned int N, unsigned int C, unsigned int H,
                                                                     unsigned int W, DevicePtr device) {
  return PackArray(values, {G, N, C, H, W}, true, Function_Tensor_GNCHW_To_GHWN4C44c4n_Fallback, device);
}

std::vector<float> Function_FloatArray_GNCHW_To_G4NCHW4_Fallback(std::vector<float> values, unsigned int G,
                                                                 unsigned int N, unsigned int C, unsigned int H,
                                                                 unsigned int W, DevicePtr device) {
  return PackArray(values, {G, N, C, H, W}, false, Function_Tensor_GNCHW_To_G4NCHW4_Fallback, device);
}

std::vector<half_float::half> Function_HalfArray_GNCHW_To_G4NCHW4_Fallback(std::vector<half_float::half> values,
                                                                           unsigned int G, unsigned int N,
                                                                           unsigned int C, unsigned int H,
                                                                           unsigned int W, DevicePtr device) {
  return PackArray(values, {G, N, C, H, W}, false, Function_Tensor_GNCHW_To_G4NCHW4_Fallback, device);
}

}  // namespace talvo::kernel
