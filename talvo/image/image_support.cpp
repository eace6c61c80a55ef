#include "talvo/image/image_support.h"

#include "talvo/utility/log.h"

namespace talvo::kernel::image {

void Argument::ValidateSet(char const* format) const {
  if (tensor_ == nullptr) Refuse(format, name_);
}

void Argument::ValidateTensorCPU(char const* format) const {
  if (dynamic_cast<TensorCPU const*>(tensor_.get()) == nullptr) Refuse(format, name_);
}

void Argument::ValidateLayout(unsigned int layout, char const* layout_name) const {
  if (shape().layout != layout) Refuse("%s must be a %s Layout Tensor.", name_, layout_name);
}

void Argument::ValidateType(unsigned int type, char const* type_name) const {
  if (shape().data_type != type) Refuse("%s must be a %s DataType Tensor.", name_, type_name);
}

void Argument::ValidateMainMemory() const {
  if (shape().location != TensorShape::MainMemory) Refuse("%s must be a MainMemory Location Tensor.", name_);
}

TensorShape const& Argument::shape() const {
  if (tensor_ == nullptr) Refuse("%s: %s is no CPU tensor", function_, name_);
  return tensor_->shape;
}

std::size_t Argument::Extent(std::size_t axis) const {
  auto const& dims = shape().dims;
  if (axis >= dims.size()) Refuse("%s: %s has rank %zu, needs %zu", function_, name_, dims.size(), axis + 1);
  return dims[axis];
}

std::size_t Argument::Pixels(std::size_t row_axis) const {
  std::size_t const columns = Extent(row_axis + 1);
  return Volume(Extent(row_axis), columns);
}

TensorCPU const& Argument::tensor() const {
  auto const* const cpu = dynamic_cast<TensorCPU const*>(tensor_.get());
  if (cpu == nullptr) Refuse("%s: %s is no CPU tensor", function_, name_);
  return *cpu;
}

void Argument::RefuseSilently(char const* wrong) const {
  utility::Log(16, "%s: %s of dims %s, data type %u, layout %u: %s", function_, name_,
               runtime::DimsText(shape().dims).c_str(), shape().data_type, shape().layout, wrong);
  Refuse(nullptr);
}

void* Argument::CheckedMemory(std::size_t bytes) const {
  TensorCPU const& cpu = tensor();
  std::size_t const held = cpu.data == nullptr ? 0 : runtime::ByteCount(cpu.shape);
  if (bytes > held) {
    Refuse("%s: %s of dims %s holds %zu bytes, needs %zu", function_, name_, runtime::DimsText(cpu.shape.dims).c_str(),
           held, bytes);
  }
  return cpu.data;
}

std::size_t Volume(std::size_t a, std::size_t b, std::size_t c, std::size_t d) {
  constexpr std::size_t kLargest = std::numeric_limits<std::size_t>::max();
  if (a == 0 || b == 0 || c == 0 || d == 0) return 0;
  if (a > kLargest / b || a * b > kLargest / c || a * b * c > kLargest / d) return kLargest;
  return a * b * c * d;
}

std::int64_t PixelOfShare(char const* function, float share, std::size_t extent) {
  float const pixel = share * static_cast<float>(extent);
  // The negated form refuses NaN too.
  if (!(pixel >= -2147483648.0f && pixel < 2147483648.0f)) {
    Refuse("%s: share %g of %zu pixels is no int", function, static_cast<double>(share), extent);
  }
  return static_cast<int>(pixel);
}

Planes ThreePlanes(Argument const& image, std::size_t pixels) {
  std::size_t const plane = image.Pixels(1);
  if (pixels == 0) return {};
  if (plane < pixels) {
    Refuse("%s: %s of dims %s needs memory for 3 planes of %zu pixels", image.function(), image.name(),
           runtime::DimsText(image.shape().dims).c_str(), pixels);
  }
  std::size_t const step = Volume(plane, runtime::ElementSize(image.shape().data_type));
  unsigned char* const first = image.Memory(Volume(3, step));
  return {first, first + step, first + 2 * step};
}

}  // namespace talvo::kernel::image
