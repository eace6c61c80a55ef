#include "talvo/serialization/tlmodel1_conversion.h"

#include <cmath>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "talvo/serialization/layer_info_activation.h"
#include "talvo/serialization/layer_info_conv.h"
#include "talvo/serialization/layer_info_norm.h"
#include "talvo/serialization/layer_info_plane.h"
#include "talvo/serialization/layer_info_rnn.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "talvo/serialization/record_support.h"
#include "talvo/serialization/tlmodel1_support.h"
#include "talvo/serialization/tlmodel1_weights_support.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::runtime {
namespace {

using half_float::half;
using support::WeightText;
using namespace talvo1;

using LayerPtr = std::unique_ptr<LayerInfo>;

std::string NameOf(unsigned short id) { return "layer-" + std::to_string(id); }

void RequireKnown(bool known) {
  if (!known) utility::Refuse("Not Implemented.");
}

unsigned short ActivationType(unsigned short kind) {
  // By the old kind. Kind 7 has no counterpart.
  constexpr unsigned short kNone = 65535, kTypes[] = {0, 1, 2, 5, 6, 7, 4, kNone, 3};
  unsigned short const type = kind < std::size(kTypes) ? kTypes[kind] : kNone;
  RequireKnown(type != kNone);
  return type;
}

LayerPtr Activation(unsigned short kind, half alpha, half beta) {
  auto info = std::make_unique<ActivationInfo>();
  info->activation_type = ActivationType(kind);
  info->activation_alpha = alpha;
  info->activation_beta = beta;
  return info;
}

LayerPtr FusedActivation(unsigned short kind) {
  constexpr unsigned short kLeaky = 6;  // with the slope 0.00999
  return Activation(kind, half::FromBits(kind == kLeaky ? 0x211E : 0x3C00), half::FromBits(0));
}

// The activation that an old layer applies to its own result; 0 is none.
unsigned short FusedKind(QZLayerInfo const& layer) {
  if (auto const* const convolution = dynamic_cast<QZConvolution const*>(&layer)) return convolution->activation;
  if (auto const* const elementwise = dynamic_cast<QZLayerInfo_ElementWiseOperator const*>(&layer))
    return elementwise->activation;
  return 0;
}

template <class Info, class Window>
void CopyWindow(Window const& window, Info& info) {
  info.kernel_x = window.kernel_x;
  info.kernel_y = window.kernel_y;
  using Padding = decltype(info.padding_l);
  info.padding_l = info.padding_r = static_cast<Padding>(window.pad_x);
  info.padding_t = info.padding_b = static_cast<Padding>(window.pad_y);
  info.stride_x = window.stride_x;
  info.stride_y = window.stride_y;
}

// All but dilation, groups and weights. A layer without a bias gets one of zeros.
template <class Info, class Layer>
std::unique_ptr<Info> Convolution(Layer const& layer) {
  auto info = std::make_unique<Info>();
  info->in_channels = layer.input_shapes[0].channels;
  info->out_channels = layer.output_shapes[0].channels;
  CopyWindow(layer, *info);
  info->if_bias = layer.if_bias != 0;
  info->bias = WeightText(info->if_bias ? layer.bias : std::vector<float>(), info->out_channels);
  return info;
}

LayerPtr Convert(QZLayerInfo_Conv2D const& layer) {
  auto info = Convolution<Conv2dInfo>(layer);
  info->dilation_x = layer.dilation_x;
  info->dilation_y = layer.dilation_y;
  info->groups = layer.groups;
  info->weight = support::ConvolutionWeight(layer);
  return info;
}

LayerPtr Convert(QZLayerInfo_Conv2DTranspose const& layer) {
  auto info = Convolution<ConvTranspose2dInfo>(layer);
  info->dilation_x = info->dilation_y = info->groups = 1;
  info->weight = support::TransposedConvolutionWeight(layer);
  return info;
}

LayerPtr Convert(QZLayerInfo_DepthWiseConv2D const& layer) {
  auto info = Convolution<Conv2dInfo>(layer);
  if (info->in_channels != info->out_channels) utility::Refuse(nullptr);
  info->dilation_x = layer.dilation_x;
  info->dilation_y = layer.dilation_y;
  info->groups = info->out_channels;
  info->weight = support::DepthWiseWeight(layer);
  return info;
}

LayerPtr Convert(QZLayerInfo_PixelShuffle const& layer) {
  auto info = std::make_unique<PixelShuffleInfo>();
  info->upscale_factor = layer.upscale_factor;
  return info;
}

// The file does not say which way the output height was rounded: if rounding up gives that height, it was up.
bool CeilMode(QZLayerInfo_Pooling const& layer, unsigned int base_height) {
  // Extents are shares of the base height, kept as halves: only the rounded product is a number of rows.
  float const base = static_cast<float>(base_height);
  float const in_h = std::round(layer.input_shapes[0].height * base);
  float const out_h = std::round(layer.output_shapes[0].height * base);
  float const span = in_h + 2.0f * static_cast<float>(layer.pad_y) - static_cast<float>(layer.kernel_y);
  return std::ceil(span / static_cast<float>(layer.stride_y)) + 1.0f == out_h;
}

LayerPtr Convert(QZLayerInfo_Pooling const& layer, QZExInfo const& header) {
  unsigned int const base_height = header.BaseHeight();
  if (layer.kind == 0) {
    auto info = std::make_unique<AvgPool2dInfo>();
    CopyWindow(layer, *info);
    info->count_include_pad = true;
    info->ceil_mode = CeilMode(layer, base_height);
    return info;
  }
  RequireKnown(layer.kind == 1);
  auto info = std::make_unique<MaxPool2dInfo>();
  CopyWindow(layer, *info);
  info->dilation_x = info->dilation_y = 1;
  info->ceil_mode = CeilMode(layer, base_height);
  return info;
}

LayerPtr Convert(QZLayerInfo_BatchNormalization const& layer) {
  auto info = std::make_unique<BatchNorm2dInfo>();
  info->eps = 0.00001f;
  info->if_affine = true;
  info->if_track_running_stats = false;
  info->scale = WeightText(layer.scale);
  info->shift = WeightText(layer.shift);
  info->variance = WeightText(layer.variance);
  info->mean = WeightText(layer.mean);
  return info;
}

LayerPtr Convert(QZLayerInfo_ElementWiseOperator const& layer) {
  RequireKnown(layer.op <= 3);
  auto info = std::make_unique<ElementWiseOperatorInfo>();
  info->op_type = layer.op;
  return info;
}

LayerPtr Convert(QZLayerInfo_Concatenate const& layer) {
  RequireKnown(layer.axis <= 2);
  auto info = std::make_unique<ConcatenateInfo>();
  info->dim = static_cast<unsigned short>(layer.axis + 1);
  return info;
}

LayerPtr Convert(QZLayerInfo_Upsampling const& layer) {
  RequireKnown(layer.mode <= 2);
  auto info = std::make_unique<Upsample2dInfo>();
  info->scale_factor_x = info->scale_factor_y = layer.scale_factor;
  info->align_corner = layer.align_corner != 0;
  info->unsample_type = layer.mode;
  return info;
}

LayerPtr Convert(QZLayerInfo_TensorInput const& layer) {
  auto info = std::make_unique<InputInfo>();
  info->location = layer.location;
  return info;
}

LayerPtr Convert(QZLayerInfo_TensorReshape const& layer) {
  auto info = std::make_unique<TensorReshapeInfo>();
  for (std::size_t i = 0; i < layer.output_tensor.dimension_count; ++i)
    info->new_shape.push_back(static_cast<short>(layer.output_tensor.dimensions[i]));
  return info;
}

LayerPtr Convert(QZLayerInfo_TensorTranspose const& layer) {
  auto info = std::make_unique<TensorTransposeInfo>();
  info->axes.assign(layer.axes.begin(), layer.axes.begin() + layer.output_tensor.dimension_count);
  return info;
}

LayerPtr Convert(QZLayerInfo_TensorSqueeze const& layer) {
  auto info = std::make_unique<TensorSqueezeInfo>();
  info->dim = static_cast<short>(layer.dimension);
  return info;
}

LayerPtr Convert(QZLayerInfo_FullConnection const& layer) {
  auto info = std::make_unique<FullConnectionInfo>();
  info->in_features = layer.in_features;
  info->out_features = layer.out_features;
  info->if_bias = layer.if_bias != 0;
  info->weight = WeightText(layer.weights);
  info->bias = WeightText(layer.bias, layer.out_features);
  return info;
}

LayerPtr Convert(QZLayerInfo_LSTM const& layer) {
  auto info = std::make_unique<LSTMInfo>();
  info->in_size = layer.in_size;
  info->hidden_size = layer.hidden_size;
  info->num_layers = layer.num_layers;
  info->if_bias = layer.if_bias != 0;
  info->bidirectional = layer.bidirectional != 0;
  info->complex_rnn_type = layer.stacking;
  std::size_t const gates = std::size_t{layer.hidden_size} * 4;
  std::size_t const upper_inputs = std::size_t{layer.hidden_size} * (info->bidirectional ? 2 : 1);
  for (std::size_t l = 0; l < layer.num_layers; ++l) {
    // The file counts in_size inputs above the first layer too; the lengths of the records are those of the stack.
    std::size_t const inputs = l == 0 ? layer.in_size : upper_inputs;
    auto const append = [&](QZLSTMWeights const& from, auto& weight_ih, auto& weight_hh, auto& bias_ih, auto& bias_hh) {
      weight_ih.push_back(WeightText(from.weight_ih, inputs * gates));
      weight_hh.push_back(WeightText(from.weight_hh, layer.hidden_size * gates));
      if (!info->if_bias) return;
      bias_ih.push_back(WeightText(from.bias_ih, gates));
      bias_hh.push_back(WeightText(from.bias_hh, gates));
    };
    append(layer.forward[l], info->weight_ih_forward, info->weight_hh_forward, info->bias_ih_forward,
           info->bias_hh_forward);
    if (info->bidirectional)
      append(layer.reverse[l], info->weight_ih_reverse, info->weight_hh_reverse, info->bias_ih_reverse,
             info->bias_hh_reverse);
  }
  return info;
}

LayerPtr Convert(QZLayerInfo_Input const&) { return std::make_unique<InputInfo>(); }

LayerPtr Convert(QZLayerInfo_Activation const& layer) { return Activation(layer.kind, layer.alpha, layer.beta); }

LayerPtr Convert(QZLayerInfo_TensorActivation const& layer) { return Activation(layer.kind, layer.alpha, layer.beta); }

// The kinds that nothing above takes have no counterpart.
LayerPtr Convert(QZLayerInfo const&) {
  RequireKnown(false);
  return nullptr;
}

// Only pooling needs the header.
template <class Layer>
LayerPtr Convert(Layer const& layer, QZExInfo const&) {
  return Convert(layer);
}

LayerPtr ConvertLayer(QZLayerInfo const& layer, QZExInfo const& header) {
  switch (layer.type) {
#define TALVO1_CASE(type, from_version, name) \
  case type:                                  \
    return Convert(static_cast<QZLayerInfo_##name const&>(layer), header);
    TALVO1_FOR_EACH_KIND(TALVO1_CASE)
#undef TALVO1_CASE
    default:
      return Convert(layer);
  }
}

void FillExtraInfo(QZExInfo const& header, NetExtraInfo& info) {
  info.version = 0;
  info.app_type = header.AppType();
  info.model_id = header.ModelId();
  info.model_base_h = header.BaseHeight();
  info.model_base_w = header.BaseWidth();
  info.fmlas = 0;
  // The header has no date; this one is the interface's, so that a conversion repeated gives the same bytes.
  info.time.year = 2019;
  info.time.moon = 5;
  info.time.day = 28;
  info.time.hour = info.time.min = info.time.sec = 0;
  info.device = "cpu";
}

void Enter(LayerPtr made, std::string const& name, std::vector<std::string> inputs, unsigned short readers,
           TLModelInfo& model) {
  std::shared_ptr<LayerInfo> const record = std::move(made);
  record->id = name;
  record->input_ids = std::move(inputs);
  record->read_count = readers;
  model.squential_types.push_back(record->type);
  model.layers[name] = record;
}

void AddLayer(QZLayerInfo const& layer, unsigned short readers, QZExInfo const& header, TLModelInfo& model) {
  std::string const name = NameOf(layer.id);
  if (readers == 0) model.squential_output_ids.push_back(name);
  model.squential_ids.push_back(name);
  std::vector<std::string> inputs;
  for (std::size_t i = 0; i < layer.input_count; ++i) inputs.push_back(NameOf(layer.input_ids[i]));
  LayerPtr record = ConvertLayer(layer, header);
  unsigned short const fused = FusedKind(layer);
  if (fused == 0) return Enter(std::move(record), name, std::move(inputs), readers, model);
  LayerPtr activation = FusedActivation(fused);
  // The layer takes the new name: whoever reads it goes on under the old one and gets the activated
  // result.
  model.squential_ids.back() = name + "!";
  model.squential_ids.push_back(name);
  Enter(std::move(record), name + "!", std::move(inputs), 1, model);
  Enter(std::move(activation), name, {name + "!"}, readers, model);
}

}  // namespace

void ConvertTLModel1(QZNetLoader const& loader, TLModelInfo& model) {
  std::vector<std::string> names;
  for (unsigned short const id : loader.id_list) names.push_back(NameOf(id));
  support::AssertFewRepeats(names);  // each occurrence is converted once more
  FillExtraInfo(loader.exinfo, model.extra_info);
  for (unsigned short const id : loader.id_list) {
    QZLayerInfo const& layer = *loader.layers.at(id);
    try {
      AddLayer(layer, loader.reader_counts.at(id), loader.exinfo, model);
    } catch (std::runtime_error const& refusal) {
      throw RefusedLayer(refusal.what(), id, layer.type);
    }
  }
}

void TLModelInfo::LoadFromTLModel1(char const* path) {
  QZNetLoader loader;
  bool const result = loader.LoadFile(path, false);
  if (!result) utility::Refuse("Loading tlmdel1 fail.");
  ConvertTLModel1(loader, *this);
}

}  // namespace talvo::runtime
