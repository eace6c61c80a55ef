#include <algorithm>

#include "talvo/kernel/kernel_support.h"
#include "talvo/utility/base64.h"
#include "talvo/utility/base64_support.h"
#include "talvo/utility/refuse_support.h"

// What kernels do besides Forward: they judge, decode weights and find the words of a refusal.
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

}  // namespace

std::string Who::Text() const {
  std::string const name = kernel_ != nullptr ? kernel_->GetName() : name_;
  return layer_id_ != nullptr ? name + " of layer " + *layer_id_ : name;
}

void RefuseTensor(Who const& who, char const* what, runtime::Tensor const* tensor, Needs const& needs) {
  if (tensor == nullptr) Refuse("%s: %s is no CPU tensor", who.Text().c_str(), what);
  TensorShape const& shape = tensor->shape;
  bool const placed = needs.data_type != kAnyNumber || needs.layout != kAnyNumber;
  std::string const place = ", layout " + std::to_string(shape.layout) + ", location " + std::to_string(shape.location);
  Refuse("%s: %s has dims %s, data type %u%s%s; needs %s", who.Text().c_str(), what, DimsText(shape.dims).c_str(),
         shape.data_type, placed ? place.c_str() : "",
         tensor->data != nullptr || runtime::ElementCount(shape.dims) == 0 ? "" : " and no memory",
         TextOf(needs).c_str());
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
