#include "talvo/transform/reshape.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include "talvo/kernel/native/permute.h"
#include "talvo/runtime/tensor_cpu_support.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "talvo/transform/transform_support.h"
#include "talvo/utility/log.h"

namespace talvo::kernel {

using runtime::TensorReshapeInfo;
using runtime::TensorShape;
using support::ContextPtr;
using support::TensorPtr;
using support::Tensors;
using utility::Assert;
using Dims = std::vector<unsigned int>;
using LayerPtr = std::shared_ptr<runtime::LayerInfo>;
using ParamPtr = std::shared_ptr<runtime::InferenceParam>;

namespace {

constexpr int kUnknown = -1;

bool IsInMainMemory(runtime::Tensor const& tensor) { return tensor.shape.location == TensorShape::MainMemory; }

// Whether the dims are as the entries from `first` on say; entries below 1 say nothing.
bool FollowsEntries(Dims const& dims, std::vector<int> const& entries, std::size_t first) {
  if (dims.size() + first != entries.size()) return false;
  for (std::size_t axis = 0; axis < dims.size(); ++axis) {
    int const entry = entries[axis + first];
    if (entry > 0 && static_cast<unsigned int>(entry) != dims[axis]) return false;
  }
  return true;
}

// An output with all entries, or without one of them, whichever that was.
bool FollowsAllOrLacksOne(Dims const& dims, std::vector<int> const& entries) {
  return dims.size() + 1 == entries.size() || FollowsEntries(dims, entries, 0);
}

// Drops the batch axis from `count` entries; another number of entries stays as it is.
void DropLeadingOne(Dims& dims, std::size_t count) {
  if (dims.size() != count) return;
  Assert(dims[0] == 1, nullptr);
  dims.erase(dims.begin());
}

}  // namespace

struct ToC {
  static constexpr char const* kName = "Reshape_Fallback_To_C_M1";
  static constexpr unsigned int kLayout = TensorShape::C;
  static void DropBatch(Dims& dims) { DropLeadingOne(dims, 2); }
  static bool Fits(Dims const& dims, std::vector<int> const& entries) { return FollowsAllOrLacksOne(dims, entries); }
};

struct ToCHW {
  static constexpr char const* kName = "Reshape_Fallback_To_CHW_M1";
  static constexpr unsigned int kLayout = TensorShape::CHW;
  static void DropBatch(Dims& dims) { DropLeadingOne(dims, 4); }
  static bool Fits(Dims const& dims, std::vector<int> const& entries) { return FollowsAllOrLacksOne(dims, entries); }
};

struct ToSC {
  static constexpr char const* kName = "Reshape_Fallback_To_SC_M1";
  static constexpr unsigned int kLayout = TensorShape::SC;
  static void DropBatch(Dims& dims) {
    if (dims.size() != 3) return;
    Assert(dims[0] == 1 || dims[1] == 1, "[Reshape_Fallback_To_SC_M1] batch of new shape != 1");
    dims.erase(dims.begin() + (dims[0] == 1 ? 0 : 1));
  }
  static bool Fits(Dims const& dims, std::vector<int> const& entries) { return FollowsAllOrLacksOne(dims, entries); }
};

struct ToFlexible {
  static constexpr char const* kName = "Transform_MainMemory_Reshape_Fallback";
  static constexpr unsigned int kLayout = TensorShape::FLEXIABLE;
  static void DropBatch(Dims& dims) {
    Assert(!dims.empty(), "%s: new_shape is empty, needs a batch axis", kName);
    dims.erase(dims.begin());
  }
  static bool Fits(Dims const& dims, std::vector<int> const& entries) { return FollowsEntries(dims, entries, 1); }
};

template <class Target>
std::string GeneralReshape<Target>::GetName() const {
  return Target::kName;
}

template <class Target>
int GeneralReshape<Target>::IsValidParam(LayerPtr layer, ParamPtr param) const {
  return support::StrictParam<TensorReshapeInfo>(layer, param);
}

template <class Target>
bool GeneralReshape<Target>::Config(LayerPtr layer, ParamPtr param, ContextPtr) {
  configured_ = IsValidParam(layer, param) != -1;
  new_shape_.clear();
  known_product_ = 1;
  auto const reshape = std::dynamic_pointer_cast<TensorReshapeInfo>(layer);
  if (reshape == nullptr) return false;
  bool has_unknown = false;
  for (int entry : reshape->new_shape) {
    if (entry == kUnknown && has_unknown) {
      configured_ = false;
      break;
    }
    has_unknown = has_unknown || entry == kUnknown;
    if (entry != kUnknown) known_product_ *= static_cast<unsigned int>(entry);
    new_shape_.push_back(entry);
  }
  return configured_;
}

template <class Target>
bool GeneralReshape<Target>::IsConfigured() const {
  return configured_;
}

template <class Target>
std::vector<TensorShape> GeneralReshape<Target>::GetOutputShapes(std::vector<TensorShape> const& input_shapes) const {
  TensorShape const& input = support::ShapeAt(*this, input_shapes, 0);
  unsigned int const total = runtime::ElementCount(input.dims);
  Dims dims;
  for (int entry : new_shape_) {
    if (entry < 1 && known_product_ == 0) {
      Assert(false, "%s: the %zu entries of new_shape have a product of 0, which divides no dims %s", Target::kName,
             new_shape_.size(), runtime::DimsText(input.dims).c_str());
    }
    dims.push_back(entry < 1 ? total / known_product_ : static_cast<unsigned int>(entry));
  }
  Target::DropBatch(dims);
  return {TensorShape(std::move(dims), input.data_type, Target::kLayout, input.location, TensorShape::Extra())};
}

template <class Target>
int GeneralReshape<Target>::IsValidInput(Tensors const& inputs) const {
  return support::Judge(inputs, 1, [this](runtime::Tensor const& tensor) {
    unsigned int const total = runtime::ElementCount(tensor.shape.dims);
    return IsInMainMemory(tensor) && known_product_ != 0 && total >= known_product_ && total % known_product_ == 0;
  });
}

template <class Target>
int GeneralReshape<Target>::Forward(Tensors const& inputs, Tensors& outputs, ContextPtr context) const {
  TensorPtr const input = support::Input(*this, inputs, 0, support::kAnyRank, 1);
  std::size_t const input_bytes = runtime::ByteCount(input->shape);
  bool const is_new = outputs.empty();
  TensorPtr const output = support::GivenOrNewOutput(*this, inputs, outputs, context, input_bytes);
  std::size_t const output_bytes = runtime::ByteCount(output->shape);
  if (is_new && output_bytes > input_bytes) {
    Assert(false, "%s: dims %s do not fill dims %s", Target::kName, runtime::DimsText(input->shape.dims).c_str(),
           runtime::DimsText(output->shape.dims).c_str());
  }
  std::size_t const bytes = std::min(input_bytes, output_bytes);
  if (bytes != 0) std::memmove(output->data, input->data, bytes);
  return 0;
}

template <class Target>
int GeneralReshape<Target>::IsValidOutput(Tensors const& outputs) const {
  return support::Judge(outputs, 1, [this](runtime::Tensor const& tensor) {
    return IsInMainMemory(tensor) && Target::Fits(tensor.shape.dims, new_shape_);
  });
}

template class GeneralReshape<ToC>;
template class GeneralReshape<ToCHW>;
template class GeneralReshape<ToSC>;
template class GeneralReshape<ToFlexible>;

namespace {

bool IsFloatOrInt16(unsigned int data_type) {
  return data_type == TensorShape::FLOAT32 || data_type == TensorShape::INT16;
}

bool IsFloatHalfOrInt16(unsigned int data_type) {
  return IsFloatOrInt16(data_type) || data_type == TensorShape::FLOAT16;
}

bool IsChannelLayout(unsigned int layout) {
  return layout == TensorShape::CHW || layout == TensorShape::C4HW4 || layout == TensorShape::C8HW8;
}

// Lanes of a block; 1 for plain channels, 0 for any other layout.
unsigned int LanesOf(unsigned int layout) {
  if (layout == TensorShape::CHW) return 1;
  return layout == TensorShape::C4HW4 ? 4 : layout == TensorShape::C8HW8 ? 8 : 0;
}

// -1 among the entries from 1 on, of which there may be none.
std::ptrdiff_t UnknownCount(std::vector<short> const& entries) {
  return entries.empty() ? 0 : std::count(entries.begin() + 1, entries.end(), kUnknown);
}

// Entries from 1 on: at least 1 each, or -1 for one of them.
bool AreExtents(std::vector<short> const& entries) {
  return UnknownCount(entries) <= 1 &&
         std::all_of(entries.begin() + 1, entries.end(), [](short entry) { return entry >= 1 || entry == kUnknown; });
}

// Product of the entries from 1 on other than -1; above 32 bits anything above 32 bits.
std::uint64_t KnownProduct(std::vector<short> const& entries) {
  std::uint64_t product = 1;
  for (std::size_t i = 1; i < entries.size(); ++i) {
    if (entries[i] != kUnknown && product <= 0xFFFFFFFFu) product *= static_cast<unsigned int>(entries[i]);
  }
  return product;
}

// b, h, w, lane to b, lane, h, w.
void Unblock(char const* name, runtime::TensorCPU const& input, unsigned int lanes, void* output) {
  TensorShape const& shape = input.shape;
  if (shape.dims.size() != 4 || shape.dims[3] != lanes) {
    Assert(false, "%s: dims %s, needs rank 4 and %u lanes", name, runtime::DimsText(shape.dims).c_str(), lanes);
  }
  native::Transform_MainMemory_Permute_Fallback(input.data, shape.dims, runtime::ElementSize(shape.data_type),
                                                {0, 3, 1, 2}, output);
}

void Copy(runtime::TensorCPU const& input, void* output) {
  if (input.data != nullptr) std::memmove(output, input.data, runtime::ByteCount(input.shape));
}

}  // namespace

struct CnHWnToC {
  static constexpr char const* kName = "Reshape_Fallback_CnHWn_To_C_M1";
  static constexpr unsigned int kLayout = TensorShape::C;
  static constexpr std::size_t kEntries = 2;
  static bool TakesBatch(short entry) { return entry == 1 || entry == kUnknown; }
  static bool TakesType(unsigned int data_type) { return IsFloatHalfOrInt16(data_type); }
  static bool TakesLayout(TensorShape const& shape) { return IsChannelLayout(shape.layout); }
  static void Move(runtime::TensorCPU const& input, void* output) {
    unsigned int const lanes = LanesOf(input.shape.layout);
    Assert(lanes != 0, "Invalid input tensor layout");
    if (lanes == 1) return Copy(input, output);
    Assert(TakesType(input.shape.data_type), "Invalid input data type");
    Unblock(kName, input, lanes, output);
  }
};

struct CnHWnToCL {
  static constexpr char const* kName = "Reshape_Fallback_CnHWn_To_CL_M1";
  static constexpr unsigned int kLayout = TensorShape::CL;
  static constexpr std::size_t kEntries = 3;
  static bool TakesBatch(short entry) { return entry == 1; }
  static bool TakesType(unsigned int data_type) { return IsFloatHalfOrInt16(data_type); }
  static bool TakesLayout(TensorShape const& shape) {
    std::size_t const rank = shape.dims.size();
    return IsChannelLayout(shape.layout) || (shape.layout == TensorShape::FLEXIABLE && (rank == 3 || rank == 4));
  }
  // A FLEXIABLE tensor of four axes tells by the last one.
  static unsigned int Lanes(TensorShape const& shape) {
    if (shape.layout != TensorShape::FLEXIABLE) return LanesOf(shape.layout);
    if (shape.dims.size() == 3) return 1;
    return shape.dims.size() == 4 && (shape.dims[3] == 4 || shape.dims[3] == 8) ? shape.dims[3] : 0;
  }
  // Narrower than TakesType on purpose: halves are refused here, whatever the layout.
  static void Move(runtime::TensorCPU const& input, void* output) {
    unsigned int const lanes = Lanes(input.shape);
    Assert(lanes != 0, "Invalid input tensor layout");
    Assert(IsFloatOrInt16(input.shape.data_type), "Invalid input data type");
    lanes == 1 ? Copy(input, output) : Unblock(kName, input, lanes, output);
  }
};

struct CLToCHW {
  static constexpr char const* kName = "Reshape_Fallback_CL_To_CHW_M1";
  static constexpr unsigned int kLayout = TensorShape::CHW;
  static constexpr std::size_t kEntries = 4;
  static bool TakesBatch(short entry) { return entry == 1; }
  static bool TakesType(unsigned int data_type) { return IsFloatOrInt16(data_type); }
  static bool TakesLayout(TensorShape const&) { return true; }
  static void Move(runtime::TensorCPU const& input, void* output) { Copy(input, output); }
};

template <class Step>
std::string UnblockingReshape<Step>::GetName() const {
  return Step::kName;
}

template <class Step>
int UnblockingReshape<Step>::IsValidParam(LayerPtr layer, ParamPtr param) const {
  if (support::StrictParam<TensorReshapeInfo>(layer, param) == -1) return -1;
  auto const& entries = static_cast<TensorReshapeInfo const&>(*layer).new_shape;
  return entries.size() == Step::kEntries && Step::TakesBatch(entries[0]) && AreExtents(entries) ? 0 : -1;
}

template <class Step>
bool UnblockingReshape<Step>::Config(LayerPtr layer, ParamPtr param, ContextPtr) {
  configured_ = false;
  if (IsValidParam(layer, param) == -1) return false;
  new_shape_ = static_cast<TensorReshapeInfo const&>(*layer).new_shape;
  configured_ = true;
  return true;
}

template <class Step>
bool UnblockingReshape<Step>::IsConfigured() const {
  return configured_;
}

template <class Step>
std::vector<TensorShape> UnblockingReshape<Step>::GetOutputShapes(std::vector<TensorShape> const& input_shapes) const {
  TensorShape const& input = support::ShapeAt(*this, input_shapes, 0);
  Assert(new_shape_.size() == Step::kEntries, "%s: new_shape has %zu entries, needs %zu", Step::kName,
         new_shape_.size(), Step::kEntries);
  auto const rest = static_cast<unsigned int>(runtime::ElementCount(input.dims) / KnownProduct(new_shape_));
  Dims dims;
  for (std::size_t i = 1; i < new_shape_.size(); ++i) {
    dims.push_back(new_shape_[i] == kUnknown ? rest : static_cast<unsigned int>(new_shape_[i]));
  }
  return {TensorShape(std::move(dims), input.data_type, Step::kLayout, input.location, input.extra)};
}

template <class Step>
int UnblockingReshape<Step>::IsValidInput(Tensors const& inputs) const {
  return support::Judge(inputs, 1, [this](runtime::Tensor const& tensor) {
    TensorShape const& shape = tensor.shape;
    if (!IsInMainMemory(tensor) || !Step::TakesType(shape.data_type) || !Step::TakesLayout(shape)) return false;
    std::uint64_t const total = runtime::ElementCount(shape.dims), known = KnownProduct(new_shape_);
    return UnknownCount(new_shape_) != 0 ? total % known == 0 : total == known;
  });
}

template <class Step>
int UnblockingReshape<Step>::Forward(Tensors const& inputs, Tensors& outputs, ContextPtr context) const {
  TensorPtr const input = support::Input(*this, inputs, 0, support::kAnyRank, 1);
  std::size_t const bytes = runtime::ByteCount(input->shape);
  bool const is_new = outputs.empty();
  TensorPtr const output = support::GivenOrNewOutput(*this, inputs, outputs, context, bytes);
  if (is_new && runtime::ByteCount(output->shape) != bytes) {
    Assert(false, "%s: dims %s do not fill dims %s", Step::kName, runtime::DimsText(input->shape.dims).c_str(),
           runtime::DimsText(output->shape.dims).c_str());
  }
  Step::Move(*input, output->data);
  return 0;
}

template <class Step>
int UnblockingReshape<Step>::IsValidOutput(Tensors const& outputs) const {
  return support::Judge(outputs, 1, [](runtime::Tensor const& tensor) {
    TensorShape const& shape = tensor.shape;
    return IsInMainMemory(tensor) && Step::TakesType(shape.data_type) && shape.layout == Step::kLayout;
  });
}

template class UnblockingReshape<CnHWnToC>;
template class UnblockingReshape<CnHWnToCL>;
template class UnblockingReshape<CLToCHW>;

namespace functional {

TensorPtr Transform_MainMemory_Reshape_Fallback(TensorPtr const& input, std::vector<int> const& new_shape,
                                                std::shared_ptr<runtime::DeviceCPU> const& device) {
  Assert(input != nullptr && device != nullptr, "%s: the input or the device is null", __func__);
  return runtime::ReshapeTensor(*input, new_shape, TensorShape::FLEXIABLE, *device);
}

}  // namespace functional

}  // namespace talvo::kernel
