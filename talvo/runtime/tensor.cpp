#include "talvo/runtime/tensor.h"

#include <cstddef>
#include <ostream>

#include "talvo/serialization/record_support.h"

namespace talvo::runtime {
namespace {

// A number that prints with a name.
struct Name {
  unsigned int number;
  char const* text;
};

constexpr Name kDataTypes[] = {
    {TensorShape::FLOAT32, "FLOAT32"}, {TensorShape::FLOAT16, "FLOAT16"}, {TensorShape::INT32, "INT32"},
    {TensorShape::INT16, "INT16"},     {TensorShape::INT8, "INT8"},       {TensorShape::UINT32, "UINT32"},
    {TensorShape::UINT16, "UINT16"},   {TensorShape::UINT8, "UINT8"},
};

constexpr Name kLocations[] = {
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
constexpr Name kLayouts[] = {
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

template <std::size_t count>
char const* NameOf(unsigned int number, Name const (&names)[count]) {
  for (Name const& name : names) {
    if (name.number == number) return name.text;
  }
  return "";
}

std::string JoinDims(std::vector<unsigned int> const& dims) {
  std::string text;
  for (unsigned int extent : dims) text += (text.empty() ? "" : ", ") + std::to_string(extent);
  return text;
}

}  // namespace

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

std::string DimsText(std::vector<unsigned int> const& dims) { return "[" + JoinDims(dims) + "]"; }

std::ostream& operator<<(std::ostream& stream, TensorShape const& shape) {
  stream << "TensorShape: {" << std::endl;
  stream << "\tShape: [" << JoinDims(shape.dims) << "]" << std::endl;
  stream << "\tLocation: " << NameOf(shape.location, kLocations) << std::endl;
  stream << "\tDataType: " << NameOf(shape.data_type, kDataTypes) << std::endl;
  stream << "\tLayout: " << NameOf(shape.layout, kLayouts) << std::endl;
  return stream << "}" << std::endl;
}

}  // namespace talvo::runtime
