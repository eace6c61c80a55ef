#include "talvo/kernel/kernel_support.h"

#include <algorithm>
#include <utility>

#include "talvo/utility/base64.h"
#include "talvo/utility/log.h"

namespace talvo::kernel::support {
namespace {

using runtime::DimsText;
using runtime::TensorShape;
using utility::Assert;

}  // namespace

TensorPtr Input(runtime::IKernel const& kernel, Tensors const& inputs, std::size_t index, std::size_t rank,
                unsigned int element_bytes) {
  auto tensor = index < inputs.size() ? std::dynamic_pointer_cast<runtime::TensorCPU>(inputs[index]) : nullptr;
  if (tensor == nullptr) {
    Assert(false, "%s: input %zu of %zu is no CPU tensor", kernel.GetName().c_str(), index, inputs.size());
  }
  TensorShape const& shape = tensor->shape;
  bool const typed = shape.data_type <= TensorShape::UINT8 && runtime::ElementSize(shape.data_type) >= element_bytes;
  bool const ranked = rank == kAnyRank || shape.dims.size() == rank;
  bool const filled = tensor->data != nullptr || runtime::ElementCount(shape.dims) == 0;
  if (!typed || !ranked || !filled) {
    Assert(false, "%s: input %zu has dims %s, data type %u%s; needs %s%u bytes an element", kernel.GetName().c_str(),
           index, DimsText(shape.dims).c_str(), shape.data_type, filled ? "" : " and no memory",
           rank == kAnyRank ? "" : ("rank " + std::to_string(rank) + ", ").c_str(), element_bytes);
  }
  return tensor;
}

std::size_t Count(runtime::TensorCPU const& tensor) { return runtime::ElementCount(tensor.shape.dims); }

TensorPtr NewOutput(runtime::IKernel const& kernel, Tensors const& inputs, ContextPtr const& context,
                    std::size_t index) {
  std::vector<TensorShape> shapes;
  shapes.reserve(inputs.size());
  for (auto const& input : inputs) {
    if (input == nullptr) Assert(false, "%s: an input is null", kernel.GetName().c_str());
    shapes.push_back(input->shape);
  }
  auto const outputs = kernel.GetOutputShapes(shapes);
  return Device(kernel, context).CreateTensor(ShapeAt(kernel, outputs, index), nullptr);
}

runtime::DeviceCPU& Device(runtime::IKernel const& kernel, ContextPtr const& context) {
  if (context == nullptr || context->device_cpu == nullptr) {
    Assert(false, "%s: the context has no CPU device", kernel.GetName().c_str());
  }
  return *context->device_cpu;
}

TensorShape const& ShapeAt(runtime::IKernel const& kernel, std::vector<TensorShape> const& shapes, std::size_t index,
                           std::size_t rank) {
  if (index >= shapes.size()) {
    Assert(false, "%s: %zu shapes given, needs number %zu", kernel.GetName().c_str(), shapes.size(), index);
  }
  if (rank != kAnyRank && shapes[index].dims.size() != rank) {
    Assert(false, "%s: shape %zu has dims %s, needs rank %zu", kernel.GetName().c_str(), index,
           DimsText(shapes[index].dims).c_str(), rank);
  }
  return shapes[index];
}

int Judge(Tensors const& tensors, std::size_t count, std::function<bool(runtime::Tensor const&)> const& accept) {
  bool const good = tensors.size() == count && std::all_of(tensors.begin(), tensors.end(), [&](auto const& tensor) {
                      return tensor != nullptr && accept(*tensor);
                    });
  return good ? 0 : -2;
}

int JudgeFirst(Tensors const& tensors, std::function<bool(runtime::Tensor const&)> const& accept) {
  return !tensors.empty() && tensors[0] != nullptr && accept(*tensors[0]) ? 0 : -2;
}

int JudgeOneFloat(Tensors const& tensors) {
  return Judge(tensors, 1, [](auto const& tensor) { return IsInMainMemory(tensor, TensorShape::FLOAT32); });
}

bool IsInMainMemory(runtime::Tensor const& tensor, unsigned int data_type) {
  return tensor.shape.location == TensorShape::MainMemory && tensor.shape.data_type == data_type;
}

bool IsInMainMemory(runtime::Tensor const& tensor, unsigned int data_type, unsigned int layout) {
  return IsInMainMemory(tensor, data_type) && tensor.shape.layout == layout;
}

TensorPtr DecodeWeights(runtime::IKernel const& kernel, std::string const& layer_id, char const* what,
                        std::string const& base64, std::vector<unsigned int> dims, unsigned int layout,
                        ContextPtr const& context) {
  TensorShape shape(std::move(dims), TensorShape::FLOAT32, layout, TensorShape::MainMemory, TensorShape::Extra());
  std::string const bytes = runtime::Base64Decode(base64);
  double needed = sizeof(float);  // extents of a file may pass 32 bits, and 64
  for (unsigned int const extent : shape.dims) needed *= extent;
  if (static_cast<double>(bytes.size()) < needed) {
    Assert(false, "%s of layer %s: %s holds %zu bytes, shape %s needs %.0f", kernel.GetName().c_str(), layer_id.c_str(),
           what, bytes.size(), DimsText(shape.dims).c_str(), needed);
  }
  return Device(kernel, context).CreateTensor(std::move(shape), bytes.data());
}

}  // namespace talvo::kernel::support
