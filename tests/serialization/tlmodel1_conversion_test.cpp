#include "talvo/serialization/tlmodel1_conversion.h"

#include <gtest/gtest.h>

#include <cstring>
#include <tuple>

#include "talvo/serialization/layer_info_activation.h"
#include "talvo/serialization/layer_info_conv.h"
#include "talvo/serialization/layer_info_norm.h"
#include "talvo/serialization/layer_info_plane.h"
#include "talvo/serialization/layer_info_rnn.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "talvo/utility/base64.h"
#include "tests/support/bits.h"
#include "tests/support/log_capture.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/tlmodel1_writer.h"

namespace talvo::test {
namespace {

using half_float::half;
using namespace runtime;
using namespace talvo1;

using Names = std::vector<std::string>;
using Numbers = std::vector<double>;

template <class... Values>
Numbers Of(Values const&... values) {
  return {static_cast<double>(values)...};
}

std::vector<float> Decoded(std::string const& text) {
  std::string const bytes = Base64Decode(text);
  std::vector<float> values(bytes.size() / sizeof(float));
  if (!values.empty()) std::memcpy(values.data(), bytes.data(), values.size() * sizeof(float));
  return values;
}

void Convert(TLModel1Writer const& file, TLModelInfo& model) {
  QZNetLoader loader;
  ASSERT_TRUE(ReadOldModel(file.bytes, loader));
  ConvertTLModel1(loader, model);
}

// Converts one layer behind an input and returns the record that has the layer's name.
template <class Info>
Info Converted(QZLayerInfo const& layer) {
  TLModel1Writer file(10011);
  file.Add(OldLayer<QZLayerInfo_Input>(1, {}));
  file.Add(layer);
  TLModelInfo model;
  Convert(file, model);
  return dynamic_cast<Info&>(*model.layers.at("layer-" + std::to_string(layer.id)));
}

TEST(TLModel1Conversion, SplitsFusedActivationsAndNamesLayers) {
  TLModel1Writer file(10003);
  file.Add(OldLayer<QZLayerInfo_Input>(1, {}));
  auto first = OldConvolution<QZLayerInfo_Conv2D>(3, 1, 1, 1, 3, 2, 6);
  first.activation = 6;
  file.Add(first);
  file.Add(OldConvolution<QZLayerInfo_Conv2D>(20, 1, 1, 1, 3, 2, 6));
  auto sum = OldLayer<QZLayerInfo_ElementWiseOperator>(7, {3, 20, 3});
  sum.op = 2;
  sum.activation = 8;
  file.Add(sum);
  ScratchFolder const folder;
  TLModelInfo model;
  model.LoadFromTLModel1(folder.Save("fused.tlmodel1", file.bytes).c_str());

  EXPECT_EQ(model.squential_ids, (Names{"layer-1", "layer-3!", "layer-3", "layer-20", "layer-7!", "layer-7"}));
  EXPECT_EQ(model.squential_types, (std::vector<unsigned short>{0, 2, 1, 2, 11, 1}));
  EXPECT_EQ(model.squential_output_ids, Names{"layer-7"});
  using Row = std::tuple<std::string, Names, int>;
  for (auto const& [id, inputs, read_count] :
       {Row{"layer-1", {}, 2}, Row{"layer-3!", {"layer-1"}, 1}, Row{"layer-3", {"layer-3!"}, 2},
        Row{"layer-20", {"layer-1"}, 1}, Row{"layer-7!", {"layer-3", "layer-20", "layer-3"}, 1},
        Row{"layer-7", {"layer-7!"}, 0}}) {
    LayerInfo const& layer = *model.layers.at(id);
    EXPECT_EQ(Row(layer.id, layer.input_ids, layer.read_count), Row(id, inputs, read_count));
  }
  EXPECT_EQ(dynamic_cast<ElementWiseOperatorInfo&>(*model.layers.at("layer-7!")).op_type, 2);
  NetExtraInfo const& info = model.extra_info;
  EXPECT_EQ(Of(info.version, info.app_type, info.model_id, info.model_base_h, info.model_base_w, info.fmlas),
            Of(0, 77, 88, 128, 64, 0));
  EXPECT_EQ(info.time.year * 10000 + info.time.moon * 100 + info.time.day, 20190528u);
  EXPECT_EQ(info.device, "cpu");
}

TEST(TLModel1Conversion, MapsActivations) {
  constexpr unsigned short kNone = 65535, kWant[] = {0, 1, 2, 5, 6, 7, 4, kNone, 3, kNone};
  for (unsigned short kind = 0; kind < 10; ++kind) {
    SCOPED_TRACE(kind);
    auto plain = OldLayer<QZLayerInfo_Activation>(2, {1});
    auto tensor = OldLayer<QZLayerInfo_TensorActivation>(2, {1});
    auto fused = OldConvolution<QZLayerInfo_Conv2D>(2, 1, 1, 1, 3, 2, 6);
    plain.kind = tensor.kind = fused.activation = kind;
    plain.alpha = tensor.beta = half(0.25f);
    plain.beta = tensor.alpha = half(-2.0f);
    if (kWant[kind] == kNone) {
      for (QZLayerInfo const* const layer : std::initializer_list<QZLayerInfo const*>{&plain, &tensor, &fused})
        EXPECT_EQ(RefusalOf([&] { Converted<LayerInfo>(*layer); }), "[TLN]: Not Implemented.\n");
      continue;
    }
    auto const numbers = [](ActivationInfo const& info) {
      return Of(info.activation_type, info.activation_alpha, info.activation_beta);
    };
    EXPECT_EQ(numbers(Converted<ActivationInfo>(plain)), Of(kWant[kind], 0.25, -2.0));
    EXPECT_EQ(numbers(Converted<ActivationInfo>(tensor)), Of(kWant[kind], -2.0, 0.25));
    if (kind == 0) continue;
    auto const split = Converted<ActivationInfo>(fused);
    EXPECT_EQ(split.activation_type, kWant[kind]);
    EXPECT_EQ(split.activation_alpha.Bits(), kind == 6 ? 0x211E : 0x3C00);
    EXPECT_EQ(split.activation_beta.Bits(), 0);
  }
}

template <class Window>
void FillWindow(Window& w) {
  unsigned short next = 11;
  for (auto* const field : {&w.pad_x, &w.pad_y, &w.stride_x, &w.stride_y}) *field = next++;
  w.kernel_x = 3;
  w.kernel_y = 2;
}

template <class Info>
Numbers WindowOf(Info const& i) {
  return Of(i.kernel_x, i.kernel_y, i.padding_l, i.padding_r, i.padding_t, i.padding_b, i.stride_x, i.stride_y);
}

template <class Info>
Numbers ConvolutionOf(Info const& info) {
  EXPECT_EQ(WindowOf(info), Of(3, 2, 11, 11, 12, 12, 13, 14));
  return Of(info.in_channels, info.out_channels, info.dilation_x, info.dilation_y, info.groups);
}

// What stands at [o, p, i] of `from`, an output, a place of the window and an input of the group, goes to place(o, i).
template <class Place>
std::vector<float> Turned(std::vector<float> const& from, std::size_t outputs, std::size_t inputs, Place place) {
  std::vector<float> to(from.size());
  for (std::size_t o = 0; o < outputs; ++o)
    for (std::size_t p = 0; p < 6; ++p)
      for (std::size_t i = 0; i < inputs; ++i) to[place(o, i) * 6 + p] = from[(o * 6 + p) * inputs + i];
  return to;
}

TEST(TLModel1Conversion, TurnsConvolutionsToTheFormOfToday) {
  // Two groups of two outputs and three inputs; a fifth output belongs to no group.
  auto direct = OldConvolution<QZLayerInfo_Conv2D>(2, 1, 6, 5, 3, 2, 5 * 6 * 3);
  FillWindow(direct);
  direct.groups = 2;
  direct.dilation_x = 15;
  direct.dilation_y = 16;
  auto info = Converted<Conv2dInfo>(direct);
  EXPECT_EQ(ConvolutionOf(info), Of(6, 5, 15, 16, 2));
  ExpectSameBits(Turned(direct.weights, 4, 3, [](auto o, auto i) { return o * 3 + i; }), Decoded(info.weight));
  EXPECT_FALSE(info.if_bias);
  ExpectSameBits(std::vector<float>(5), Decoded(info.bias));
  direct.if_bias = 5;
  info = Converted<Conv2dInfo>(direct);
  EXPECT_TRUE(info.if_bias);
  ExpectSameBits(direct.bias, Decoded(info.bias));

  auto transposed = OldConvolution<QZLayerInfo_Conv2DTranspose>(2, 1, 4, 5, 3, 2, 5 * 6 * 4);
  FillWindow(transposed);
  transposed.if_bias = 1;
  auto const spread = Converted<ConvTranspose2dInfo>(transposed);
  EXPECT_EQ(ConvolutionOf(spread), Of(4, 5, 1, 1, 1));
  ExpectSameBits(Turned(transposed.weights, 5, 4, [](auto o, auto i) { return i * 5 + o; }), Decoded(spread.weight));
  ExpectSameBits(transposed.bias, Decoded(spread.bias));

  auto depthwise = OldConvolution<QZLayerInfo_DepthWiseConv2D>(2, 1, 4, 4, 3, 2, 6 * 4);
  FillWindow(depthwise);
  depthwise.dilation_x = 15;
  depthwise.dilation_y = 16;
  info = Converted<Conv2dInfo>(depthwise);
  EXPECT_EQ(ConvolutionOf(info), Of(4, 4, 15, 16, 4));
  ExpectSameBits(Turned(depthwise.weights, 1, 4, [](auto, auto channel) { return channel; }), Decoded(info.weight));
}

TEST(TLModel1Conversion, CopiesDenseLayersAndBatchNormalisations) {
  auto dense = OldLayer<QZLayerInfo_FullConnection>(2, {1});
  dense.in_features = 3;
  dense.out_features = 2;
  dense.weights = HalfFloats(1, 6);
  auto info = Converted<FullConnectionInfo>(dense);
  EXPECT_EQ(Of(info.in_features, info.out_features, info.if_bias), Of(3, 2, 0));
  ExpectSameBits(dense.weights, Decoded(info.weight));
  ExpectSameBits(std::vector<float>(2), Decoded(info.bias));
  dense.if_bias = 1;
  dense.bias = HalfFloats(2, 2);
  ExpectSameBits(dense.bias, Decoded(Converted<FullConnectionInfo>(dense).bias));

  auto layer = OldLayer<QZLayerInfo_BatchNormalization>(2, {1}, 3);
  for (auto* const values : {&layer.scale, &layer.shift, &layer.variance, &layer.mean})
    *values = HalfFloats(static_cast<std::uint32_t>(values - &layer.scale), 3);
  auto const norm = Converted<BatchNorm2dInfo>(layer);
  ExpectSameBits(layer.scale, Decoded(norm.scale));
  ExpectSameBits(layer.shift, Decoded(norm.shift));
  ExpectSameBits(layer.variance, Decoded(norm.variance));
  ExpectSameBits(layer.mean, Decoded(norm.mean));
  EXPECT_EQ(Of(norm.num_features, norm.eps, norm.if_affine, norm.if_track_running_stats), Of(0, 0.00001f, 1, 0));
}

// Above the first layer the file holds in_size columns and the record as many as the stack has: cut or filled up.
TEST(TLModel1Conversion, GivesStackedLayersTheLengthsOfTheStack) {
  using Texts = std::vector<std::string>;
  for (bool const bidirectional : {false, true}) {
    SCOPED_TRACE(bidirectional);
    auto layer = OldLayer<QZLayerInfo_LSTM>(2, {1});
    layer.in_size = 3;
    layer.hidden_size = layer.num_layers = 2;
    layer.if_bias = 1;
    layer.bidirectional = bidirectional;
    layer.stacking = 4;
    for (std::uint32_t l = 0; l < 2; ++l) {
      for (std::uint32_t d = 0; d < 1u + bidirectional; ++d)
        (d == 0 ? layer.forward : layer.reverse)
            .push_back({HalfFloats(8 * l + 4 * d, 24), HalfFloats(8 * l + 4 * d + 1, 16),
                        HalfFloats(8 * l + 4 * d + 2, 8), HalfFloats(8 * l + 4 * d + 3, 8)});
    }
    auto const info = Converted<LSTMInfo>(layer);
    EXPECT_EQ(
        Of(info.in_size, info.hidden_size, info.num_layers, info.if_bias, info.bidirectional, info.complex_rnn_type),
        Of(3, 2, 2, 1, bidirectional, 4));
    auto const expect = [&](std::vector<QZLSTMWeights> const& old, Texts const& weight_ih, Texts const& weight_hh,
                            Texts const& bias_ih, Texts const& bias_hh) {
      ASSERT_EQ((std::vector{weight_ih.size(), weight_hh.size(), bias_ih.size(), bias_hh.size()}),
                std::vector(4, old.size()));
      for (std::size_t l = 0; l < old.size(); ++l) {
        std::vector<float> columns = old[l].weight_ih;
        if (l > 0) columns.resize(bidirectional ? 32 : 16);
        ExpectSameBits(columns, Decoded(weight_ih[l]));
        ExpectSameBits(old[l].weight_hh, Decoded(weight_hh[l]));
        ExpectSameBits(old[l].bias_ih, Decoded(bias_ih[l]));
        ExpectSameBits(old[l].bias_hh, Decoded(bias_hh[l]));
      }
    };
    expect(layer.forward, info.weight_ih_forward, info.weight_hh_forward, info.bias_ih_forward, info.bias_hh_forward);
    expect(layer.reverse, info.weight_ih_reverse, info.weight_hh_reverse, info.bias_ih_reverse, info.bias_hh_reverse);
  }
}

TEST(TLModel1Conversion, FindsTheRoundingOfPoolingByTheHeight) {
  using Row = std::tuple<char const*, unsigned int, unsigned int, unsigned short, unsigned short, unsigned short, bool>;
  for (auto const& [why, in_h, out_h, kernel, pad, stride, ceil_mode] :
       {Row{"rounded up", 5, 3, 2, 0, 2, true}, Row{"rounded down", 5, 2, 2, 0, 2, false},
        Row{"nothing to round", 7, 4, 4, 0, 1, true}, Row{"padding", 6, 4, 3, 1, 2, true},
        Row{"neither", 6, 9, 2, 0, 2, false}, Row{"no stride", 6, 3, 2, 0, 0, false}}) {
    SCOPED_TRACE(why);
    auto layer = OldLayer<QZLayerInfo_Pooling>(2, {1});
    FillWindow(layer);
    layer.input_shapes = {OldShape(4, in_h, 60)};
    layer.output_shapes = {OldShape(4, out_h, 60)};
    std::tie(layer.kernel_y, layer.pad_y, layer.stride_y) = std::tie(kernel, pad, stride);
    auto const mean = Converted<AvgPool2dInfo>(layer);
    EXPECT_EQ(mean.ceil_mode, ceil_mode);
    EXPECT_TRUE(mean.count_include_pad);
    EXPECT_EQ(WindowOf(mean), Of(3, kernel, 11, 11, pad, pad, 13, stride));
    layer.kind = 1;
    auto const maximum = Converted<MaxPool2dInfo>(layer);
    EXPECT_EQ(maximum.ceil_mode, ceil_mode);
    EXPECT_EQ(WindowOf(maximum), WindowOf(mean));
    EXPECT_EQ(Of(maximum.dilation_x, maximum.dilation_y), Of(1, 1));
  }
}

TEST(TLModel1Conversion, CopiesShapesAndAxes) {
  auto reshape = OldLayer<QZLayerInfo_TensorReshape>(2, {1});
  reshape.output_tensor = OldTensor({65535, 4, 7});
  EXPECT_EQ(Converted<TensorReshapeInfo>(reshape).new_shape, (std::vector<short>{-1, 4, 7}));
  auto transpose = OldLayer<QZLayerInfo_TensorTranspose>(2, {1});
  transpose.axes = {2, 0, 1, 9, 9, 9, 9, 9, 9, 9};
  transpose.output_tensor = OldTensor({5, 6, 7});
  EXPECT_EQ(Converted<TensorTransposeInfo>(transpose).axes, (std::vector<unsigned short>{2, 0, 1}));
  auto squeeze = OldLayer<QZLayerInfo_TensorSqueeze>(2, {1});
  squeeze.dimension = 3;
  EXPECT_EQ(Converted<TensorSqueezeInfo>(squeeze).dim, 3);
  auto concatenation = OldLayer<QZLayerInfo_Concatenate>(2, {1, 1});
  for (unsigned short axis = 0; axis < 3; ++axis) {
    concatenation.axis = axis;
    EXPECT_EQ(Converted<ConcatenateInfo>(concatenation).dim, axis + 1);
  }
  auto upsampling = OldLayer<QZLayerInfo_Upsampling>(2, {1});
  upsampling.scale_factor = half(1.5f);
  upsampling.align_corner = 2;
  upsampling.mode = 1;
  auto const info = Converted<Upsample2dInfo>(upsampling);
  EXPECT_EQ(Of(info.scale_factor_x, info.scale_factor_y, info.align_corner, info.unsample_type), Of(1.5, 1.5, 1, 1));
  auto shuffle = OldLayer<QZLayerInfo_PixelShuffle>(2, {1}, 4, 1);
  shuffle.upscale_factor = half(2.0f);
  EXPECT_EQ(Converted<PixelShuffleInfo>(shuffle).upscale_factor, 2.0f);
  auto input = OldLayer<QZLayerInfo_TensorInput>(2, {});
  input.location = 6;
  EXPECT_EQ(Converted<InputInfo>(input).location, 6);
}

TEST(TLModel1Conversion, RefusesWhatHasNoCounterpart) {
  auto pooling = OldLayer<QZLayerInfo_Pooling>(2, {1});
  pooling.kind = 2;
  auto elementwise = OldLayer<QZLayerInfo_ElementWiseOperator>(2, {1, 1});
  elementwise.op = 4;
  auto concatenation = OldLayer<QZLayerInfo_Concatenate>(2, {1, 1});
  concatenation.axis = 3;
  auto upsampling = OldLayer<QZLayerInfo_Upsampling>(2, {1});
  upsampling.mode = 3;
  auto shuffle = OldLayer<QZLayerInfo_ChannelShuffle>(2, {1}, 2, 2);
  shuffle.order = {1, 0};
  auto transposed = OldConvolution<QZLayerInfo_Conv2DTranspose>(2, 1, 2, 2, 3, 2, 12);
  transposed.group_divisor = 2;
  auto const instance = OldLayer<QZLayerInfo_InstanceNormalization>(2, {1});
  auto const region = OldLayer<QZLayerInfo_Region>(2, {1});
  auto const spread = OldConvolution<QZLayerInfo_DepthWiseConv2DTranspose>(2, 1, 4, 4, 3, 2, 24);
  auto const uneven = OldConvolution<QZLayerInfo_DepthWiseConv2D>(2, 1, 4, 8, 3, 2, 24);
  auto const expect = [](QZLayerInfo const& layer, std::string const& text) {
    LogCapture const quiet;
    try {
      Converted<LayerInfo>(layer);
      ADD_FAILURE() << "not refused: " << layer.type;
    } catch (RefusedLayer const& refusal) {
      EXPECT_EQ(refusal.what(), text);
      EXPECT_EQ(refusal.id, 2);
      EXPECT_EQ(refusal.type, layer.type);
    }
  };
  for (QZLayerInfo const* const layer : std::initializer_list<QZLayerInfo const*>{
           &pooling, &elementwise, &concatenation, &upsampling, &shuffle, &instance, &region, &spread})
    expect(*layer, "[TLN]: Not Implemented.\n");
  expect(uneven, "[TLN]: ");
  expect(transposed,
         "[TLN]: first-generation layer 2: transposed convolution holds 12 weights, shape [2, 2, 3, 2] needs 24\n");
  TLModelInfo model;
  EXPECT_EQ(RefusalOf([&model] { model.LoadFromTLModel1("/no such file"); }), "[TLN]: Loading tlmdel1 fail.\n");
}

// Without a limit a small file could have one large layer converted over and over.
TEST(TLModel1Conversion, ServesARepeatedIdOnlyAFewTimes) {
  TLModel1Writer file(10011);
  for (int i = 0; i < 8; ++i) file.Add(OldLayer<QZLayerInfo_Input>(1, {}));
  TLModelInfo model;
  Convert(file, model);
  EXPECT_EQ(model.squential_ids, Names(8, "layer-1"));
  EXPECT_EQ(model.layers.size(), 1u);
  file.Add(OldLayer<QZLayerInfo_Input>(1, {}));
  EXPECT_NE(RefusalOf([&] { Convert(file, model); }).find("\"layer-1\" stands more than 8 times"), std::string::npos);
}

}  // namespace
}  // namespace talvo::test
