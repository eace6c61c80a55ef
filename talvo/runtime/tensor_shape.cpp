// What of a shape and a tensor a walk comes to for each layer: copies, counts, and the tensor itself.
#include <algorithm>
#include <cstdint>
#include <limits>
#include <string_view>
#include <utility>

#include "talvo/runtime/tensor.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::runtime {
namespace {

constexpr std::uint64_t kMaximumCount = std::numeric_limits<unsigned int>::max();

// `product` times the extents; above 32 bits anything above 32 bits.
std::uint64_t SaturatedProduct(std::vector<unsigned int> const& dims, std::uint64_t product) {
  for (unsigned int extent : dims) {
    product *= extent;
    if (product > kMaximumCount) return std::find(dims.begin(), dims.end(), 0u) != dims.end() ? 0 : product;
  }
  return product;
}

// Whether a record still has the class name that it began with, as nearly all have.
bool HasFirstName(Serializable const& record) { return std::string_view(record.serializable_type) == "Serializable"; }

// Shapes are copied and moved for each layer of a walk, and that names are equal is seen faster than they are copied.
void CopyName(Serializable& record, Serializable const& from) {
  if (!HasFirstName(from) || !HasFirstName(record)) record.serializable_type = from.serializable_type;
}

void SwapNames(Serializable& record, Serializable& from) {
  if (!HasFirstName(from) || !HasFirstName(record)) record.serializable_type.swap(from.serializable_type);
}

void CopyNumbers(TensorShape& shape, TensorShape const& from) {
  shape.data_type = from.data_type;
  shape.layout = from.layout;
  shape.location = from.location;
  shape.extra.step_size = from.extra.step_size;
}

// All but the extents.
void CopyRest(TensorShape& shape, TensorShape const& from) {
  CopyNumbers(shape, from);
  CopyName(shape, from);
  CopyName(shape.extra, from.extra);
}

void MoveRest(TensorShape& shape, TensorShape& from) {
  CopyNumbers(shape, from);
  SwapNames(shape, from);
  SwapNames(shape.extra, from.extra);
}

}  // namespace

// flatten: a name that is known takes a few stores, instead of a call.
[[gnu::flatten]] TensorShape::TensorShape() = default;

TensorShape::TensorShape(std::vector<unsigned int> dims_, unsigned int data_type_, unsigned int layout_,
                         unsigned int location_, Extra extra_)
    : dims(std::move(dims_)), data_type(data_type_), layout(layout_), location(location_), extra(std::move(extra_)) {}

[[gnu::flatten]] TensorShape::TensorShape(TensorShape const& other)  // NOLINT(bugprone-copy-constructor-init): CopyRest
    : Serializable(), dims(other.dims) {
  CopyRest(*this, other);
}

[[gnu::flatten]] TensorShape::TensorShape(TensorShape&& other) noexcept : dims(std::move(other.dims)) {
  MoveRest(*this, other);
}

TensorShape& TensorShape::operator=(TensorShape const& other) {
  dims = other.dims;
  CopyRest(*this, other);
  return *this;
}

TensorShape& TensorShape::operator=(TensorShape&& other) noexcept {
  dims = std::move(other.dims);
  MoveRest(*this, other);
  return *this;
}

TensorShape::~TensorShape() = default;

unsigned int ElementCount(std::vector<unsigned int> const& dims) {
  std::uint64_t const count = SaturatedProduct(dims, 1);
  if (count > kMaximumCount)
    utility::Refuse("tensor of dims %s: more than 4294967295 elements", DimsText(dims).c_str());
  return static_cast<unsigned int>(count);
}

unsigned int ByteCount(TensorShape const& shape) {
  unsigned int const element_size = ElementSize(shape.data_type);
  std::uint64_t const bytes = SaturatedProduct(shape.dims, element_size);
  if (bytes > kMaximumCount) {
    utility::Refuse("tensor of dims %s and %u bytes an element: more than 4294967295 bytes",
                    DimsText(shape.dims).c_str(), element_size);
  }
  return static_cast<unsigned int>(bytes);
}

Tensor::Tensor(TensorShape&& tensor_shape, void* first_element, Device* maker)
    : shape(std::move(tensor_shape)), data(first_element), device(maker) {}

Tensor::~Tensor() = default;

}  // namespace talvo::runtime
