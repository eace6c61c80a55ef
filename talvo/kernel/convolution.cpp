#include "talvo/kernel/convolution.h"

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <limits>

#include "talvo/kernel/convolution_support.h"
#include "talvo/kernel/kernel_of_support.h"
#include "talvo/kernel/native/fill_support.h"
#include "talvo/serialization/layer_info_conv.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::kernel {

using runtime::TensorCPU;

namespace {

using Dims = std::vector<unsigned int>;
constexpr unsigned int kMost = std::numeric_limits<unsigned int>::max();

// What a convolution takes from its layer. One dimension is a row: kernel_y = stride_y = dilation_y = 1, no padding at
// the top and bottom. Channels that a division by the groups leaves over get no work.
struct ConvolutionFields {
  unsigned int kernel_x = 1, kernel_y = 1, stride_x = 1, stride_y = 1, dilation_x = 1, dilation_y = 1;
  unsigned int in_channels = 0, out_channels = 0, groups = 1;
  int padding_l = 0, padding_r = 0, padding_t = 0, padding_b = 0;
  bool if_bias = false;

  unsigned int InPerGroup() const { return in_channels / groups; }
  unsigned int OutPerGroup() const { return out_channels / groups; }
};

bool AnyZero(std::initializer_list<unsigned int> values) {
  return std::find(values.begin(), values.end(), 0u) != values.end();
}

// The fields that both records of two dimensions have.
template <class Info>
ConvolutionFields PlaneFields(Info const& info) {
  ConvolutionFields fields;
  fields.kernel_x = info.kernel_x, fields.kernel_y = info.kernel_y;
  fields.stride_x = info.stride_x, fields.stride_y = info.stride_y;
  fields.dilation_x = info.dilation_x, fields.dilation_y = info.dilation_y;
  fields.in_channels = info.in_channels, fields.out_channels = info.out_channels, fields.groups = info.groups;
  fields.padding_l = info.padding_l, fields.padding_r = info.padding_r;
  fields.padding_t = info.padding_t, fields.padding_b = info.padding_b;
  fields.if_bias = info.if_bias;
  return fields;
}

// One axis of a convolution. Borders are negative in the transposed form alone.
struct Axis {
  unsigned int extent, kernel, stride, dilation;
  int before, after;
};
Axis AxisX(ConvolutionFields const& f, unsigned int extent) {
  return {extent, f.kernel_x, f.stride_x, f.dilation_x, f.padding_l, f.padding_r};
}
Axis AxisY(ConvolutionFields const& f, unsigned int extent) {
  return {extent, f.kernel_y, f.stride_y, f.dilation_y, f.padding_t, f.padding_b};
}
unsigned int Borders(Axis const& axis) {
  return static_cast<unsigned int>(axis.before) + static_cast<unsigned int>(axis.after);
}

unsigned int DirectExtent(Axis const& axis) {
  return (axis.extent + Borders(axis) - axis.dilation * (axis.kernel - 1) - 1) / axis.stride + 1;
}
// Whether the window fits the padded input, which 32 bits count.
bool DirectFits(Axis const& axis) {
  std::int64_t const padded = std::int64_t{axis.extent} + axis.before + axis.after;
  return padded <= std::int64_t{kMost} && std::int64_t{axis.dilation} * (axis.kernel - 1) < padded;
}

unsigned int TransposedExtent(Axis const& axis) {
  return axis.stride * axis.extent + Borders(axis) - axis.dilation * (axis.kernel - 1);
}
bool TransposedFits(Axis const& axis) {
  std::int64_t const result = std::int64_t{axis.stride} * axis.extent + axis.before + axis.after -
                              std::int64_t{axis.dilation} * (axis.kernel - 1);
  return result >= 0 && result <= std::int64_t{kMost};
}

// Height and width of an input or output [channels, height, width], or [channels, length].
unsigned int Height(Dims const& dims) { return dims.size() == 3 ? dims[1] : 1; }
unsigned int Width(Dims const& dims) { return dims.back(); }

ConvolutionShape ShapeOf(ConvolutionFields const& f, Dims const& input, Dims const& output) {
  ConvolutionShape s{};
  s.groups = f.groups, s.in_per_group = f.InPerGroup(), s.out_per_group = f.OutPerGroup();
  s.kernel_y = f.kernel_y, s.stride_y = f.stride_y, s.dilation_y = f.dilation_y;
  s.kernel_x = f.kernel_x, s.stride_x = f.stride_x, s.dilation_x = f.dilation_x;
  s.in_height = Height(input), s.in_width = Width(input);
  s.out_height = Height(output), s.out_width = Width(output);
  s.top = f.padding_t, s.padded_height = Height(input) + Borders(AxisY(f, 0));
  s.left = f.padding_l, s.padded_width = Width(input) + Borders(AxisX(f, 0));
  return s;
}

// What the kernels have in common. An operation has besides: its record's fields, the weights' dims, the output's dims,
// whether an axis has an output, and what computes.
template <class Operation, class Info>
struct Convolution : support::Strict<Info> {
  int IsValidParam(LayerPtr const& layer, ParamPtr const& param) const override {
    auto const info = std::dynamic_pointer_cast<Info>(layer);
    if (param != nullptr || info == nullptr) return -1;
    ConvolutionFields const f = Operation::Fields(*info);
    return AnyZero({f.in_channels, f.out_channels, f.kernel_x, f.kernel_y, f.stride_x, f.stride_y, f.dilation_x,
                    f.dilation_y, f.groups})
               ? -1
               : 0;
  }

  bool Config(LayerPtr const& layer, ParamPtr const&, ContextPtr const& context) override {
    Info const& info = support::As<Info>(Operation::kName, layer);
    weight = bias = nullptr;  // the memory of an earlier layer's goes back first
    fields = Operation::Fields(info);
    layer_id = info.id;
    weight = support::DecodeWeights(Operation::kName, layer_id, "weight", info.weight, Operation::WeightDims(fields),
                                    Operation::kWeightLayout, context);
    weight = Operation::Keep(fields, weight, context);
    if (fields.if_bias) {
      bias = support::DecodeWeights(Operation::kName, layer_id, "bias", info.bias,
                                    {fields.groups, fields.OutPerGroup()}, TensorShape::GN, context);
    }
    return true;
  }

  Shapes GetOutputShapes(Shapes const& input_shapes) const override {
    TensorShape const& input = support::ShapeAt(Operation::kName, input_shapes, 0, Operation::kRank);
    return {TensorShape(Operation::OutputDims(fields, input.dims), input.data_type, input.layout, input.location,
                        TensorShape::Extra())};
  }

  int IsValidInput(Tensors const& inputs) const override { return Judge(inputs, fields.in_channels); }
  int IsValidOutput(Tensors const& outputs) const override { return Judge(outputs, fields.out_channels); }

  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    support::NeedsConfig(kernel);
    auto const input = support::Input(Self(), inputs, 0, Operation::kRank);
    CheckFit(*input);
    auto const output = support::NewOutput(kernel, inputs, context);
    FillWithoutWork(*output);
    if (fields.InPerGroup() > 0 && fields.OutPerGroup() > 0 && support::Count(*output) > 0) {
      Operation::kCompute(
          ShapeOf(fields, input->shape.dims, output->shape.dims),
          {input->template Data<float>(), weight->template Data<float>(), Bias(), output->template Data<float>()},
          *context->device_cpu);
    }
    outputs.assign(1, output);
    return 0;
  }

  // What a kernel keeps of its decoded weights.
  static support::TensorPtr Keep(ConvolutionFields const&, support::TensorPtr const& decoded, ContextPtr const&) {
    return decoded;
  }

  support::Who Self() const { return {Operation::kName, layer_id}; }
  float const* Bias() const { return bias == nullptr ? nullptr : bias->Data<float>(); }

  static int Judge(Tensors const& tensors, unsigned int channels) {
    return support::Judge(tensors, 1, [channels](runtime::Tensor const& tensor) {
      return support::IsInMainMemory(tensor, TensorShape::FLOAT32, Operation::kLayout) && !tensor.shape.dims.empty() &&
             tensor.shape.dims[0] == channels;
    });
  }

  // Refuses what the loops would read beyond its end, and what they cannot make a result of.
  void CheckFit(TensorCPU const& input) const {
    if (Operation::kPads) {
      support::Needs const needs = {sizeof(float), Operation::kRank, 0, TensorShape::FLOAT32, Operation::kLayout};
      support::CheckTensor(Self(), "input 0", &input, needs);
    }
    Dims const& dims = input.shape.dims;
    unsigned int const read = fields.groups * fields.InPerGroup(), made = fields.groups * fields.OutPerGroup();
    if (dims[0] < read) {
      Refuse("%s: input 0 has dims %s, needs %u channels", Self().Text().c_str(), DimsText(dims).c_str(), read);
    }
    for (Axis const& axis : {AxisY(fields, Height(dims)), AxisX(fields, Width(dims))}) {
      if (Operation::Fits(axis)) continue;
      Refuse("%s: an extent of %u with borders of %d and %d, kernel %u, stride %u, dilation %u has no output",
             Self().Text().c_str(), axis.extent, axis.before, axis.after, axis.kernel, axis.stride, axis.dilation);
    }
    if (fields.if_bias && made != fields.out_channels) {
      Refuse("%s: the bias has %u values, needs %u", Self().Text().c_str(), made, fields.out_channels);
    }
  }

  // The output channels to which no sum is added: the bias, or 0.
  void FillWithoutWork(TensorCPU const& output) const {
    std::size_t const plane = std::size_t{Height(output.shape.dims)} * Width(output.shape.dims);
    unsigned int const first = fields.InPerGroup() == 0 ? 0 : fields.groups * fields.OutPerGroup();
    for (unsigned int c = first; c < fields.out_channels; ++c) {
      native::FillFloats(bias == nullptr ? 0.0f : Bias()[c], plane, output.Data<float>() + c * plane);
    }
  }

  ConvolutionFields fields;
  std::string layer_id;
  support::TensorPtr weight, bias;
};

// The direct form of two dimensions.
template <class Operation>
struct DirectPlanes : Convolution<Operation, runtime::Conv2dInfo> {
  static constexpr unsigned int kLayout = TensorShape::CHW, kWeightLayout = TensorShape::GNCHW, kRank = 3;
  static constexpr bool kPads = true;  // a padded copy is made of floats of this layout in main memory alone
  static constexpr auto Fields = PlaneFields<runtime::Conv2dInfo>;
  static constexpr auto Fits = DirectFits;

  static Dims WeightDims(ConvolutionFields const& f) {
    return {f.groups, f.OutPerGroup(), f.InPerGroup(), f.kernel_y, f.kernel_x};
  }
  static Dims OutputDims(ConvolutionFields const& f, Dims const& dims) {
    return {f.out_channels, DirectExtent(AxisY(f, dims[1])), DirectExtent(AxisX(f, dims[2]))};
  }
};

// Of one dimension.
template <class Operation>
struct DirectRows : Convolution<Operation, runtime::Conv1dInfo> {
  static constexpr unsigned int kLayout = TensorShape::CL, kWeightLayout = TensorShape::GNCL, kRank = 2;
  static constexpr bool kPads = true;
  static constexpr auto Fits = DirectFits;

  static ConvolutionFields Fields(runtime::Conv1dInfo const& info) {
    ConvolutionFields fields;
    fields.kernel_x = info.kernel_size, fields.stride_x = info.stride, fields.dilation_x = info.dilation;
    fields.in_channels = info.in_channels, fields.out_channels = info.out_channels, fields.groups = info.groups;
    fields.padding_l = info.padding_f, fields.padding_r = info.padding_b;
    fields.if_bias = info.if_bias;
    return fields;
  }
  static Dims WeightDims(ConvolutionFields const& f) { return {f.groups, f.OutPerGroup(), f.InPerGroup(), f.kernel_x}; }
  static Dims OutputDims(ConvolutionFields const& f, Dims const& dims) {
    return {f.out_channels, DirectExtent(AxisX(f, dims[1]))};
  }
};

template <class Operation>
struct TransposedPlanes : Convolution<Operation, runtime::ConvTranspose2dInfo> {
  static constexpr unsigned int kLayout = TensorShape::CHW, kWeightLayout = TensorShape::GNCHW, kRank = 3;
  static constexpr bool kPads = false;  // the input is read as it lies
  static constexpr auto Fields = PlaneFields<runtime::ConvTranspose2dInfo>;
  static constexpr auto Fits = TransposedFits;

  static Dims WeightDims(ConvolutionFields const& f) {
    return {f.groups, f.InPerGroup(), f.OutPerGroup(), f.kernel_y, f.kernel_x};
  }
  static Dims OutputDims(ConvolutionFields const& f, Dims const& dims) {
    return {f.out_channels, TransposedExtent(AxisY(f, dims[1])), TransposedExtent(AxisX(f, dims[2]))};
  }
};

// Keeps the weights packed for fused steps, and drops those that were decoded.
template <auto kPack>
support::TensorPtr Packed(ConvolutionFields const& f, support::TensorPtr const& weight, ContextPtr const& context) {
  ConvolutionShape shape{};
  shape.groups = f.groups, shape.in_per_group = f.InPerGroup(), shape.out_per_group = f.OutPerGroup();
  shape.kernel_y = f.kernel_y, shape.kernel_x = f.kernel_x;
  TensorShape const kept({static_cast<unsigned int>(FusedConvolutionFloats(shape))}, TensorShape::FLOAT32,
                         TensorShape::FLEXIABLE, TensorShape::MainMemory, {});
  auto const packed = context->device_cpu->CreateTensor(kept, nullptr);
  kPack(shape, weight->Data<float>(), packed->template Data<float>());
  return packed;
}

}  // namespace

struct Conv2dOperation : DirectPlanes<Conv2dOperation> {
  static constexpr char const* kName = "Conv2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1";
  static constexpr auto kCompute = ConvolveDirect;
};
struct Conv1dOperation : DirectRows<Conv1dOperation> {
  static constexpr char const* kName = "Conv1D_Kn_Sn_Dn_Gn_Fallback_CL_Float_M1";
  static constexpr auto kCompute = ConvolveDirect;
};
struct ConvTranspose2dOperation : TransposedPlanes<ConvTranspose2dOperation> {
  static constexpr char const* kName = "ConvTranspose2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1";
  static constexpr auto kCompute = ConvolveTransposed;
};
struct FusedConv2dOperation : DirectPlanes<FusedConv2dOperation> {
  static constexpr char const* kName = "Conv2D_Knxm_Snxm_Dnxm_Gn_Fused_CHW_Float_M1";
  static constexpr auto kCompute = ConvolveFused;
  static constexpr auto Keep = Packed<PackFusedDirect>;
};
struct FusedConv1dOperation : DirectRows<FusedConv1dOperation> {
  static constexpr char const* kName = "Conv1D_Kn_Sn_Dn_Gn_Fused_CL_Float_M1";
  static constexpr auto kCompute = ConvolveFused;
  static constexpr auto Keep = Packed<PackFusedDirect>;
};
struct FusedConvTranspose2dOperation : TransposedPlanes<FusedConvTranspose2dOperation> {
  static constexpr char const* kName = "ConvTranspose2D_Knxm_Snxm_Dnxm_Gn_Fused_CHW_Float_M1";
  static constexpr auto kCompute = ConvolveTransposedFused;
  static constexpr auto Keep = Packed<PackFusedTransposed>;
};

template OperationPtr MakeOperation<Conv2dOperation>();
template OperationPtr MakeOperation<Conv1dOperation>();
template OperationPtr MakeOperation<ConvTranspose2dOperation>();
template OperationPtr MakeOperation<FusedConv2dOperation>();
template OperationPtr MakeOperation<FusedConv1dOperation>();
template OperationPtr MakeOperation<FusedConvTranspose2dOperation>();

}  // namespace talvo::kernel
