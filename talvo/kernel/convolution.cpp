#include "talvo/kernel/convolution.h"

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <optional>
#include <utility>

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

// What the kernels take from a record, whatever its class.
struct ConvolutionRecord {
  ConvolutionFields fields;
  std::string const *id, *weight, *bias;
};

// The record of a layer, or nothing for a layer of another class.
using ReadRecord = std::optional<ConvolutionRecord> (*)(runtime::LayerInfo const* layer);

// Both records of two dimensions have these fields.
template <class Info>
std::optional<ConvolutionRecord> ReadPlanes(runtime::LayerInfo const* layer) {
  auto const* const info = dynamic_cast<Info const*>(layer);
  if (info == nullptr) return std::nullopt;
  ConvolutionFields fields;
  fields.kernel_x = info->kernel_x, fields.kernel_y = info->kernel_y;
  fields.stride_x = info->stride_x, fields.stride_y = info->stride_y;
  fields.dilation_x = info->dilation_x, fields.dilation_y = info->dilation_y;
  fields.in_channels = info->in_channels, fields.out_channels = info->out_channels, fields.groups = info->groups;
  fields.padding_l = info->padding_l, fields.padding_r = info->padding_r;
  fields.padding_t = info->padding_t, fields.padding_b = info->padding_b;
  fields.if_bias = info->if_bias;
  return ConvolutionRecord{fields, &info->id, &info->weight, &info->bias};
}

std::optional<ConvolutionRecord> ReadRows(runtime::LayerInfo const* layer) {
  auto const* const info = dynamic_cast<runtime::Conv1dInfo const*>(layer);
  if (info == nullptr) return std::nullopt;
  ConvolutionFields fields;
  fields.kernel_x = info->kernel_size, fields.stride_x = info->stride, fields.dilation_x = info->dilation;
  fields.in_channels = info->in_channels, fields.out_channels = info->out_channels, fields.groups = info->groups;
  fields.padding_l = info->padding_f, fields.padding_r = info->padding_b;
  fields.if_bias = info->if_bias;
  return ConvolutionRecord{fields, &info->id, &info->weight, &info->bias};
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

// What a kernel reads, and what computes.
struct ConvolutionForm {
  ReadRecord read;
  bool transposed;
  std::size_t rank;  // 3 for planes, 2 for rows
  void (*compute)(ConvolutionShape const&, ConvolutionData const&, runtime::DeviceCPU&);
  void (*pack)(ConvolutionShape const&, float const* weights, float* packed);  // for fused steps; else null

  unsigned int Layout() const { return rank == 3 ? TensorShape::CHW : TensorShape::CL; }
  unsigned int WeightLayout() const { return rank == 3 ? TensorShape::GNCHW : TensorShape::GNCL; }
  bool Fits(Axis const& axis) const { return transposed ? TransposedFits(axis) : DirectFits(axis); }
  unsigned int Extent(Axis const& axis) const { return transposed ? TransposedExtent(axis) : DirectExtent(axis); }
};

struct Convolution : support::Strict<runtime::LayerInfo> {
  explicit Convolution(ConvolutionForm const& of) : form(of) {}

  int IsValidParam(LayerPtr const& layer, ParamPtr const& param) const override {
    auto const record = form.read(layer.get());
    if (param != nullptr || !record) return -1;
    ConvolutionFields const& f = record->fields;
    return AnyZero({f.in_channels, f.out_channels, f.kernel_x, f.kernel_y, f.stride_x, f.stride_y, f.dilation_x,
                    f.dilation_y, f.groups})
               ? -1
               : 0;
  }

  bool Config(LayerPtr const& layer, ParamPtr const&, ContextPtr const& context) override {
    auto const record = form.read(layer.get());
    if (!record) support::RefuseRecord(CName());
    weight = bias = nullptr;  // the memory of an earlier layer's goes back first
    fields = record->fields;
    layer_id = *record->id;
    weight = support::DecodeWeights(CName(), layer_id, "weight", *record->weight, WeightDims(), form.WeightLayout(),
                                    context);
    if (form.pack != nullptr) weight = Packed(*context->device_cpu);
    if (fields.if_bias) {
      bias = support::DecodeWeights(CName(), layer_id, "bias", *record->bias, {fields.groups, fields.OutPerGroup()},
                                    TensorShape::GN, context);
    }
    return true;
  }

  Dims WeightDims() const {
    Dims dims = {fields.groups, fields.OutPerGroup(), fields.InPerGroup(), fields.kernel_y, fields.kernel_x};
    if (form.transposed) std::swap(dims[1], dims[2]);
    if (form.rank == 2) dims.erase(dims.end() - 2);
    return dims;
  }

  // The weights packed for fused steps; those that were decoded are dropped.
  support::TensorPtr Packed(runtime::DeviceCPU& device) const {
    ConvolutionShape shape{};
    shape.groups = fields.groups, shape.in_per_group = fields.InPerGroup(), shape.out_per_group = fields.OutPerGroup();
    shape.kernel_y = fields.kernel_y, shape.kernel_x = fields.kernel_x;
    TensorShape const kept({static_cast<unsigned int>(FusedConvolutionFloats(shape))}, TensorShape::FLOAT32,
                           TensorShape::FLEXIABLE, TensorShape::MainMemory, {});
    auto packed = device.CreateTensor(kept, nullptr);
    form.pack(shape, weight->Data<float>(), packed->Data<float>());
    return packed;
  }

  Shapes GetOutputShapes(Shapes const& input_shapes) const override {
    TensorShape const& input = support::ShapeAt(CName(), input_shapes, 0, form.rank);
    Dims dims = input.dims;
    dims[0] = fields.out_channels;
    if (form.rank == 3) dims[1] = form.Extent(AxisY(fields, dims[1]));
    dims.back() = form.Extent(AxisX(fields, dims.back()));
    return support::OneShape(std::move(dims), input.data_type, input.layout, input.location);
  }

  int IsValidInput(Tensors const& inputs) const override { return Judge(inputs, fields.in_channels); }
  int IsValidOutput(Tensors const& outputs) const override { return Judge(outputs, fields.out_channels); }

  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    support::NeedsConfig(kernel);
    auto const input = support::Input(Self(), inputs, 0, form.rank);
    CheckFit(*input);
    auto const output = support::NewOutput(kernel, inputs, context);
    FillWithoutWork(*output);
    if (fields.InPerGroup() > 0 && fields.OutPerGroup() > 0 && support::Count(*output) > 0) {
      form.compute(ShapeOf(fields, input->shape.dims, output->shape.dims),
                   {input->Data<float>(), weight->Data<float>(), Bias(), output->Data<float>()}, *context->device_cpu);
    }
    return support::Give(output, outputs);
  }

  support::Who Self() const { return {CName(), layer_id}; }
  float const* Bias() const { return bias == nullptr ? nullptr : bias->Data<float>(); }

  int Judge(Tensors const& tensors, unsigned int channels) const {
    return support::Judge(tensors, 1, [layout = form.Layout(), channels](runtime::Tensor const& tensor) {
      return support::IsInMainMemory(tensor, TensorShape::FLOAT32, layout) && !tensor.shape.dims.empty() &&
             tensor.shape.dims[0] == channels;
    });
  }

  // Refuses what the loops would read beyond its end, and what they cannot make a result of.
  void CheckFit(TensorCPU const& input) const {
    if (!form.transposed) {  // a padded copy is made of floats of this layout in main memory alone
      support::Needs const needs = {sizeof(float), form.rank, 0, TensorShape::FLOAT32, form.Layout()};
      support::CheckTensor(Self(), "input 0", &input, needs);
    }
    Dims const& dims = input.shape.dims;
    unsigned int const read = fields.groups * fields.InPerGroup(), made = fields.groups * fields.OutPerGroup();
    if (dims[0] < read) {
      Refuse("%s: input 0 has dims %s, needs %u channels", Self().Text().c_str(), DimsText(dims).c_str(), read);
    }
    for (Axis const& axis : {AxisY(fields, Height(dims)), AxisX(fields, Width(dims))}) {
      if (form.Fits(axis)) continue;
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

  ConvolutionForm const form;
  ConvolutionFields fields;
  std::string layer_id;
  support::TensorPtr weight, bias;
};

}  // namespace

struct Conv2dOperation {
  using Body = Convolution;
  static constexpr char const* kName = "Conv2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1";
  static constexpr ConvolutionForm kForm = {ReadPlanes<runtime::Conv2dInfo>, false, 3, ConvolveDirect, nullptr};
};
struct Conv1dOperation {
  using Body = Convolution;
  static constexpr char const* kName = "Conv1D_Kn_Sn_Dn_Gn_Fallback_CL_Float_M1";
  static constexpr ConvolutionForm kForm = {ReadRows, false, 2, ConvolveDirect, nullptr};
};
struct ConvTranspose2dOperation {
  using Body = Convolution;
  static constexpr char const* kName = "ConvTranspose2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1";
  static constexpr ConvolutionForm kForm = {ReadPlanes<runtime::ConvTranspose2dInfo>, true, 3, ConvolveTransposed,
                                            nullptr};
};
struct FusedConv2dOperation {
  using Body = Convolution;
  static constexpr char const* kName = "Conv2D_Knxm_Snxm_Dnxm_Gn_Fused_CHW_Float_M1";
  static constexpr ConvolutionForm kForm = {ReadPlanes<runtime::Conv2dInfo>, false, 3, ConvolveFused, PackFusedDirect};
};
struct FusedConv1dOperation {
  using Body = Convolution;
  static constexpr char const* kName = "Conv1D_Kn_Sn_Dn_Gn_Fused_CL_Float_M1";
  static constexpr ConvolutionForm kForm = {ReadRows, false, 2, ConvolveFused, PackFusedDirect};
};
struct FusedConvTranspose2dOperation {
  using Body = Convolution;
  static constexpr char const* kName = "ConvTranspose2D_Knxm_Snxm_Dnxm_Gn_Fused_CHW_Float_M1";
  static constexpr ConvolutionForm kForm = {ReadPlanes<runtime::ConvTranspose2dInfo>, true, 3, ConvolveTransposedFused,
                                            PackFusedTransposed};
};

template OperationPtr MakeOperation<Conv2dOperation>();
template OperationPtr MakeOperation<Conv1dOperation>();
template OperationPtr MakeOperation<ConvTranspose2dOperation>();
template OperationPtr MakeOperation<FusedConv2dOperation>();
template OperationPtr MakeOperation<FusedConv1dOperation>();
template OperationPtr MakeOperation<FusedConvTranspose2dOperation>();

}  // namespace talvo::kernel
