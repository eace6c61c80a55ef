#include "talvo/image/image_support.h"

#include <limits>

namespace talvo::kernel::image {

TensorCPU const& Cast(TensorPtr const& tensor, char const* name, char const* format) {
  auto const* const cast = dynamic_cast<TensorCPU const*>(tensor.get());
  Assert(cast != nullptr, format, name);
  return *cast;
}

void NeedLayout(TensorCPU const& tensor, char const* name, unsigned int layout, char const* layout_name) {
  Assert(tensor.shape.layout == layout, "%s must be a %s Layout Tensor.", name, layout_name);
}

void NeedType(TensorCPU const& tensor, char const* name, unsigned int type, char const* type_name) {
  Assert(tensor.shape.data_type == type, "%s must be a %s DataType Tensor.", name, type_name);
}

void NeedMainMemory(TensorCPU const& tensor, char const* name) {
  Assert(tensor.shape.location == TensorShape::MainMemory, "%s must be a MainMemory Location Tensor.", name);
}

Images::Images(char const* operation, TensorPtr const& source, TensorPtr const& destination)
    : name(operation),
      src(Cast(source, operation, "%s: src is no CPU tensor")),
      dst(Cast(destination, operation, "%s: dst is no CPU tensor")) {}

std::size_t Volume(std::size_t a, std::size_t b, std::size_t c, std::size_t d) {
  constexpr std::size_t kLargest = std::numeric_limits<std::size_t>::max();
  if (a == 0 || b == 0 || c == 0 || d == 0) return 0;
  if (a > kLargest / b || a * b > kLargest / c || a * b * c > kLargest / d) return kLargest;
  return a * b * c * d;
}

std::size_t Extent(char const* function, char const* name, TensorCPU const& tensor, std::size_t axis) {
  if (axis >= tensor.shape.dims.size()) {
    Assert(false, "%s: %s has rank %zu, needs %zu", function, name, tensor.shape.dims.size(), axis + 1);
  }
  return tensor.shape.dims[axis];
}

std::int64_t PixelOfShare(char const* function, float share, std::size_t extent) {
  float const pixel = share * static_cast<float>(extent);
  if (!(pixel >= -2147483648.0f && pixel < 2147483648.0f)) {
    Assert(false, "%s: share %g of %zu pixels is no int", function, static_cast<double>(share), extent);
  }
  return static_cast<int>(pixel);
}

void NeedRank(char const* function, char const* name, TensorCPU const& tensor, std::size_t rank) {
  Assert(tensor.shape.dims.size() == rank, "%s: %s has rank %zu, needs %zu", function, name, tensor.shape.dims.size(),
         rank);
}

unsigned char* Memory(char const* function, char const* name, TensorCPU const& tensor, std::size_t bytes) {
  std::size_t const held = tensor.data == nullptr ? 0 : runtime::ByteCount(tensor.shape);
  if (bytes > held) {
    Assert(false, "%s: %s of dims %s holds %zu bytes, needs %zu", function, name,
           runtime::DimsText(tensor.shape.dims).c_str(), held, bytes);
  }
  return tensor.Data<unsigned char>();
}

std::array<unsigned char*, 3> ThreePlanes(char const* function, char const* name, TensorCPU const& tensor,
                                          std::size_t pixels) {
  unsigned char* const first = tensor.Locate3D(0, 0, 0);
  if (pixels == 0) return {first, first, first};
  auto const& dims = tensor.shape.dims;
  if (tensor.data == nullptr || dims[0] < 3 || Volume(dims[1], dims[2]) < pixels) {
    Assert(false, "%s: %s of dims %s needs memory for 3 planes of %zu pixels", function, name,
           runtime::DimsText(dims).c_str(), pixels);
  }
  return {first, tensor.Locate3D(1, 0, 0), tensor.Locate3D(2, 0, 0)};
}

}  // namespace talvo::kernel::image
