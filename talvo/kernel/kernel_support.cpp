#include "talvo/kernel/kernel_support.h"

#include <algorithm>
#include <utility>

#include "talvo/utility/base64.h"
#include "talvo/utility/base64_support.h"
#include "talvo/utility/exact_cast_support.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::kernel::support {
namespace {

using runtime::DimsText;
using runtime::TensorShape;
using utility::Refuse;

// "rank 3, 4 bytes an element": what is looked at.
std::string TextOf(Needs const& needs) {
  std::string text;
  auto const add = [&text](char const* before, std::size_t value, char const* after) {
    text += (text.empty() ? "" : ", ") + std::string(before) + std::to_string(value) + after;
  };
  if (needs.rank != kAnyRank) add("rank ", needs.rank, "");
  if (needs.data_type != kAnyNumber) add("data type ", needs.data_type, " in main memory");
  if (needs.layout != kAnyNumber) add("layout ", needs.layout, "");
  if (needs.elements != 0) add("", needs.elements, " elements");
  if (needs.data_type == kAnyNumber) add("", needs.element_bytes, " bytes an element");
  return text;
}

bool HasMemory(runtime::Tensor const& tensor) {
  return tensor.data != nullptr || runtime::ElementCount(tensor.shape.dims) == 0;
}

}  // namespace

std::string Who::Text() const {
  std::string const name = kernel_ != nullptr ? kernel_->GetName() : name_;
  return layer_id_ != nullptr ? name + " of layer " + *layer_id_ : name;
}

bool Meets(runtime::Tensor const& tensor, Needs const& needs) {
  TensorShape const& shape = tensor.shape;
  bool const typed = shape.data_type <= TensorShape::UINT8 &&
                     runtime::ElementSize(shape.data_type) >= needs.element_bytes &&
                     (needs.data_type == kAnyNumber || IsInMainMemory(tensor, needs.data_type)) &&
                     (needs.layout == kAnyNumber || shape.layout == needs.layout);
  return typed && (needs.rank == kAnyRank || shape.dims.size() == needs.rank) &&
         runtime::ElementCount(shape.dims) >= needs.elements && HasMemory(tensor);
}

void RefuseTensor(Who const& who, char const* what, runtime::Tensor const* tensor, Needs const& needs) {
  if (tensor == nullptr) Refuse("%s: %s is no CPU tensor", who.Text().c_str(), what);
  TensorShape const& shape = tensor->shape;
  bool const placed = needs.data_type != kAnyNumber || needs.layout != kAnyNumber;
  std::string const place = ", layout " + std::to_string(shape.layout) + ", location " + std::to_string(shape.location);
  Refuse("%s: %s has dims %s, data type %u%s%s; needs %s", who.Text().c_str(), what, DimsText(shape.dims).c_str(),
         shape.data_type, placed ? place.c_str() : "", HasMemory(*tensor) ? "" : " and no memory",
         TextOf(needs).c_str());
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

void RefuseRecord(Who const& who) { Refuse("%s: a record of another class", who.Text().c_str()); }

int Judge(Tensors const& tensors, std::size_t count, TensorTest const& accept) {
  bool const good = tensors.size() == count && std::all_of(tensors.begin(), tensors.end(), [&](auto const& tensor) {
                      return tensor != nullptr && accept(*tensor);
                    });
  return good ? 0 : -2;
}

int JudgeFirst(Tensors const& tensors, TensorTest const& accept) {
  return !tensors.empty() && tensors[0] != nullptr && accept(*tensors[0]) ? 0 : -2;
}

int JudgeOneFloat(Tensors const& tensors) {
  return Judge(tensors, 1, [](auto const& tensor) { return IsInMainMemory(tensor, TensorShape::FLOAT32); });
}

int JudgeOneImage(Tensors const& tensors, unsigned int data_type) {
  return Judge(tensors, 1,
               [data_type](auto const& tensor) { return IsInMainMemory(tensor, data_type, TensorShape::CHW); });
}

bool LiesInMainMemory(runtime::Tensor const& tensor) { return tensor.shape.location == TensorShape::MainMemory; }

bool IsInMainMemory(runtime::Tensor const& tensor, unsigned int data_type) {
  return LiesInMainMemory(tensor) && tensor.shape.data_type == data_type;
}

bool IsInMainMemory(runtime::Tensor const& tensor, unsigned int data_type, unsigned int layout) {
  return IsInMainMemory(tensor, data_type) && tensor.shape.layout == layout;
}

TensorPtr DecodeWeights(Who const& who, std::string const& layer_id, char const* what, std::string const& base64,
                        std::vector<unsigned int> dims, unsigned int layout, ContextPtr const& context,
                        std::size_t entry) {
  TensorShape shape(std::move(dims), TensorShape::FLOAT32, layout, TensorShape::MainMemory, TensorShape::Extra());
  double needed = sizeof(float);  // extents of a file may pass 32 bits, and 64
  for (unsigned int const extent : shape.dims) needed *= extent;
  if (static_cast<double>(base64.size()) * 0.75 >= needed) {  // else it cannot be enough, and no tensor is made
    auto const weights = Device(who, context).CreateTensor(shape, nullptr);
    auto const bytes = static_cast<std::size_t>(needed);
    if (runtime::support::DecodeBase64(base64, weights->data, bytes) == bytes) return weights;
  }
  std::string const number = entry == kNoEntry ? "" : "[" + std::to_string(entry) + "]";
  Refuse("%s of layer %s: %s%s holds %zu bytes, shape %s needs %.0f", who.Text().c_str(), layer_id.c_str(), what,
         number.c_str(), runtime::Base64Decode(base64).size(), DimsText(shape.dims).c_str(), needed);
}

}  // namespace talvo::kernel::support
