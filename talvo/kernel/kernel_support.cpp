#include "talvo/kernel/kernel_support.h"

#include <utility>

#include "talvo/utility/exact_cast_support.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::kernel::support {
namespace {

using runtime::DimsText;
using runtime::TensorShape;
using utility::Refuse;

bool HasMemory(runtime::Tensor const& tensor) {
  return tensor.data != nullptr || runtime::ElementCount(tensor.shape.dims) == 0;
}

}  // namespace

bool Meets(runtime::Tensor const& tensor, Needs const& needs) {
  TensorShape const& shape = tensor.shape;
  bool const typed = shape.data_type <= TensorShape::UINT8 &&
                     runtime::ElementSize(shape.data_type) >= needs.element_bytes &&
                     (needs.data_type == kAnyNumber || IsInMainMemory(tensor, needs.data_type)) &&
                     (needs.layout == kAnyNumber || shape.layout == needs.layout);
  return typed && (needs.rank == kAnyRank || shape.dims.size() == needs.rank) &&
         runtime::ElementCount(shape.dims) >= needs.elements && HasMemory(tensor);
}

TensorPtr Input(Who const& who, Tensors const& inputs, std::size_t index, std::size_t rank,
                unsigned int element_bytes) {
  auto* const tensor = index < inputs.size() ? utility::CastTo<runtime::TensorCPU>(inputs[index].get()) : nullptr;
  Needs const needs = {element_bytes, rank};
  if (tensor == nullptr || !Meets(*tensor, needs)) {
    RefuseTensor(who, ("input " + std::to_string(index)).c_str(), tensor, needs);
  }
  return TensorPtr(inputs[index], tensor);
}

std::size_t Count(runtime::TensorCPU const& tensor) { return runtime::ElementCount(tensor.shape.dims); }

TensorPtr NewOutput(runtime::IKernel const& kernel, Tensors const& inputs, ContextPtr const& context,
                    std::size_t index) {
  static thread_local Shapes kept;  // for the memory of its lists: this runs for each layer
  Shapes shapes = std::move(kept);
  shapes.resize(inputs.size());
  for (std::size_t i = 0; i < inputs.size(); ++i) {
    if (inputs[i] == nullptr) Refuse("%s: an input is null", kernel.GetName().c_str());
    shapes[i] = inputs[i]->shape;
  }
  auto outputs = kernel.GetOutputShapes(shapes);
  kept = std::move(shapes);
  ShapeAt(kernel, outputs, index);
  return Device(kernel, context).CreateTensor(std::move(outputs[index]), nullptr);
}

int Give(TensorPtr const& result, Tensors& outputs) {
  outputs.clear();
  outputs.push_back(result);
  return 0;
}

TensorPtr NewScratch(runtime::DeviceCPU& device, std::size_t floats) {
  return device.CreateTensor(TensorShape({static_cast<unsigned int>(floats)}, TensorShape::FLOAT32, TensorShape::C,
                                         TensorShape::MainMemory, TensorShape::Extra()),
                             nullptr);
}

runtime::DeviceCPU& Device(Who const& who, ContextPtr const& context) {
  if (context == nullptr || context->device_cpu == nullptr) {
    Refuse("%s: the context has no CPU device", who.Text().c_str());
  }
  return *context->device_cpu;
}

TensorShape const& ShapeAt(Who const& who, Shapes const& shapes, std::size_t index, std::size_t rank) {
  if (index >= shapes.size())
    Refuse("%s: %zu shapes given, needs number %zu", who.Text().c_str(), shapes.size(), index);
  if (rank != kAnyRank && shapes[index].dims.size() != rank) {
    Refuse("%s: shape %zu has dims %s, needs rank %zu", who.Text().c_str(), index, DimsText(shapes[index].dims).c_str(),
           rank);
  }
  return shapes[index];
}

Shapes OneShape(std::vector<unsigned int> dims, unsigned int data_type, unsigned int layout, unsigned int location) {
  Shapes shapes;
  shapes.emplace_back(std::move(dims), data_type, layout, location, TensorShape::Extra());
  return shapes;
}

void NeedsConfig(runtime::IKernel const& kernel) {
  if (!kernel.IsConfigured()) Refuse("%s: Forward before Config", kernel.GetName().c_str());
}

bool LiesInMainMemory(runtime::Tensor const& tensor) { return tensor.shape.location == TensorShape::MainMemory; }

bool IsInMainMemory(runtime::Tensor const& tensor, unsigned int data_type) {
  return LiesInMainMemory(tensor) && tensor.shape.data_type == data_type;
}

bool IsInMainMemory(runtime::Tensor const& tensor, unsigned int data_type, unsigned int layout) {
  return IsInMainMemory(tensor, data_type) && tensor.shape.layout == layout;
}

}  // namespace talvo::kernel::support
