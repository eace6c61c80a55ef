#include "talvo/runtime/tensor.h"

#include <cstdint>
#include <limits>
#include <map>
#include <ostream>
#include <utility>

#include "talvo/serialization/record_support.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::runtime {
namespace {

constexpr std::uint64_t kMaximumCount = std::numeric_limits<unsigned int>::max();

std::map<unsigned int, std::string> data_type_names = {
    {TensorShape::FLOAT32, "FLOAT32"}, {TensorShape::FLOAT16, "FLOAT16"}, {TensorShape::INT32, "INT32"},
    {TensorShape::INT16, "INT16"},     {TensorShape::INT8, "INT8"},       {TensorShape::UINT32, "UINT32"},
    {TensorShape::UINT16, "UINT16"},   {TensorShape::UINT8, "UINT8"},
};

std::map<unsigned int, std::string> location_names = {
    {TensorShape::CPUObject, "CPUObject"},
    {TensorShape::MainMemory, "MainMemory"},
    {TensorShape::OpenGLObject, "OpenGLObject"},
    {TensorShape::OpenGLSSBO, "OpenGLSSBO"},
    {TensorShape::OpenGLUBO, "OpenGLUBO"},
    {TensorShape::OpenGLImage, "OpenGLImage"},
    {TensorShape::MetalObject, "MetalObject"},
    {TensorShape::MetalBuffer, "MetalBuffer"},
    {TensorShape::MetalNoCopyBuffer, "MetalNoCopyBuffer"},
    {TensorShape::MetalTempBuffer, "MetalTempBuffer"},
    {TensorShape::MetalImage, "MetalImage"},
    {TensorShape::MetalTempImage, "MetalTempImage"},
};

// Only these layouts print with a name.
std::map<unsigned int, std::string> layout_names = {
    {TensorShape::CHW, "CHW"},
    {TensorShape::HWC, "HWC"},
    {TensorShape::C4HW4, "C4HW4"},
    {TensorShape::C8HW8, "C8HW8"},
    {TensorShape::NCHW, "NCHW"},
    {TensorShape::N4C4HW4n4c, "N4C4HW4n4c"},
    {TensorShape::N8C8HW8n8c, "N8C8HW8n8c"},
    {TensorShape::GNCHW, "GNCHW"},
    {TensorShape::GN4C4HW4n4c, "GN4C4HW4n4c"},
    {TensorShape::GN8C8HW8n8c, "GN8C8HW8n8c"},
    {TensorShape::NHWC, "NHWC"},
    {TensorShape::FLEXIABLE, "FLEXIABLE"},
};

std::string JoinDims(std::vector<unsigned int> const& dims) {
  std::string text;
  for (unsigned int extent : dims) text += (text.empty() ? "" : ", ") + std::to_string(extent);
  return text;
}

// Product of the extents and of `element_size`; above 32 bits anything above 32 bits.
std::uint64_t SaturatedProduct(std::vector<unsigned int> const& dims, unsigned int element_size) {
  std::uint64_t product = element_size;
  for (unsigned int extent : dims) {
    if (extent == 0) return 0;
    if (product <= kMaximumCount) product *= extent;
  }
  return product;
}

}  // namespace

TensorShape::TensorShape(std::vector<unsigned int> dims_, unsigned int data_type_, unsigned int layout_,
                         unsigned int location_, Extra extra_)
    : dims(std::move(dims_)), data_type(data_type_), layout(layout_), location(location_), extra(extra_) {}

void TensorShape::Extra::VisitAttr(std::shared_ptr<Visitor> visitor) {
  Serializable::VisitAttr(visitor);
  TALVO_VISIT_FIELD(step_size);
}

void TensorShape::VisitAttr(std::shared_ptr<Visitor> visitor) {
  Serializable::VisitAttr(visitor);
  TALVO_VISIT_FIELD(dims);
  TALVO_VISIT_FIELD(data_type);
  TALVO_VISIT_FIELD(layout);
  TALVO_VISIT_FIELD(location);
  TALVO_VISIT_FIELD(extra);
}

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

std::string DimsText(std::vector<unsigned int> const& dims) { return "[" + JoinDims(dims) + "]"; }

std::ostream& operator<<(std::ostream& stream, TensorShape const& shape) {
  stream << "TensorShape: {" << std::endl;
  stream << "\tShape: [" << JoinDims(shape.dims) << "]" << std::endl;
  stream << "\tLocation: " << location_names[shape.location] << std::endl;
  stream << "\tDataType: " << data_type_names[shape.data_type] << std::endl;
  stream << "\tLayout: " << layout_names[shape.layout] << std::endl;
  return stream << "}" << std::endl;
}

Tensor::Tensor(TensorShape&& tensor_shape, void* first_element, Device* maker)
    : shape(std::move(tensor_shape)), data(first_element), device(maker) {}

Tensor::~Tensor() = default;

}  // namespace talvo::runtime
