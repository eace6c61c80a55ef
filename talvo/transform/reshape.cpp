#include "talvo/transform/reshape.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include "talvo/kernel/kernel_of_support.h"
#include "talvo/kernel/native/permute.h"
#include "talvo/runtime/tensor_cpu_support.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "talvo/transform/transform_support.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::kernel {

using runtime::TensorReshapeInfo;

namespace {

using Dims = std::vector<unsigned int>;

constexpr int kUnknown = -1;

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
  if (dims[0] != 1) Refuse(nullptr);
  dims.erase(dims.begin());
}

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

// Lanes of a C4HW4 or C8HW8 tensor, which stand in its last extent. Assert: they do not.
void CheckLanes(support::Who const& who, TensorShape const& shape, unsigned int lanes) {
  if (shape.dims.size() == 4 && shape.dims[3] == lanes) return;
  Refuse("%s: dims %s, needs rank 4 and %u lanes", who.Text().c_str(), DimsText(shape.dims).c_str(), lanes);
}

// b, h, w, lane to b, lane, h, w; one lane is plain.
void Unblock(runtime::TensorCPU const& input, unsigned int lanes, void* output) {
  if (lanes != 1) {
    native::Transform_MainMemory_Permute_Fallback(input.data, input.shape.dims,
                                                  runtime::ElementSize(input.shape.data_type), {0, 3, 1, 2}, output);
  } else if (input.data != nullptr) {
    std::memmove(output, input.data, runtime::ByteCount(input.shape));
  }
}

[[noreturn]] void RefuseSize(support::Who const& who, TensorShape const& input, TensorShape const& output) {
  Refuse("%s: dims %s do not fill dims %s", who.Text().c_str(), DimsText(input.dims).c_str(),
         DimsText(output.dims).c_str());
}

// How the batch axis goes, and which outputs fit.
struct GeneralForm {
  unsigned int layout;
  void (*drop_batch)(support::Who const&, Dims&);
  bool (*fits)(Dims const&, std::vector<int> const& entries);
};

struct GeneralReshape : support::Strict<TensorReshapeInfo> {
  explicit GeneralReshape(GeneralForm const& of) : form(of) {}

  bool Passes(int) const override { return true; }  // Config goes on whatever the judgement, which is its result

  bool Config(LayerPtr const& layer, ParamPtr const& param, ContextPtr const&) override {
    bool good = IsValidParam(layer, param) != -1, has_unknown = false;
    new_shape.clear();
    known_product = 1;
    auto const* const info = dynamic_cast<TensorReshapeInfo const*>(layer.get());
    if (info == nullptr) return false;
    layer_id = info->id;
    for (int const entry : info->new_shape) {
      // A second unknown ends the list and refuses the layer; GetOutputShapes goes on with what stood before it.
      if (entry == kUnknown && has_unknown) {
        good = false;
        break;
      }
      has_unknown = has_unknown || entry == kUnknown;
      if (entry != kUnknown) known_product *= static_cast<unsigned int>(entry);
      new_shape.push_back(entry);
    }
    return good;
  }

  Shapes GetOutputShapes(Shapes const& shapes) const override {
    TensorShape const& input = support::ShapeAt(Who(), shapes, 0);
    unsigned int const total = runtime::ElementCount(input.dims);
    Dims dims;
    for (int const entry : new_shape) {
      if (entry < 1 && known_product == 0) {
        Refuse("%s: the %zu entries of new_shape have a product of 0, which divides no dims %s", Who().Text().c_str(),
               new_shape.size(), DimsText(input.dims).c_str());
      }
      dims.push_back(entry < 1 ? total / known_product : static_cast<unsigned int>(entry));
    }
    form.drop_batch(Who(), dims);
    return support::OneShape(std::move(dims), input.data_type, form.layout, input.location);
  }

  int IsValidInput(Tensors const& inputs) const override {
    return support::Judge(inputs, 1, [this](runtime::Tensor const& tensor) {
      unsigned int const total = runtime::ElementCount(tensor.shape.dims);
      return support::LiesInMainMemory(tensor) && known_product != 0 && total >= known_product &&
             total % known_product == 0;
    });
  }

  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    support::NeedsConfig(kernel);
    TensorPtr const input = support::Input(Who(), inputs, 0, support::kAnyRank, 1);
    // A shorter output is served from the front; a longer one would read behind the input.
    unsigned int const bytes = runtime::ByteCount(input->shape);
    if (outputs.empty()) {
      TensorShape const shape = support::ShapeAt(Who(), kernel.GetOutputShapes({input->shape}), 0);
      if (runtime::ByteCount(shape) > bytes) RefuseSize(Who(), input->shape, shape);
      outputs.push_back(support::Device(Who(), context).CreateTensor(shape, input->data));
      return 0;
    }
    TensorPtr const output = support::GivenOutput(Who(), outputs, bytes);
    // The caller may give the input's own memory: a reshape in place moves nothing.
    if (bytes != 0) std::memmove(output->data, input->data, bytes);
    return 0;
  }

  int IsValidOutput(Tensors const& outputs) const override {
    return support::Judge(outputs, 1, [this](runtime::Tensor const& tensor) {
      return support::LiesInMainMemory(tensor) && form.fits(tensor.shape.dims, new_shape);
    });
  }

  support::Who Who() const { return {CName(), layer_id}; }

  GeneralForm const form;
  std::string layer_id;
  std::vector<int> new_shape;
  unsigned int known_product = 1;
};

// The entries of new_shape, and what is taken of types and layouts; `lanes` refuses, in the told order, what is not
// moved.
struct UnblockingForm {
  std::size_t entries;
  unsigned int layout;
  bool unknown_batch;  // the first entry may be -1
  bool (*takes_type)(unsigned int data_type);
  bool (*takes_layout)(TensorShape const&);
  unsigned int (*lanes)(TensorShape const&);
};

// A reshape that may take blocks apart.
struct UnblockingReshape : support::Strict<TensorReshapeInfo> {
  explicit UnblockingReshape(UnblockingForm const& of) : form(of) {}

  bool TakesBatch(short entry) const { return entry == 1 || (form.unknown_batch && entry == kUnknown); }

  int IsValidParam(LayerPtr const& layer, ParamPtr const& param) const override {
    if (Strict::IsValidParam(layer, param) == -1) return -1;
    auto const& entries = support::As<TensorReshapeInfo>(CName(), layer).new_shape;
    return entries.size() == form.entries && TakesBatch(entries[0]) && AreExtents(entries) ? 0 : -1;
  }

  bool Config(LayerPtr const& layer, ParamPtr const&, ContextPtr const&) override {
    layer_id = layer->id;
    new_shape = support::As<TensorReshapeInfo>(CName(), layer).new_shape;
    return true;
  }

  Shapes GetOutputShapes(Shapes const& shapes) const override {
    TensorShape const& input = support::ShapeAt(Who(), shapes, 0);
    auto const rest = static_cast<unsigned int>(runtime::ElementCount(input.dims) / KnownProduct(new_shape));
    Dims dims;
    for (std::size_t i = 1; i < new_shape.size(); ++i) {
      dims.push_back(new_shape[i] == kUnknown ? rest : static_cast<unsigned int>(new_shape[i]));
    }
    return {TensorShape(std::move(dims), input.data_type, form.layout, input.location, input.extra)};
  }

  int IsValidInput(Tensors const& inputs) const override {
    return support::Judge(inputs, 1, [this](runtime::Tensor const& tensor) {
      TensorShape const& shape = tensor.shape;
      bool const taken = form.takes_type(shape.data_type) && form.takes_layout(shape);
      if (!support::LiesInMainMemory(tensor) || !taken) return false;
      std::uint64_t const total = runtime::ElementCount(shape.dims), known = KnownProduct(new_shape);
      return UnknownCount(new_shape) != 0 ? total % known == 0 : total == known;
    });
  }

  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    support::NeedsConfig(kernel);
    TensorPtr const input = support::Input(Who(), inputs, 0, support::kAnyRank, 1);
    unsigned int const lanes = form.lanes(input->shape), bytes = runtime::ByteCount(input->shape);
    if (lanes != 1) CheckLanes(Who(), input->shape, lanes);
    if (!outputs.empty()) {
      Unblock(*input, lanes, support::GivenOutput(Who(), outputs, bytes)->data);
      return 0;
    }
    TensorShape const shape = support::ShapeAt(Who(), kernel.GetOutputShapes({input->shape}), 0);
    if (runtime::ByteCount(shape) != bytes) RefuseSize(Who(), input->shape, shape);
    TensorPtr const output = support::Device(Who(), context).CreateTensor(shape, nullptr);
    Unblock(*input, lanes, output->data);
    outputs.push_back(output);
    return 0;
  }

  int IsValidOutput(Tensors const& outputs) const override {
    return support::Judge(outputs, 1, [this](runtime::Tensor const& tensor) {
      TensorShape const& shape = tensor.shape;
      return support::LiesInMainMemory(tensor) && form.takes_type(shape.data_type) && shape.layout == form.layout;
    });
  }

  support::Who Who() const { return {CName(), layer_id}; }

  UnblockingForm const form;
  std::string layer_id;
  std::vector<short> new_shape;
};

void DropFirstOfTwo(support::Who const&, Dims& dims) { DropLeadingOne(dims, 2); }
void DropFirstOfFour(support::Who const&, Dims& dims) { DropLeadingOne(dims, 4); }

void DropOneOfThree(support::Who const&, Dims& dims) {
  if (dims.size() != 3) return;
  if (dims[0] != 1 && dims[1] != 1) Refuse("[Reshape_Fallback_To_SC_M1] batch of new shape != 1");
  dims.erase(dims.begin() + (dims[0] == 1 ? 0 : 1));
}

void DropFirst(support::Who const& who, Dims& dims) {
  if (dims.empty()) Refuse("%s: new_shape is empty, needs a batch axis", who.Text().c_str());
  dims.erase(dims.begin());
}

bool FollowsBehindBatch(Dims const& dims, std::vector<int> const& entries) { return FollowsEntries(dims, entries, 1); }

bool HasChannelLayout(TensorShape const& shape) { return IsChannelLayout(shape.layout); }

unsigned int LanesOfChannels(TensorShape const& shape) {
  unsigned int const lanes = LanesOf(shape.layout);
  if (lanes == 0) Refuse("Invalid input tensor layout");
  if (lanes != 1 && !IsFloatHalfOrInt16(shape.data_type)) Refuse("Invalid input data type");
  return lanes;
}

bool HasChannelsOrAnyAxes(TensorShape const& shape) {
  std::size_t const rank = shape.dims.size();
  return IsChannelLayout(shape.layout) || (shape.layout == TensorShape::FLEXIABLE && (rank == 3 || rank == 4));
}

// A FLEXIABLE tensor of four axes tells by the last one. Narrower than what the judgement takes on purpose: halves are
// refused here, whatever the layout.
unsigned int LanesOfAnyAxes(TensorShape const& shape) {
  bool const flexible = shape.layout == TensorShape::FLEXIABLE;
  std::size_t const rank = shape.dims.size();
  unsigned int lanes = LanesOf(shape.layout);
  if (flexible && rank == 3) lanes = 1;
  if (flexible && rank == 4 && (shape.dims[3] == 4 || shape.dims[3] == 8)) lanes = shape.dims[3];
  if (lanes == 0) Refuse("Invalid input tensor layout");
  if (!IsFloatOrInt16(shape.data_type)) Refuse("Invalid input data type");
  return lanes;
}

bool HasAnyLayout(TensorShape const&) { return true; }
unsigned int OneLane(TensorShape const&) { return 1; }

}  // namespace

struct ReshapeToCOperation {
  using Body = GeneralReshape;
  static constexpr char const* kName = "Reshape_Fallback_To_C_M1";
  static constexpr GeneralForm kForm = {TensorShape::C, DropFirstOfTwo, FollowsAllOrLacksOne};
};

struct ReshapeToCHWOperation {
  using Body = GeneralReshape;
  static constexpr char const* kName = "Reshape_Fallback_To_CHW_M1";
  static constexpr GeneralForm kForm = {TensorShape::CHW, DropFirstOfFour, FollowsAllOrLacksOne};
};

struct ReshapeToSCOperation {
  using Body = GeneralReshape;
  static constexpr char const* kName = "Reshape_Fallback_To_SC_M1";
  static constexpr GeneralForm kForm = {TensorShape::SC, DropOneOfThree, FollowsAllOrLacksOne};
};

struct ReshapeToFlexibleOperation {
  using Body = GeneralReshape;
  static constexpr char const* kName = "Transform_MainMemory_Reshape_Fallback";
  static constexpr GeneralForm kForm = {TensorShape::FLEXIABLE, DropFirst, FollowsBehindBatch};
};

struct UnblockToCOperation {
  using Body = UnblockingReshape;
  static constexpr char const* kName = "Reshape_Fallback_CnHWn_To_C_M1";
  static constexpr UnblockingForm kForm = {
      2, TensorShape::C, true, IsFloatHalfOrInt16, HasChannelLayout, LanesOfChannels};
};

struct UnblockToCLOperation {
  using Body = UnblockingReshape;
  static constexpr char const* kName = "Reshape_Fallback_CnHWn_To_CL_M1";
  static constexpr UnblockingForm kForm = {
      3, TensorShape::CL, false, IsFloatHalfOrInt16, HasChannelsOrAnyAxes, LanesOfAnyAxes};
};

struct ReshapeCLToCHWOperation {
  using Body = UnblockingReshape;
  static constexpr char const* kName = "Reshape_Fallback_CL_To_CHW_M1";
  static constexpr UnblockingForm kForm = {4, TensorShape::CHW, false, IsFloatOrInt16, HasAnyLayout, OneLane};
};

template OperationPtr MakeOperation<ReshapeToCOperation>();
template OperationPtr MakeOperation<ReshapeToCHWOperation>();
template OperationPtr MakeOperation<ReshapeToSCOperation>();
template OperationPtr MakeOperation<ReshapeToFlexibleOperation>();
template OperationPtr MakeOperation<UnblockToCOperation>();
template OperationPtr MakeOperation<UnblockToCLOperation>();
template OperationPtr MakeOperation<ReshapeCLToCHWOperation>();

namespace functional {

TensorPtr Transform_MainMemory_Reshape_Fallback(TensorPtr const& input, std::vector<int> const& new_shape,
                                                std::shared_ptr<runtime::DeviceCPU> const& device) {
  if (input == nullptr || device == nullptr) Refuse("%s: the input or the device is null", __func__);
  return runtime::ReshapeTensor(*input, new_shape, TensorShape::FLEXIABLE, *device);
}

}  // namespace functional

}  // namespace talvo::kernel
