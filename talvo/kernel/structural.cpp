#include "talvo/kernel/structural.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "talvo/kernel/functional/structural.h"
#include "talvo/kernel/functional/structural_support.h"
#include "talvo/kernel/kernel_of_support.h"
#include "talvo/kernel/native/softmax_support.h"
#include "talvo/serialization/layer_info.h"
#include "talvo/serialization/layer_info_activation.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::kernel {

using runtime::Tensor;

namespace {

constexpr float kPlaceholder = 128.0f;

bool IsFloatOrInt16(Tensor const& tensor) {
  return support::IsInMainMemory(tensor, TensorShape::FLOAT32) || support::IsInMainMemory(tensor, TensorShape::INT16);
}

// The layouts whose outermost axis is that of the channels or of their blocks.
bool HasChannelsOutermost(Tensor const& tensor) {
  unsigned int const layout = tensor.shape.layout;
  return support::LiesInMainMemory(tensor) &&
         (layout == TensorShape::CHW || layout == TensorShape::C4HW4 || layout == TensorShape::C8HW8);
}

// The tensors pass as they are; `accept` is what IsValidInput demands of the one tensor.
struct PassThrough : support::Inverted {
  explicit PassThrough(bool (*demand)(Tensor const&)) : accept(demand) {}

  int Forward(IKernel const&, Tensors const& inputs, Tensors& outputs, ContextPtr const&) const override {
    if (&outputs != &inputs) outputs = inputs;
    return 0;
  }
  int IsValidInput(Tensors const& inputs) const override { return support::Judge(inputs, 1, accept); }
  int IsValidOutput(Tensors const& outputs) const override { return IsValidInput(outputs); }

  bool (*const accept)(Tensor const&);
};

bool AcceptsAny(Tensor const&) { return true; }

// The kernels whose judgement has no say: it refuses what models hold, so that Config takes any layer of class Info.
template <class Info>
struct JudgedInVain : support::Strict<Info> {
  bool Passes(int) const override { return true; }
};

}  // namespace

struct InputOperation {
  using Body = PassThrough;
  static constexpr bool (*kForm)(Tensor const&) = AcceptsAny;
  static constexpr char const* kName = "Input_Fallback_M1";
};

struct StraightThroughOperation {
  using Body = PassThrough;
  static constexpr bool (*kForm)(Tensor const&) = support::LiesInMainMemory;
  static constexpr char const* kName = "Straight_Through_Fallback_M1";
};

struct PlaceholderOperation : support::Strict<runtime::LayerPlaceholderInfo> {
  static constexpr char const* kName = "LayerPlaceholder_Fallback_Float_M1";
  using Info = runtime::LayerPlaceholderInfo;

  int IsValidParam(LayerPtr const& layer, ParamPtr const& param) const override {
    if (Strict::IsValidParam(layer, param) == -1) return -1;
    return support::As<Info>(kName, layer).output_shape.empty() ? -1 : 0;
  }

  bool Config(LayerPtr const& layer, ParamPtr const&, ContextPtr const&) override {
    output_shape = support::As<Info>(kName, layer).output_shape;
    return true;
  }

  Shapes GetOutputShapes(Shapes const&) const override {
    return support::OneShape({output_shape.begin(), output_shape.end()}, TensorShape::FLOAT32, TensorShape::CHW,
                             TensorShape::MainMemory);
  }

  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    support::NeedsConfig(kernel);
    auto const y = support::NewOutput(kernel, inputs, context);
    std::fill_n(y->Data<float>(), support::Count(*y), kPlaceholder);
    return support::Give(y, outputs);
  }

  int IsValidInput(Tensors const& inputs) const override {
    return support::JudgeFirst(inputs, support::LiesInMainMemory);
  }
  int IsValidOutput(Tensors const& outputs) const override { return IsValidInput(outputs); }

  std::vector<unsigned short> output_shape;
};

struct ConcatenateOperation : support::Strict<runtime::ConcatenateInfo> {
  static constexpr char const* kName = "Concatenate_MainMemory_Fallback";

  bool Config(LayerPtr const& layer, ParamPtr const&, ContextPtr const&) override {
    axis = support::As<runtime::ConcatenateInfo>(kName, layer).dim;
    return true;
  }

  Shapes GetOutputShapes(Shapes const& shapes) const override {
    TensorShape const &first = support::ShapeAt(kName, shapes, 0), &second = support::ShapeAt(kName, shapes, 1);
    TensorShape joined(first.dims, first.data_type, TensorShape::FLEXIABLE, first.location, TensorShape::Extra());
    for (std::size_t i = 0; i < first.dims.size(); ++i) {
      if (second.dims.empty()) Refuse("%s: a tensor of dims %s and one without", kName, DimsText(first.dims).c_str());
      // The leading extents decide for every axis.
      bool const equal = first.dims[0] == second.dims[0];
      if (!equal && i != axis) Refuse("input tensor shapes error.");
      joined.dims[i] = equal ? first.dims[0] : first.dims[0] + second.dims[0];
    }
    return {joined};
  }

  int IsValidInput(Tensors const& inputs) const override {
    if (inputs.size() < 2 || inputs[0] == nullptr) return -2;
    TensorShape const& first = inputs[0]->shape;
    return support::Judge(inputs, inputs.size(), [&](Tensor const& tensor) {
      return support::IsInMainMemory(tensor, first.data_type) &&
             functional::EqualButAxis(tensor.shape.dims, first.dims, axis);
    });
  }

  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    support::NeedsConfig(kernel);
    if (IsValidInput(inputs) != 0) Refuse("Invalid forward input param");
    if (!outputs.empty()) {
      Refuse(IsValidOutput(outputs) != 0 ? "Invalid forward output param" : "Not Implemented.");
    }
    support::Device(kName, context);
    outputs.push_back(functional::Concatenate_MainMemory_Fallback(inputs, axis, context->device_cpu));
    return 0;
  }

  int IsValidOutput(Tensors const& outputs) const override {
    return support::Judge(outputs, 1, support::LiesInMainMemory);
  }

  unsigned int axis = 0;
};

struct ConcatenateChannelsOperation : support::Strict<runtime::ConcatenateInfo> {
  static constexpr char const* kName = "Concatenate_C_Fallback_CnHWn_M1";

  int IsValidParam(LayerPtr const& layer, ParamPtr const& param) const override {
    if (Strict::IsValidParam(layer, param) == -1) return -1;
    return support::As<runtime::ConcatenateInfo>(kName, layer).dim == 1 ? 0 : -1;
  }

  Shapes GetOutputShapes(Shapes const& shapes) const override {
    TensorShape joined = support::ShapeAt(kName, shapes, 0);
    unsigned int channels = 0;
    for (TensorShape const& shape : shapes) {
      if (shape.dims.empty()) Refuse("%s: one of %zu tensors has no dims", kName, shapes.size());
      channels += shape.dims[0];
    }
    joined.dims[0] = channels;
    return {joined};
  }

  int IsValidInput(Tensors const& inputs) const override {
    if (support::JudgeFirst(inputs, HasChannelsOutermost) != 0) return -2;
    TensorShape const& first = inputs[0]->shape;
    return support::Judge(inputs, inputs.size(), [&](Tensor const& tensor) {
      return support::IsInMainMemory(tensor, first.data_type, first.layout) &&
             tensor.shape.extra.step_size == first.extra.step_size;
    });
  }

  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    std::uint64_t bytes = 0;
    for (std::size_t i = 0; i < inputs.size(); ++i) {
      bytes += runtime::ByteCount(support::Input(kName, inputs, i, support::kAnyRank, 1)->shape);
    }
    auto const y = support::NewOutput(kernel, inputs, context);
    // The output takes all but the channels from the first input, and others may be larger.
    if (bytes > runtime::ByteCount(y->shape)) {
      Refuse("%s: %zu inputs hold %zu bytes, the output %u", kName, inputs.size(), static_cast<std::size_t>(bytes),
             runtime::ByteCount(y->shape));
    }
    auto* to = y->Data<unsigned char>();
    for (auto const& input : inputs) {
      std::size_t const input_bytes = runtime::ByteCount(input->shape);
      if (input_bytes != 0) std::memcpy(to, input->data, input_bytes);
      to += input_bytes;
    }
    return support::Give(y, outputs);
  }

  int IsValidOutput(Tensors const& outputs) const override { return support::Judge(outputs, 1, HasChannelsOutermost); }
};

struct SliceOperation : JudgedInVain<runtime::TensorSliceInfo> {
  static constexpr char const* kName = "Slice_Fallback_CHW_Float_M1";
  using Info = runtime::TensorSliceInfo;

  int IsValidParam(LayerPtr const& layer, ParamPtr const& param) const override {
    if (Strict::IsValidParam(layer, param) == -1) return -1;
    std::vector<short> const& values = support::As<Info>(kName, layer).slice_dims;
    if (values.empty() || values.size() % 3 != 0) return -1;
    for (std::size_t at = 0; at < values.size(); at += 9) {  // every third triple
      int const a = values[at], b = values[at + 1], c = values[at + 2];
      if (a < 0 || b < 0 || a < b || c < 1 || b - a + 1 < c) return -1;
    }
    return 0;
  }

  bool Config(LayerPtr const& layer, ParamPtr const&, ContextPtr const&) override {
    auto const* const info = dynamic_cast<Info const*>(layer.get());
    if (info == nullptr) return false;
    layer_id = info->id;
    slice_dims = info->slice_dims;
    return true;
  }

  Shapes GetOutputShapes(Shapes const& shapes) const override {
    TensorShape const& shape = support::ShapeAt(Who(), shapes, 0);
    return support::OneShape(functional::SliceExtents(Who(), slice_dims), shape.data_type, shape.layout,
                             shape.location);
  }

  int IsValidInput(Tensors const& inputs) const override {
    return support::JudgeOneImage(inputs, TensorShape::FLOAT32);
  }

  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    auto const x = support::Input(Who(), inputs, 0, 3);
    auto const extents = functional::SliceExtents(Who(), slice_dims);
    // Before an output is made: the extents of a bad record may ask for gigabytes.
    for (std::size_t axis = 0; axis < extents.size(); ++axis) {
      if (extents[axis] > x->shape.dims[axis]) {
        Refuse("%s: extent %zu of the slice is %u, of the input %u", Who().Text().c_str(), axis, extents[axis],
               x->shape.dims[axis]);
      }
    }
    auto const y = support::NewOutput(kernel, inputs, context);
    functional::Slice(Who(), x, slice_dims, y);
    return support::Give(y, outputs);
  }

  int IsValidOutput(Tensors const& outputs) const override { return IsValidInput(outputs); }

  support::Who Who() const { return {kName, layer_id}; }

  std::string layer_id;
  std::vector<short> slice_dims;
};

struct ExpandOperation : JudgedInVain<runtime::TensorExpandInfo> {
  static constexpr char const* kName = "Expand_Fallback_CHW_Float_M1";
  using Info = runtime::TensorExpandInfo;

  int IsValidParam(LayerPtr const& layer, ParamPtr const& param) const override {
    if (Strict::IsValidParam(layer, param) == -1) return -1;
    std::vector<short> const& extents = support::As<Info>(kName, layer).new_shape;
    if (extents.empty() || extents[0] != 1) return -1;
    return std::count(extents.begin() + 1, extents.end(), -1) >= 3 ? -1 : 0;
  }

  bool Config(LayerPtr const& layer, ParamPtr const&, ContextPtr const&) override {
    auto const* const info = dynamic_cast<Info const*>(layer.get());
    if (info == nullptr) return false;
    layer_id = info->id;
    new_shape = info->new_shape;
    return true;
  }

  Shapes GetOutputShapes(Shapes const& shapes) const override {
    TensorShape expanded = support::ShapeAt(Who(), shapes, 0);
    if (new_shape.size() <= expanded.dims.size()) {
      Refuse("%s: new_shape holds %zu values, an input of dims %s needs %zu", Who().Text().c_str(), new_shape.size(),
             DimsText(expanded.dims).c_str(), expanded.dims.size() + 1);
    }
    for (std::size_t i = 0; i < expanded.dims.size(); ++i) {
      short const extent = new_shape[i + 1];
      bool const kept = extent < 0 || (i == 0 && extent != 0);
      if (!kept) expanded.dims[i] = static_cast<unsigned int>(extent);
    }
    return {expanded};
  }

  int IsValidInput(Tensors const& inputs) const override {
    return support::Judge(inputs, 1, [](Tensor const& tensor) {
      return IsFloatOrInt16(tensor) && tensor.shape.layout == TensorShape::CHW;
    });
  }

  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    auto const x = support::Input(Who(), inputs, 0, 3, 1);
    auto const y = support::NewOutput(kernel, inputs, context);
    functional::Function_TensorExpand_Fallback_CHW_Float_M1(x, y);
    return support::Give(y, outputs);
  }

  int IsValidOutput(Tensors const& outputs) const override { return IsValidInput(outputs); }

  support::Who Who() const { return {kName, layer_id}; }

  std::string layer_id;
  std::vector<short> new_shape;
};

struct UnSqueezeOperation : JudgedInVain<runtime::TensorUnSqueezeInfo> {
  static constexpr char const* kName = "UnSqueeze_Fallback_M1";

  bool Config(LayerPtr const& layer, ParamPtr const&, ContextPtr const&) override {
    auto const* const info = dynamic_cast<runtime::TensorUnSqueezeInfo const*>(layer.get());
    if (info == nullptr) return false;
    dim = info->dim;
    return true;
  }

  Shapes GetOutputShapes(Shapes const& shapes) const override {
    TensorShape shape = support::ShapeAt(kName, shapes, 0);
    auto const rank = static_cast<std::ptrdiff_t>(shape.dims.size());
    std::ptrdiff_t position = dim > 0 ? dim - 1 : dim;  // without the batch axis
    if (position > rank || position < -(rank + 1)) Refuse(nullptr);
    if (position < 0) position += rank + 1;
    shape.dims.insert(shape.dims.begin() + position, 1u);
    return {shape};
  }

  int IsValidInput(Tensors const& inputs) const override { return support::Judge(inputs, 1, IsFloatOrInt16); }

  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    support::NeedsConfig(kernel);
    auto const x = support::Input(kName, inputs, 0, support::kAnyRank, 1);
    auto const y = support::NewOutput(kernel, inputs, context);
    unsigned int const bytes = runtime::ByteCount(x->shape);
    if (bytes != 0) std::memcpy(y->data, x->data, bytes);
    return support::Give(y, outputs);
  }

  int IsValidOutput(Tensors const& outputs) const override { return IsValidInput(outputs); }

  short dim = 0;
};

struct SoftmaxOperation : support::Strict<runtime::SoftmaxInfo> {
  static constexpr char const* kName = "Softmax_Fallback_Float_M1";

  bool Config(LayerPtr const& layer, ParamPtr const&, ContextPtr const&) override {
    layer_id = layer->id;
    dim = support::As<runtime::SoftmaxInfo>(kName, layer).dim;
    return true;
  }

  int IsValidInput(Tensors const& inputs) const override {
    return support::JudgeFirst(
        inputs, [](Tensor const& tensor) { return support::IsInMainMemory(tensor, TensorShape::FLOAT32); });
  }

  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    support::Who const who = {kName, layer_id};
    auto const x = support::Input(who, inputs, 0);
    std::vector<unsigned int> const& dims = x->shape.dims;
    if (dim < 1 || dim > dims.size()) {
      Refuse("%s: dim is %u, an input of dims %s needs 1 to %zu", who.Text().c_str(), unsigned{dim},
             DimsText(dims).c_str(), dims.size());
    }
    auto const y = support::NewOutput(kernel, inputs, context);
    std::size_t inner = 1;
    for (std::size_t axis = dim; axis < dims.size(); ++axis) inner *= dims[axis];
    native::Softmax(x->Data<float>(), support::Count(*x), dims[dim - 1u], inner, y->Data<float>());
    return support::Give(y, outputs);
  }

  int IsValidOutput(Tensors const& outputs) const override { return IsValidInput(outputs); }

  std::string layer_id;
  unsigned short dim = 0;
};

template OperationPtr MakeOperation<InputOperation>();
template OperationPtr MakeOperation<StraightThroughOperation>();
template OperationPtr MakeOperation<PlaceholderOperation>();
template OperationPtr MakeOperation<ConcatenateOperation>();
template OperationPtr MakeOperation<ConcatenateChannelsOperation>();
template OperationPtr MakeOperation<SliceOperation>();
template OperationPtr MakeOperation<ExpandOperation>();
template OperationPtr MakeOperation<UnSqueezeOperation>();
template OperationPtr MakeOperation<SoftmaxOperation>();

}  // namespace talvo::kernel
