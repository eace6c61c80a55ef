// A drawn layer for each kernel. A registered kernel whose name begins with none of the lines below is refused.
#include <algorithm>
#include <numeric>

#include "certificate/layers.h"
#include "talvo/entry/register_extra_operators.h"
#include "talvo/entry/register_fused_operators.h"
#include "talvo/entry/register_operators.h"
#include "talvo/kernel/quantisation.h"
#include "talvo/kernel/recurrent.h"
#include "talvo/kernel/resampling.h"
#include "talvo/serialization/layer_info_activation.h"
#include "talvo/serialization/layer_info_conv.h"
#include "talvo/serialization/layer_info_plane.h"
#include "talvo/serialization/layer_info_rnn.h"
#include "talvo/serialization/layer_info_tensor.h"

namespace talvo::certificate {
namespace {

using namespace runtime;

constexpr unsigned int kCases = 48;

unsigned short Small(unsigned int value) { return static_cast<unsigned short>(value); }

Layer Activation(Draw& d) {
  auto const r = std::make_shared<ActivationInfo>();
  r->activation_alpha = d.Half(), r->activation_beta = d.Half();
  r->weight = d.Weights(1);
  unsigned int const channels = d.From(1, 3);
  return {r, {d.Tensor(d.Plane(channels), TensorShape::CHW)}};
}

Layer ChannelSlopes(Draw& d) {
  auto const r = std::make_shared<ActivationInfo>();
  unsigned int const channels = d.From(1, 9);
  r->num_parameters = static_cast<short>(channels), r->weight = d.Weights(channels);
  return {r, {d.Tensor(d.Plane(channels), TensorShape::CHW)}};
}

Layer Clip(Draw& d) {
  auto const r = std::make_shared<ClipInfo>();
  r->minimum_value = d.Half(), r->maximum_value = d.Half();
  return {r, {d.Tensor(d.Plane(2), TensorShape::CHW)}};
}

Layer Hand(Draw& d) { return {std::make_shared<InputInfo>(), {d.Tensor(d.Plane(2), TensorShape::CHW)}}; }

Layer Placeholder(Draw& d) {
  auto const r = std::make_shared<LayerPlaceholderInfo>();
  for (int axis = 0; axis < 3; ++axis) r->output_shape.push_back(Small(d.From(1, 9)));
  return {r, {d.Tensor({1, 1, 1}, TensorShape::CHW)}};
}

// Channels by groups: one group, a few, or one for each channel.
template <class Info>
void DrawGroups(Draw& d, Info& r) {
  r.groups = Small(d.Of({1u, 1u, 2u, 3u, 8u, 17u}));
  r.in_channels = Small(r.groups * (r.groups > 3 ? 1 : d.From(1, 10)));
  r.out_channels = Small(r.groups * (r.groups > 3 ? d.From(1, 2) : d.From(1, 20)));
  r.if_bias = d.Coin();
  if (r.if_bias) r.bias = d.Weights(r.out_channels);
}

template <class Info>
void DrawTaps(Draw& d, Info& r) {
  unsigned int const square = d.Of({1u, 3u, 3u, 5u, 0u});
  r.kernel_y = Small(square != 0 ? square : d.From(1, 7)), r.kernel_x = Small(square != 0 ? square : d.From(1, 7));
  r.stride_y = Small(d.Of({1u, 1u, 2u, 3u})), r.stride_x = d.Coin() ? r.stride_y : Small(d.From(1, 3));
  r.dilation_y = Small(d.Of({1u, 1u, 1u, 2u})), r.dilation_x = d.Coin() ? r.dilation_y : Small(d.From(1, 2));
  r.weight = d.Weights(std::size_t{r.in_channels} * r.out_channels / r.groups * r.kernel_y * r.kernel_x);
}

// An extent that holds a window of `taps`, and something more.
unsigned int Holding(Draw& d, unsigned int taps, unsigned int dilation, int paddings, unsigned int more) {
  int const least = std::max(1, static_cast<int>((taps - 1) * dilation) + 1 - paddings);
  return static_cast<unsigned int>(least) + d.Below(more);
}

Layer Convolution(Draw& d) {
  auto const r = std::make_shared<Conv2dInfo>();
  DrawGroups(d, *r);
  DrawTaps(d, *r);
  for (auto* const padding : {&r->padding_t, &r->padding_b, &r->padding_l, &r->padding_r}) *padding = Small(d.Below(3));
  unsigned int const h = Holding(d, r->kernel_y, r->dilation_y, r->padding_t + r->padding_b, 12);
  unsigned int const w = Holding(d, r->kernel_x, r->dilation_x, r->padding_l + r->padding_r, 40);
  return {r, {d.Tensor({r->in_channels, h, w}, TensorShape::CHW)}};
}

Layer Pointwise(Draw& d) {
  auto const r = std::make_shared<Conv2dInfo>();
  r->in_channels = Small(d.From(1, 20)), r->out_channels = Small(d.From(1, 20));
  r->kernel_x = r->kernel_y = 1;
  r->if_bias = true, r->bias = d.Weights(r->out_channels);
  r->weight = d.Weights(std::size_t{r->in_channels} * r->out_channels);
  return {r, {d.Tensor(d.Plane(r->in_channels), TensorShape::CHW)}};
}

Layer Transposed(Draw& d) {
  auto const r = std::make_shared<ConvTranspose2dInfo>();
  DrawGroups(d, *r);
  DrawTaps(d, *r);
  auto const border = [&](unsigned int taps, unsigned int dilation) {  // from nothing to the whole reach of the window
    return static_cast<short>(d.Below((taps - 1) * dilation + 2));
  };
  r->padding_t = border(r->kernel_y, r->dilation_y), r->padding_b = border(r->kernel_y, r->dilation_y);
  r->padding_l = border(r->kernel_x, r->dilation_x), r->padding_r = border(r->kernel_x, r->dilation_x);
  unsigned int const h = Holding(d, r->kernel_y, r->dilation_y, 0, 8);
  unsigned int const w = Holding(d, r->kernel_x, r->dilation_x, 0, 24);
  return {r, {d.Tensor({r->in_channels, h, w}, TensorShape::CHW)}};
}

Layer RowConvolution(Draw& d) {
  auto const r = std::make_shared<Conv1dInfo>();
  DrawGroups(d, *r);
  r->kernel_size = Small(d.From(1, 7)), r->stride = Small(d.From(1, 3)), r->dilation = Small(d.From(1, 2));
  r->padding_f = Small(d.Below(4)), r->padding_b = Small(d.Below(4));
  r->weight = d.Weights(std::size_t{r->in_channels} * r->out_channels / r->groups * r->kernel_size);
  unsigned int const length = Holding(d, r->kernel_size, r->dilation, r->padding_f + r->padding_b, 60);
  return {r, {d.Tensor({r->in_channels, length}, TensorShape::CL)}};
}

template <bool kRows>
Layer FullConnection(Draw& d) {
  auto const r = std::make_shared<FullConnectionInfo>();
  r->in_features = Small(d.From(1, 80)), r->out_features = Small(d.Width());
  r->if_bias = d.Coin();
  if (r->if_bias) r->bias = d.Weights(r->out_features);
  r->weight = d.Weights(std::size_t{r->in_features} * r->out_features);
  Dims const dims = kRows ? Dims{d.From(1, 9), r->in_features} : Dims{r->in_features};
  return {r, {d.Tensor(dims, kRows ? TensorShape::SC : TensorShape::C)}};
}

template <class Info>
Layer Pooling(Draw& d) {
  auto const r = std::make_shared<Info>();
  r->kernel_y = Small(d.From(1, 5)), r->kernel_x = Small(d.From(1, 5));
  r->stride_y = Small(d.From(1, 3)), r->stride_x = Small(d.From(1, 3));
  unsigned int dilation = 1;
  if constexpr (std::is_same_v<Info, MaxPool2dInfo>) r->dilation_y = r->dilation_x = Small(dilation = d.From(1, 2));
  if constexpr (std::is_same_v<Info, AvgPool2dInfo>) r->count_include_pad = d.Coin();
  for (auto* padding : {&r->padding_t, &r->padding_b, &r->padding_l, &r->padding_r})
    *padding = static_cast<short>(d.Below(3));
  r->ceil_mode = d.Coin();
  unsigned int const h = Holding(d, r->kernel_y, dilation, r->padding_t + r->padding_b, 10);
  unsigned int const w = Holding(d, r->kernel_x, dilation, r->padding_l + r->padding_r, 40);
  return {r, {d.Tensor({d.From(1, 4), h, w}, TensorShape::CHW)}};
}

Layer AdaptivePooling(Draw& d) {
  auto const r = std::make_shared<AdaptiveAvgPool2dInfo>();
  r->output_size = {Small(d.From(1, 9)), Small(d.From(1, 9))};
  return {r, {d.Tensor(d.Plane(3), TensorShape::CHW)}};
}

Layer Elementwise(Draw& d) {
  auto const r = std::make_shared<ElementWiseOperatorInfo>();
  r->op_type = Small(d.Below(4));
  Dims const dims = d.Plane(3);
  return {r, {d.Tensor(dims, TensorShape::CHW), d.Tensor(dims, TensorShape::CHW)}};
}

Layer Broadcast(Draw& d) {
  auto const r = std::make_shared<BroadcastOperatorInfo>();
  r->op_type = Small(d.Below(6));
  Dims a = d.Plane(3), b = a;
  for (unsigned int& extent : a) extent = d.Below(4) == 0 ? 1 : extent;
  for (unsigned int& extent : b) extent = d.Below(3) == 0 ? 1 : extent;
  if (d.Coin()) b.erase(b.begin(), b.begin() + d.Below(3));
  return {r, {d.Tensor(a, TensorShape::CHW), d.Tensor(b, TensorShape::FLEXIABLE)}};
}

Layer MatrixProduct(Draw& d) {
  unsigned int const m = d.From(1, 12), k = d.From(1, 40), n = d.Width(), batch = d.From(1, 3);
  bool const turns = d.Coin();
  auto const r = std::make_shared<GemmInfo>();
  if (turns) r->trans_a = d.Coin(), r->trans_b = d.Coin(), r->alpha = d.Unit();
  Dims a = r->trans_a ? Dims{batch, k, m} : Dims{batch, m, k}, b = r->trans_b ? Dims{batch, n, k} : Dims{batch, k, n};
  if (unsigned int const single = d.Below(3); single != 0) (single == 1 ? a : b).erase((single == 1 ? a : b).begin());
  std::shared_ptr<LayerInfo> record = r;
  if (!turns) record = std::make_shared<BroadcastOperatorInfo>();
  return {record, {d.Tensor(a, TensorShape::FLEXIABLE), d.Tensor(b, TensorShape::FLEXIABLE)}};
}

Layer Concatenate(Draw& d) {
  auto const r = std::make_shared<ConcatenateInfo>();
  r->dim = Small(d.Below(3));
  Layer layer{r, {}};
  Dims dims = d.Plane(3);
  for (unsigned int inputs = d.From(2, 4); inputs != 0; --inputs) {
    dims[r->dim] = d.From(1, 9);
    layer.inputs.push_back(d.Tensor(dims, TensorShape::FLEXIABLE, TensorShape::INT16));
  }
  return layer;
}

Layer ConcatenateChannels(Draw& d) {
  auto const r = std::make_shared<ConcatenateInfo>();
  r->dim = 1;
  Layer layer{r, {}};
  Dims dims = d.Plane(1);
  bool const blocked = d.Coin();
  if (blocked) dims.push_back(4);
  for (unsigned int inputs = d.From(2, 4); inputs != 0; --inputs) {
    dims[0] = d.From(1, 5);
    layer.inputs.push_back(d.Tensor(dims, blocked ? TensorShape::C4HW4 : TensorShape::CHW));
  }
  return layer;
}

std::shared_ptr<TensorReshapeInfo> NewShape(Draw& d, Dims const& dims) {
  auto const r = std::make_shared<TensorReshapeInfo>();
  r->new_shape = {1};
  for (unsigned int const extent : dims) r->new_shape.push_back(static_cast<short>(extent));
  if (d.Coin()) r->new_shape.back() = -1;
  return r;
}

// A plane or, where channels are to be taken apart, blocks of them, to a shape of `kRank` axes.
template <std::size_t kRank, bool kUnblocks>
Layer Reshape(Draw& d) {
  unsigned int const lanes = kUnblocks ? d.Of({1u, 4u, 8u}) : 1;
  Dims dims = d.Plane(d.From(1, 6));
  unsigned int const c = dims[0] * lanes, h = dims[1], w = dims[2];
  auto const r = NewShape(d, kRank == 1 ? Dims{c * h * w} : kRank == 2 ? Dims{c, h * w} : Dims{w, c, h});
  if (lanes != 1) dims.push_back(lanes);
  auto const layout = lanes == 1 ? TensorShape::CHW : lanes == 4 ? TensorShape::C4HW4 : TensorShape::C8HW8;
  return {r, {d.Tensor(dims, layout)}};
}

Layer RowsToPlanes(Draw& d) {
  Dims const dims = d.Plane(d.From(1, 6));
  return {NewShape(d, dims), {d.Tensor({dims[0], dims[1] * dims[2]}, TensorShape::CL)}};
}

Layer Permute(Draw& d) {
  auto const r = std::make_shared<TensorTransposeInfo>();
  r->axes = {1, 2, 3};
  for (unsigned int last = 2; last != 0; --last) std::swap(r->axes[last], r->axes[d.Below(last + 1)]);
  r->axes.insert(r->axes.begin(), 0);
  Dims const dims = d.Plane(d.From(1, 20));
  return {r, {d.Tensor(dims, TensorShape::CHW, d.Of({0u, 1u, 7u}))}};
}

Layer Expand(Draw& d) {
  auto const r = std::make_shared<TensorExpandInfo>();
  r->new_shape = {1};
  for (unsigned int const extent : d.Plane(d.From(1, 9))) r->new_shape.push_back(static_cast<short>(extent));
  return {r, {d.Tensor({static_cast<unsigned int>(r->new_shape[1]), 1, 1}, TensorShape::CHW)}};
}

Layer Reduce(Draw& d) {
  auto const r = std::make_shared<TensorArithmeticInfo>();
  r->arith_type = Small(d.Below(2));
  unsigned int const chosen = d.From(1, 7);
  for (unsigned int axis = 0; axis < 3; ++axis)
    if ((chosen >> axis & 1) != 0) r->dim.push_back(static_cast<short>(axis + 1));
  return {r, {d.Tensor(d.Plane(d.From(1, 9)), TensorShape::CHW)}};
}

Layer UnSqueeze(Draw& d) {
  auto const r = std::make_shared<TensorUnSqueezeInfo>();
  r->dim = static_cast<short>(static_cast<int>(d.From(0, 8)) - 4);
  return {r, {d.Tensor(d.Plane(2), TensorShape::CHW)}};
}

Layer Slice(Draw& d) {
  auto const r = std::make_shared<TensorSliceInfo>();
  Dims const dims = d.Plane(d.From(1, 9));
  for (unsigned int const extent : dims) {
    unsigned int const begin = d.Below(extent), step = d.From(1, 3), picked = d.From(0, (extent - begin) / step);
    for (unsigned int const number : {begin, begin + picked * step, step})
      r->slice_dims.push_back(static_cast<short>(number));
  }
  return {r, {d.Tensor(dims, TensorShape::CHW)}};
}

Layer Softmax(Draw& d) {
  auto const r = std::make_shared<SoftmaxInfo>();
  r->dim = Small(d.From(1, 3));
  return {r, {d.Tensor(d.Plane(d.From(1, 9)), TensorShape::CHW)}};
}

template <unsigned int kType>
Layer Upsample(Draw& d) {
  auto const r = std::make_shared<Upsample2dInfo>();
  r->scale_factor_y = d.Of({0.5f, 1.0f, 1.5f, 2.0f, 2.25f, 3.0f}),
  r->scale_factor_x = d.Of({0.75f, 1.0f, 2.0f, 2.5f, 4.0f});
  r->unsample_type = Small(d.Below(2)), r->align_corner = d.Coin();
  Layer layer{r, {d.Tensor(d.Plane(d.From(1, 4)), TensorShape::CHW, kType, kType == TensorShape::FLOAT32 ? 0 : 9)}};
  if (kType == TensorShape::INT16) layer.param = std::make_shared<InferenceParamUpsampling2DQuant>();
  return layer;
}

template <unsigned int kType>
Layer PixelShuffle(Draw& d) {
  auto const r = std::make_shared<PixelShuffleInfo>();
  r->upscale_factor = d.Of({1.0f, 2.0f, 3.0f, 4.0f, 0.5f, 0.25f});
  unsigned int const square = static_cast<unsigned int>(std::max(1.0f, r->upscale_factor * r->upscale_factor));
  Dims dims = d.Plane(square * d.From(1, 3));
  dims[1] += 3, dims[2] += 3;
  return {r, {d.Tensor(dims, TensorShape::CHW, kType)}};
}

Layer GridSample(Draw& d) {
  auto const r = std::make_shared<GridSampleInfo>();
  r->mode = Small(d.Below(2)), r->padding_mode = Small(d.Below(2)), r->align_corners = d.Coin();
  auto const planes = d.Tensor(d.Plane(d.From(1, 5)), TensorShape::CHW);
  unsigned int const height = d.From(1, 9), width = d.Width();
  return {r, {planes, d.Tensor({height, width, 2}, TensorShape::FLEXIABLE)}};
}

template <class Info>
void DrawCellSizes(Draw& d, Info& r) {
  r.in_size = Small(d.From(1, 20)), r.hidden_size = Small(d.Of({1u, 3u, 4u, 7u, 8u, 9u, 17u, 33u}));
  r.if_bias = d.Coin();
  if constexpr (std::is_same_v<Info, RNNCellInfo> || std::is_same_v<Info, RNNInfo>)
    r.activation_type = Small(d.Of({5u, 2u}));
}

template <class Info, unsigned int kGates>
Layer Cell(Draw& d) {
  auto const r = std::make_shared<Info>();
  DrawCellSizes(d, *r);
  std::size_t const rows = std::size_t{kGates} * r->hidden_size;
  r->weight_ih = d.Weights(rows * r->in_size), r->weight_hh = d.Weights(rows * r->hidden_size);
  r->bias_ih = d.Weights(rows), r->bias_hh = d.Weights(rows);
  Layer layer{r, {d.Tensor({r->in_size}, TensorShape::C)}};
  layer.runs = 3;
  return layer;
}

template <class Info, unsigned int kGates>
Layer Sequence(Draw& d) {
  auto const r = std::make_shared<Info>();
  DrawCellSizes(d, *r);
  r->num_layers = Small(d.From(1, 2)), r->bidirectional = d.Coin();
  std::size_t const rows = std::size_t{kGates} * r->hidden_size;
  for (unsigned int layer = 0; layer < r->num_layers; ++layer) {
    std::size_t const columns = layer == 0 ? r->in_size : r->hidden_size * (r->bidirectional ? 2u : 1u);
    r->weight_ih_forward.push_back(d.Weights(rows * columns)),
        r->weight_ih_reverse.push_back(d.Weights(rows * columns));
    for (auto* const weights : {&r->weight_hh_forward, &r->weight_hh_reverse})
      weights->push_back(d.Weights(rows * r->hidden_size));
    for (auto* const biases : {&r->bias_ih_forward, &r->bias_hh_forward, &r->bias_ih_reverse, &r->bias_hh_reverse})
      biases->push_back(d.Weights(rows));
  }
  Layer layer{r, {d.Tensor({d.From(1, 7), r->in_size}, TensorShape::SC)}};
  layer.runs = 2;
  return layer;
}

// To fixed point and back, whose kernels stand between layers.
template <unsigned int kType>
Layer Converter(Draw& d) {
  bool const quantises = kType == TensorShape::FLOAT32;
  auto const step = static_cast<short>(d.From(8, 12));
  Layer layer{nullptr, {d.Tensor(d.Plane(3), TensorShape::CHW, kType, quantises ? short{0} : step)}};
  auto const param = std::make_shared<InferenceParamActQuant>();
  param->output_step_size = step;
  if (quantises) layer.param = param;
  return layer;
}

struct Line {
  char const* starts;  // of the names of the kernels, each with a blank before it
  LayerMaker make;
};

// The first line with a beginning that fits is taken.
constexpr Line kLines[] = {
    {" Input_ Straight_Through_", Hand},
    {" LayerPlaceholder_", Placeholder},
    {" ReLU_ ReLU6_ Sigmoid_ TanH_ HSigmoid_ HSwish_ Leaky_ Linear_ PReLU_ Sqrt_ Log_ Erf_", Activation},
    {" Clip_", Clip},
    {" PReLUChannel_", ChannelSlopes},
    {" ConvTranspose2D_", Transposed},
    {" Conv2D_", Convolution},
    {" Conv2d_", Pointwise},
    {" Conv1D_", RowConvolution},
    {" FullConnection_Fallback_SC_", FullConnection<true>},
    {" FullConnection_", FullConnection<false>},
    {" MatMul_", MatrixProduct},
    {" AdaptivePooling2D_", AdaptivePooling},
    {" Pooling2D_Avg_", Pooling<AvgPool2dInfo>},
    {" Pooling2D_Max_", Pooling<MaxPool2dInfo>},
    {" Elementwise_", Elementwise},
    {" BroadcastOperator_", Broadcast},
    {" Concatenate_C_", ConcatenateChannels},
    {" Concatenate_", Concatenate},
    {" Reshape_Fallback_CnHWn_To_C_", Reshape<1, true>},
    {" Reshape_Fallback_CnHWn_To_CL_", Reshape<2, true>},
    {" Reshape_Fallback_CL_To_CHW_", RowsToPlanes},
    {" Reshape_Fallback_To_C_", Reshape<1, false>},
    {" Reshape_Fallback_To_SC_", Reshape<2, false>},
    {" Reshape_Fallback_To_CHW_ Transform_MainMemory_Reshape_", Reshape<3, false>},
    {" Transform_MainMemory_Permute_", Permute},
    {" Expand_", Expand},
    {" TensorArithmetic_", Reduce},
    {" UnSqueeze_", UnSqueeze},
    {" Slice_", Slice},
    {" Softmax_", Softmax},
    {" Upsampling2D_Fallback_CHW_Int16_", Upsample<TensorShape::INT16>},
    {" Upsampling2D_", Upsample<TensorShape::FLOAT32>},
    {" Pixelshuffle_Fallback_CHW_Int16_", PixelShuffle<TensorShape::INT16>},
    {" Pixelshuffle_", PixelShuffle<TensorShape::FLOAT32>},
    {" GridSample_", GridSample},
    {" RNNCell_", Cell<RNNCellInfo, 1>},
    {" LSTMCell_", Cell<LSTMCellInfo, 4>},
    {" GRUCell_", Cell<GRUCellInfo, 3>},
    {" RNN_", Sequence<RNNInfo, 1>},
    {" LSTM_", Sequence<LSTMInfo, 4>},
    {" GRU_ GRUResetBefore_", Sequence<GRUInfo, 3>},
    {" Quantitation_", Converter<TensorShape::FLOAT32>},
    {" Dequantitation_MainMemory_Int16_", Converter<TensorShape::INT16>},
    {" Dequantitation_MainMemory_Int8_", Converter<TensorShape::INT8>}};

bool Begins(std::string const& kernel, std::string const& starts) {
  for (std::size_t blank = 0; blank < starts.size();) {
    std::size_t const next = std::min(starts.find(' ', blank + 1), starts.size());
    if (kernel.compare(0, next - blank - 1, starts, blank + 1, next - blank - 1) == 0) return true;
    blank = next;
  }
  return false;
}

template <class... Classes>
void RegisterUnlisted(ClassRegistry<std::shared_ptr<IKernel>>& kernels) {
  (kernels.Register(
       Classes().GetName(), [] { return std::make_shared<Classes>(); }, false),
   ...);
}

using namespace kernel;

}  // namespace

ClassRegistry<std::shared_ptr<IKernel>> const& KernelRegistry() {
  static auto const registry = [] {
    ClassRegistry<std::shared_ptr<IKernel>> kernels;
    ClassRegistry<std::shared_ptr<InferenceParam>> params;
    utility::init_register_operators(kernels, params);
    utility::init_register_fused_operators(kernels);
    utility::init_register_extra_operators(kernels);
    RegisterUnlisted<
        RNNCell_ARM_C_F32_M1, LSTMCell_ARM_C_F32_M1, GRUCell_ARM_C_F32_M1, RNN_ARM_SC_F32_M1, LSTM_ARM_SC_F32_M1,
        GRU_ARM_SC_F32_M1, Upsampling2D_Fallback_CHW_Int16_M1, Pixelshuffle_Fallback_CHW_Int16_M1,
        Quantitation_MainMemory_Float_to_Int16_Fallback_M1, Quantitation_MainMemory_Float_to_Int8_Fallback_M1,
        Dequantitation_MainMemory_Int16_to_Float_Fallback_M1, Dequantitation_MainMemory_Int8_to_Float_Fallback_M1>(
        kernels);
    return kernels;
  }();
  return registry;
}

std::vector<std::string> KernelNames() {
  auto names = KernelRegistry().GetKeys();
  std::sort(names.begin(), names.end());
  return names;
}

LayerMaker MakerFor(std::string const& kernel) {
  for (Line const& line : kLines)
    if (Begins(kernel, line.starts)) return line.make;
  throw std::runtime_error(kernel + " has no line in certificate/kernels.cpp");
}

std::vector<Operation> Kernels() {
  std::vector<Operation> operations;
  for (std::string const& name : KernelNames()) {
    auto const run = [name, make = MakerFor(name)](Draw& draw, Digest& digest) {
      Layer const layer = make(draw);
      auto const kernel = KernelRegistry().Create(name);
      Need(kernel->Config(layer.record, layer.param, Context()), "Config fails");
      for (unsigned int i = 0; i < layer.runs; ++i) {
        Tensors outputs;
        Need(kernel->Forward(layer.inputs, outputs, Context()) == 0, "Forward fails");
        for (auto const& output : outputs) digest.Add(*output);
      }
    };
    operations.push_back({"kernel/" + name, kCases, run});
  }
  return operations;
}

}  // namespace talvo::certificate
