#include "talvo/kernel/convolution.h"

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <limits>

#include "talvo/kernel/convolution_support.h"
#include "talvo/kernel/kernel_support.h"
#include "talvo/serialization/layer_info_conv.h"
#include "talvo/utility/log.h"

namespace talvo::kernel {

using runtime::DimsText;
using runtime::TensorCPU;
using runtime::TensorShape;
using utility::Assert;

namespace {

using Dims = std::vector<unsigned int>;
constexpr unsigned int kMost = std::numeric_limits<unsigned int>::max();

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
  Axis const y = AxisY(f, Height(input)), x = AxisX(f, Width(input));
  return {f.groups,
          f.in_per_group,
          f.out_per_group,
          f.kernel_y,
          f.kernel_x,
          f.stride_y,
          f.stride_x,
          f.dilation_y,
          f.dilation_x,
          y.extent,
          x.extent,
          Height(output),
          Width(output),
          f.padding_t,
          f.padding_l,
          y.extent + Borders(y),
          x.extent + Borders(x)};
}

}  // namespace

struct Conv2dStep {
  using Info = runtime::Conv2dInfo;
  static constexpr char const* kName = "Conv2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1";
  static constexpr unsigned int kLayout = TensorShape::CHW, kWeightLayout = TensorShape::GNCHW, kRank = 3;
  static constexpr bool kNeedsLayout = true;

  static ConvolutionFields Fields(Info const& info) { return PlaneFields(info); }
  static Dims WeightDims(ConvolutionFields const& f) {
    return {f.groups, f.out_per_group, f.in_per_group, f.kernel_y, f.kernel_x};
  }
  static Dims OutputDims(ConvolutionFields const& f, Dims const& dims) {
    return {f.out_channels, DirectExtent(AxisY(f, dims[1])), DirectExtent(AxisX(f, dims[2]))};
  }
  static bool Fits(Axis const& axis) { return DirectFits(axis); }
  static constexpr auto Compute = ConvolveDirect;
};

struct Conv1dStep {
  using Info = runtime::Conv1dInfo;
  static constexpr char const* kName = "Conv1D_Kn_Sn_Dn_Gn_Fallback_CL_Float_M1";
  static constexpr unsigned int kLayout = TensorShape::CL, kWeightLayout = TensorShape::GNCL, kRank = 2;
  static constexpr bool kNeedsLayout = true;

  static ConvolutionFields Fields(Info const& info) {
    ConvolutionFields fields;
    fields.kernel_x = info.kernel_size, fields.stride_x = info.stride, fields.dilation_x = info.dilation;
    fields.in_channels = info.in_channels, fields.out_channels = info.out_channels, fields.groups = info.groups;
    fields.padding_l = info.padding_f, fields.padding_r = info.padding_b;
    fields.if_bias = info.if_bias;
    return fields;
  }
  static Dims WeightDims(ConvolutionFields const& f) { return {f.groups, f.out_per_group, f.in_per_group, f.kernel_x}; }
  static Dims OutputDims(ConvolutionFields const& f, Dims const& dims) {
    return {f.out_channels, DirectExtent(AxisX(f, dims[1]))};
  }
  static bool Fits(Axis const& axis) { return DirectFits(axis); }
  static constexpr auto Compute = ConvolveDirect;
};

struct ConvTranspose2dStep {
  using Info = runtime::ConvTranspose2dInfo;
  static constexpr char const* kName = "ConvTranspose2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1";
  static constexpr unsigned int kLayout = TensorShape::CHW, kWeightLayout = TensorShape::GNCHW, kRank = 3;
  static constexpr bool kNeedsLayout = false;  // the input is read as it lies

  static ConvolutionFields Fields(Info const& info) { return PlaneFields(info); }
  static Dims WeightDims(ConvolutionFields const& f) {
    return {f.groups, f.in_per_group, f.out_per_group, f.kernel_y, f.kernel_x};
  }
  static Dims OutputDims(ConvolutionFields const& f, Dims const& dims) {
    return {f.out_channels, TransposedExtent(AxisY(f, dims[1])), TransposedExtent(AxisX(f, dims[2]))};
  }
  static bool Fits(Axis const& axis) { return TransposedFits(axis); }
  static constexpr auto Compute = ConvolveTransposed;
};

template <class Step>
std::string DirectConvolution<Step>::GetName() const {
  return Step::kName;
}

template <class Step>
int DirectConvolution<Step>::IsValidParam(std::shared_ptr<runtime::LayerInfo> layer,
                                          std::shared_ptr<runtime::InferenceParam> param) const {
  auto const info = std::dynamic_pointer_cast<typename Step::Info>(layer);
  if (param != nullptr || info == nullptr) return -1;
  ConvolutionFields const f = Step::Fields(*info);
  return AnyZero({f.in_channels, f.out_channels, f.kernel_x, f.kernel_y, f.stride_x, f.stride_y, f.dilation_x,
                  f.dilation_y, f.groups})
             ? -1
             : 0;
}

template <class Step>
bool DirectConvolution<Step>::Config(std::shared_ptr<runtime::LayerInfo> layer,
                                     std::shared_ptr<runtime::InferenceParam> param,
                                     std::shared_ptr<runtime::Context> context) {
  configured_ = false;
  if (IsValidParam(layer, param) == -1) return false;
  auto const& info = static_cast<typename Step::Info const&>(*layer);
  weight_ = bias_ = nullptr;  // those of an earlier layer do not fit the new fields
  fields_ = Step::Fields(info);
  fields_.in_per_group = fields_.in_channels / fields_.groups;
  fields_.out_per_group = fields_.out_channels / fields_.groups;
  layer_id_ = info.id;
  weight_ = support::DecodeWeights(*this, layer_id_, "weight", info.weight, Step::WeightDims(fields_),
                                   Step::kWeightLayout, context);
  if (fields_.if_bias) {
    bias_ = support::DecodeWeights(*this, layer_id_, "bias", info.bias, {fields_.groups, fields_.out_per_group},
                                   TensorShape::GN, context);
  }
  configured_ = true;
  return true;
}

template <class Step>
bool DirectConvolution<Step>::IsConfigured() const {
  return configured_;
}

template <class Step>
std::vector<TensorShape> DirectConvolution<Step>::GetOutputShapes(std::vector<TensorShape> const& input_shapes) const {
  TensorShape const& input = support::ShapeAt(*this, input_shapes, 0, Step::kRank);
  return {TensorShape(Step::OutputDims(fields_, input.dims), input.data_type, input.layout, input.location,
                      TensorShape::Extra())};
}

template <class Step>
int DirectConvolution<Step>::IsValidInput(std::vector<std::shared_ptr<runtime::Tensor>> const& inputs) const {
  return support::Judge(inputs, 1, [this](runtime::Tensor const& tensor) {
    return support::IsInMainMemory(tensor, TensorShape::FLOAT32, Step::kLayout) && !tensor.shape.dims.empty() &&
           tensor.shape.dims[0] == fields_.in_channels;
  });
}

template <class Step>
int DirectConvolution<Step>::IsValidOutput(std::vector<std::shared_ptr<runtime::Tensor>> const& outputs) const {
  return support::Judge(outputs, 1, [this](runtime::Tensor const& tensor) {
    return support::IsInMainMemory(tensor, TensorShape::FLOAT32, Step::kLayout) && !tensor.shape.dims.empty() &&
           tensor.shape.dims[0] == fields_.out_channels;
  });
}

// Refuses what the loops would read beyond its end, and what they cannot make a result of.
template <class Step>
void DirectConvolution<Step>::CheckInput(TensorCPU const& input) const {
  TensorShape const& shape = input.shape;
  std::string const who = std::string(Step::kName) + " of layer " + layer_id_;
  Assert(weight_ != nullptr, "%s: no layer is configured", Step::kName);
  bool const typed = Step::kNeedsLayout ? support::IsInMainMemory(input, TensorShape::FLOAT32, Step::kLayout)
                                        : shape.data_type == TensorShape::FLOAT32;
  Assert(typed && shape.dims[0] == fields_.in_channels,
         "%s: the input has data type %u, layout %u, location %u, dims %s; needs FLOAT32, layout %u and %u channels",
         who.c_str(), shape.data_type, shape.layout, shape.location, DimsText(shape.dims).c_str(), Step::kLayout,
         fields_.in_channels);
  for (Axis const& axis : {AxisY(fields_, Height(shape.dims)), AxisX(fields_, Width(shape.dims))}) {
    Assert(Step::Fits(axis),
           "%s: an extent of %u with borders of %d and %d, kernel %u, stride %u, dilation %u has no "
           "output",
           who.c_str(), axis.extent, axis.before, axis.after, axis.kernel, axis.stride, axis.dilation);
  }
  unsigned int const worked = fields_.groups * fields_.out_per_group;
  Assert(!fields_.if_bias || worked == fields_.out_channels, "%s: the bias has %u values, needs %u", who.c_str(),
         worked, fields_.out_channels);
}

// The output channels to which no sum is added: the bias, or 0.
template <class Step>
void DirectConvolution<Step>::FillWithoutWork(TensorCPU const& output) const {
  std::size_t const plane = std::size_t{Height(output.shape.dims)} * Width(output.shape.dims);
  unsigned int const first = fields_.in_per_group == 0 ? 0 : fields_.groups * fields_.out_per_group;
  for (unsigned int c = first; c < fields_.out_channels; ++c) {
    std::fill_n(output.Data<float>() + c * plane, plane, bias_ == nullptr ? 0.0f : bias_->Data<float>()[c]);
  }
}

template <class Step>
int DirectConvolution<Step>::Forward(std::vector<std::shared_ptr<runtime::Tensor>> const& inputs,
                                     std::vector<std::shared_ptr<runtime::Tensor>>& outputs,
                                     std::shared_ptr<runtime::Context> context) const {
  auto const input = support::Input(*this, inputs, 0, Step::kRank);
  CheckInput(*input);
  auto const output = support::NewOutput(*this, inputs, context);
  FillWithoutWork(*output);
  bool const work = fields_.in_per_group > 0 && fields_.out_per_group > 0 && support::Count(*output) > 0;
  if (work) {
    float const* const bias = bias_ == nullptr ? nullptr : bias_->Data<float>();
    Step::Compute(ShapeOf(fields_, input->shape.dims, output->shape.dims),
                  {input->template Data<float>(), weight_->Data<float>(), bias, output->template Data<float>()}, *context->device_cpu);
  }
  outputs.assign(1, output);
  return 0;
}

template class DirectConvolution<Conv2dStep>;
template class DirectConvolution<Conv1dStep>;
template class DirectConvolution<ConvTranspose2dStep>;

}  // namespace talvo::kernel
