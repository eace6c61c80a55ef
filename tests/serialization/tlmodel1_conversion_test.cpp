#include "talvo/serialization/tlmodel1_conversion.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

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
using Types = std::vector<unsigned short>;

std::vector<float> Decoded(std::string const& text) {
  std::string const bytes = Base64Decode(text);
  std::vector<float> values(bytes.size() / sizeof(float));
  std::memcpy(values.data(), bytes.data(), values.size() * sizeof(float));
  return values;
}

QZLayerInfo_Input OldInput(unsigned short id) {
  auto layer = OldLayer<QZLayerInfo_Input>(0, id, {});
  layer.output_shapes = {OldShape(4, 8, 8)};
  return layer;
}

// A layer on planes with `in` and `out` channels.
template <class Layer>
Layer OldPlanes(unsigned short type, unsigned short id, unsigned short input, unsigned short in, unsigned short out) {
  Layer layer = OldLayer<Layer>(type, id, {input});
  layer.input_shapes = {OldShape(in, 8, 8)};
  layer.output_shapes = {OldShape(out, 8, 8)};
  return layer;
}

// A convolution of 3 x 2 taps (width x height) with `weights` values.
template <class Layer>
Layer OldConvolution(unsigned short type, unsigned short id, unsigned short in, unsigned short out,
                     std::size_t weights) {
  Layer layer = OldPlanes<Layer>(type, id, 1, in, out);
  layer.kernel_x = 3;
  layer.kernel_y = 2;
  layer.stride_x = layer.stride_y = 1;
  layer.weights = HalfFloats(id, weights);
  layer.bias = HalfFloats(id + 100u, out);
  return layer;
}

void Convert(TLModel1Writer const& file, TLModelInfo& model) {
  QZNetLoader loader;
  ASSERT_TRUE(ReadOldModel(file.bytes, loader));
  ConvertTLModel1(loader, model);
}

// Converts one layer behind an input and returns the record that has the layer's name, or its name and `suffix`.
template <class Info>
Info Converted(QZLayerInfo const& layer, std::string const& suffix = "") {
  TLModel1Writer file(10011);
  file.Add(OldInput(1));
  file.Add(layer);
  TLModelInfo model;
  Convert(file, model);
  return dynamic_cast<Info&>(*model.layers.at("layer-" + std::to_string(layer.id) + suffix));
}

std::string RefusalOfLayer(QZLayerInfo const& layer) {
  return RefusalOf([&layer] { Converted<LayerInfo>(layer); });
}

TEST(TLModel1Conversion, SplitsFusedActivationsAndNamesLayers) {
  TLModel1Writer file(10003);
  file.Add(OldInput(1));
  auto first = OldConvolution<QZLayerInfo_Conv2D>(1, 3, 1, 1, 6);
  first.activation = 6;
  file.Add(first);
  file.Add(OldConvolution<QZLayerInfo_Conv2D>(1, 20, 1, 1, 6));
  auto sum = OldLayer<QZLayerInfo_ElementWiseOperator>(10, 7, {3, 20, 3});
  sum.output_shapes = {OldShape(1, 8, 8)};
  sum.op = 2;
  sum.activation = 8;
  file.Add(sum);
  ScratchFolder const folder;
  TLModelInfo model;
  model.LoadFromTLModel1(folder.Save("fused.tlmodel1", file.bytes).c_str());

  EXPECT_EQ(model.squential_ids, (Names{"layer-1", "layer-3!", "layer-3", "layer-20", "layer-7!", "layer-7"}));
  EXPECT_EQ(model.squential_types, (Types{0, 2, 1, 2, 11, 1}));
  EXPECT_EQ(model.squential_output_ids, Names{"layer-7"});
  struct Case {
    char const* id;
    Names inputs;
    unsigned short read_count;
  };
  for (Case const& c : {Case{"layer-1", {}, 2}, Case{"layer-3!", {"layer-1"}, 1}, Case{"layer-3", {"layer-3!"}, 2},
                        Case{"layer-20", {"layer-1"}, 1}, Case{"layer-7!", {"layer-3", "layer-20", "layer-3"}, 1},
                        Case{"layer-7", {"layer-7!"}, 0}}) {
    SCOPED_TRACE(c.id);
    LayerInfo const& layer = *model.layers.at(c.id);
    EXPECT_EQ(layer.id, c.id);
    EXPECT_EQ(layer.input_ids, c.inputs);
    EXPECT_EQ(layer.read_count, c.read_count);
  }
  EXPECT_EQ(dynamic_cast<ElementWiseOperatorInfo&>(*model.layers.at("layer-7!")).op_type, 2);
  NetExtraInfo const& info = model.extra_info;
  EXPECT_EQ(info.app_type, 77u);
  EXPECT_EQ(info.model_id, 88u);
  EXPECT_EQ(info.time.year * 10000 + info.time.moon * 100 + info.time.day, 20190528u);
  EXPECT_EQ(info.device, "cpu");
}

TEST(TLModel1Conversion, MapsActivations) {
  unsigned short const want[] = {0, 1, 2, 5, 6, 7, 4, 65535, 3};
  for (unsigned short kind = 0; kind < 10; ++kind) {
    SCOPED_TRACE(kind);
    auto plain = OldPlanes<QZLayerInfo_Activation>(8, 2, 1, 4, 4);
    plain.kind = kind;
    plain.alpha = half(0.25f);
    plain.beta = half(-2.0f);
    auto tensor = OldLayer<QZLayerInfo_TensorActivation>(26, 2, {1});
    tensor.kind = kind;
    tensor.alpha = half(0.5f);
    auto fused = OldConvolution<QZLayerInfo_Conv2D>(1, 2, 1, 1, 6);
    fused.activation = kind;
    if (kind == 7 || kind == 9) {
      for (QZLayerInfo const* const layer :
           {static_cast<QZLayerInfo*>(&plain), static_cast<QZLayerInfo*>(&tensor), static_cast<QZLayerInfo*>(&fused)})
        EXPECT_NE(RefusalOfLayer(*layer).find("Not Implemented."), std::string::npos);
      continue;
    }
    auto const info = Converted<ActivationInfo>(plain);
    EXPECT_EQ(info.activation_type, want[kind]);
    EXPECT_EQ(info.activation_alpha, 0.25f);
    EXPECT_EQ(info.activation_beta, -2.0f);
    EXPECT_EQ(Converted<ActivationInfo>(tensor).activation_type, want[kind]);
    EXPECT_EQ(Converted<ActivationInfo>(tensor).activation_alpha, 0.5f);
    if (kind == 0) continue;
    auto const split = Converted<ActivationInfo>(fused);
    EXPECT_EQ(split.activation_type, want[kind]);
    EXPECT_EQ(split.activation_alpha.Bits(), kind == 6 ? 0x211E : 0x3C00);
    EXPECT_EQ(split.activation_beta.Bits(), 0);
  }
}

TEST(TLModel1Conversion, TurnsWeightsToTheOrderOfToday) {
  constexpr std::size_t kRows = 2, kColumns = 3, kPlaces = kRows * kColumns;
  {  // two groups of two outputs and three inputs; a fifth output belongs to no group
    auto layer = OldConvolution<QZLayerInfo_Conv2D>(1, 2, 6, 5, 5 * kPlaces * 3);
    layer.groups = 2;
    std::vector<float> want(layer.weights.size());
    for (std::size_t o = 0; o < 4; ++o)
      for (std::size_t p = 0; p < kPlaces; ++p)
        for (std::size_t i = 0; i < 3; ++i) want[(o * 3 + i) * kPlaces + p] = layer.weights[(o * kPlaces + p) * 3 + i];
    ExpectSameBits(want, Decoded(Converted<Conv2dInfo>(layer).weight));
  }
  {
    auto const layer = OldConvolution<QZLayerInfo_Conv2DTranspose>(2, 2, 4, 5, 5 * kPlaces * 4);
    std::vector<float> want(layer.weights.size());
    for (std::size_t o = 0; o < 5; ++o)
      for (std::size_t p = 0; p < kPlaces; ++p)
        for (std::size_t i = 0; i < 4; ++i) want[(i * 5 + o) * kPlaces + p] = layer.weights[(o * kPlaces + p) * 4 + i];
    auto const info = Converted<ConvTranspose2dInfo>(layer);
    ExpectSameBits(want, Decoded(info.weight));
    EXPECT_EQ(info.dilation_x * info.dilation_y * info.groups, 1);
  }
  {
    auto const layer = OldConvolution<QZLayerInfo_DepthWiseConv2D>(3, 2, 4, 4, kPlaces * 4);
    std::vector<float> want(layer.weights.size());
    for (std::size_t p = 0; p < kPlaces; ++p)
      for (std::size_t c = 0; c < 4; ++c) want[c * kPlaces + p] = layer.weights[p * 4 + c];
    auto const info = Converted<Conv2dInfo>(layer);
    ExpectSameBits(want, Decoded(info.weight));
    EXPECT_EQ(info.groups, 4);
    EXPECT_EQ(info.padding_t, 0);
  }
}

TEST(TLModel1Conversion, FillsAnAbsentBiasWithZeros) {
  auto layer = OldConvolution<QZLayerInfo_Conv2D>(1, 2, 1, 3, 18);
  ExpectSameBits(std::vector<float>(3), Decoded(Converted<Conv2dInfo>(layer).bias));
  layer.if_bias = 5;
  EXPECT_TRUE(Converted<Conv2dInfo>(layer).if_bias);
  ExpectSameBits(layer.bias, Decoded(Converted<Conv2dInfo>(layer).bias));
  auto dense = OldLayer<QZLayerInfo_FullConnection>(21, 2, {1});
  dense.in_features = 3;
  dense.out_features = 2;
  dense.weights = HalfFloats(1, 6);
  ExpectSameBits(std::vector<float>(2), Decoded(Converted<FullConnectionInfo>(dense).bias));
  ExpectSameBits(dense.weights, Decoded(Converted<FullConnectionInfo>(dense).weight));
}

TEST(TLModel1Conversion, CopiesBatchNormalisations) {
  auto layer = OldPlanes<QZLayerInfo_BatchNormalization>(7, 2, 1, 3, 3);
  layer.scale = HalfFloats(1, 3);
  layer.shift = HalfFloats(2, 3);
  layer.variance = HalfFloats(3, 3);
  layer.mean = HalfFloats(4, 3);
  auto const info = Converted<BatchNorm2dInfo>(layer);
  ExpectSameBits(layer.scale, Decoded(info.scale));
  ExpectSameBits(layer.shift, Decoded(info.shift));
  ExpectSameBits(layer.variance, Decoded(info.variance));
  ExpectSameBits(layer.mean, Decoded(info.mean));
  EXPECT_EQ(info.num_features, 0);
  EXPECT_FALSE(info.if_track_running_stats);
}

// Above the first layer the file holds in_size columns and the record as many as the stack has: cut or filled up.
TEST(TLModel1Conversion, GivesStackedLayersTheLengthsOfTheStack) {
  for (unsigned int const bidirectional : {0u, 1u}) {
    SCOPED_TRACE(bidirectional);
    auto layer = OldLayer<QZLayerInfo_LSTM>(22, 2, {1});
    layer.in_size = 3;
    layer.hidden_size = 2;
    layer.num_layers = 2;
    layer.if_bias = 1;
    layer.bidirectional = static_cast<unsigned short>(bidirectional);
    layer.stacking = 4;
    for (std::uint32_t l = 0; l < 2; ++l) {
      layer.forward.push_back(
          {HalfFloats(l, 24), HalfFloats(l + 10, 16), HalfFloats(l + 20, 8), HalfFloats(l + 30, 8)});
      if (bidirectional != 0)
        layer.reverse.push_back(
            {HalfFloats(l + 40, 24), HalfFloats(l + 50, 16), HalfFloats(l + 60, 8), HalfFloats(l + 70, 8)});
    }
    auto const info = Converted<LSTMInfo>(layer);
    EXPECT_EQ(info.complex_rnn_type, 4);
    std::vector<float> upper = layer.forward[1].weight_ih;
    upper.resize(bidirectional != 0 ? 32 : 16);
    ExpectSameBits(layer.forward[0].weight_ih, Decoded(info.weight_ih_forward.at(0)));
    ExpectSameBits(upper, Decoded(info.weight_ih_forward.at(1)));
    ExpectSameBits(layer.forward[1].weight_hh, Decoded(info.weight_hh_forward.at(1)));
    ExpectSameBits(layer.forward[1].bias_ih, Decoded(info.bias_ih_forward.at(1)));
    ExpectSameBits(layer.forward[0].bias_hh, Decoded(info.bias_hh_forward.at(0)));
    EXPECT_EQ(info.weight_ih_reverse.size(), bidirectional * 2u);
    if (bidirectional == 0) continue;
    ExpectSameBits(layer.reverse[1].weight_hh, Decoded(info.weight_hh_reverse.at(1)));
    ExpectSameBits(layer.reverse[0].bias_ih, Decoded(info.bias_ih_reverse.at(0)));
  }
}

TEST(TLModel1Conversion, FindsTheRoundingOfPoolingByTheHeight) {
  struct Case {
    char const* why;
    unsigned int in_h, out_h;
    unsigned short kernel, pad, stride;
    bool ceil_mode;
  };
  for (Case const& c : {Case{"rounded up", 5, 3, 2, 0, 2, true}, Case{"rounded down", 5, 2, 2, 0, 2, false},
                        Case{"nothing to round", 6, 3, 2, 0, 2, true}, Case{"padding", 6, 4, 3, 1, 2, true},
                        Case{"neither", 6, 9, 2, 0, 2, false}, Case{"no stride", 6, 3, 2, 0, 0, false}}) {
    SCOPED_TRACE(c.why);
    auto layer = OldLayer<QZLayerInfo_Pooling>(5, 2, {1});
    layer.input_shapes = {OldShape(4, c.in_h, 60)};
    layer.output_shapes = {OldShape(4, c.out_h, 60)};
    layer.kernel_y = c.kernel;
    layer.kernel_x = 11;
    layer.pad_y = c.pad;
    layer.stride_y = c.stride;
    EXPECT_EQ(Converted<AvgPool2dInfo>(layer).ceil_mode, c.ceil_mode);
    EXPECT_TRUE(Converted<AvgPool2dInfo>(layer).count_include_pad);
    layer.kind = 1;
    EXPECT_EQ(Converted<MaxPool2dInfo>(layer).ceil_mode, c.ceil_mode);
    EXPECT_EQ(Converted<MaxPool2dInfo>(layer).padding_b, c.pad);
  }
}

TEST(TLModel1Conversion, CopiesShapesAndAxes) {
  auto reshape = OldLayer<QZLayerInfo_TensorReshape>(18, 2, {1});
  reshape.output_tensor = OldTensor({65535, 4, 7});
  EXPECT_EQ(Converted<TensorReshapeInfo>(reshape).new_shape, (std::vector<short>{-1, 4, 7}));
  auto transpose = OldLayer<QZLayerInfo_TensorTranspose>(19, 2, {1});
  transpose.axes = {2, 0, 1, 9, 9, 9, 9, 9, 9, 9};
  transpose.output_tensor = OldTensor({5, 6, 7});
  EXPECT_EQ(Converted<TensorTransposeInfo>(transpose).axes, (Types{2, 0, 1}));
  auto squeeze = OldLayer<QZLayerInfo_TensorSqueeze>(20, 2, {1});
  squeeze.dimension = 3;
  EXPECT_EQ(Converted<TensorSqueezeInfo>(squeeze).dim, 3);
  auto concatenation = OldLayer<QZLayerInfo_Concatenate>(11, 2, {1, 1});
  concatenation.output_shapes = {OldShape(8, 8, 8)};
  concatenation.axis = 2;
  EXPECT_EQ(Converted<ConcatenateInfo>(concatenation).dim, 3);
  auto upsampling = OldPlanes<QZLayerInfo_Upsampling>(14, 2, 1, 4, 4);
  upsampling.scale_factor = half(1.5f);
  upsampling.align_corner = 2;
  upsampling.mode = 1;
  auto const info = Converted<Upsample2dInfo>(upsampling);
  EXPECT_EQ(info.scale_factor_x + info.scale_factor_y, 3.0f);
  EXPECT_TRUE(info.align_corner);
  EXPECT_EQ(info.unsample_type, 1);
  auto shuffle = OldPlanes<QZLayerInfo_PixelShuffle>(4, 2, 1, 4, 1);
  shuffle.upscale_factor = half(2.0f);
  EXPECT_EQ(Converted<PixelShuffleInfo>(shuffle).upscale_factor, 2.0f);
  auto input = OldLayer<QZLayerInfo_TensorInput>(17, 2, {});
  input.location = 6;
  EXPECT_EQ(Converted<InputInfo>(input).location, 6);
}

TEST(TLModel1Conversion, RefusesWhatHasNoCounterpart) {
  auto pooling = OldPlanes<QZLayerInfo_Pooling>(5, 2, 1, 4, 4);
  pooling.kind = 2;
  auto elementwise = OldLayer<QZLayerInfo_ElementWiseOperator>(10, 2, {1, 1});
  elementwise.output_shapes = {OldShape(4, 8, 8)};
  elementwise.op = 4;
  auto concatenation = OldLayer<QZLayerInfo_Concatenate>(11, 2, {1, 1});
  concatenation.output_shapes = {OldShape(8, 8, 8)};
  concatenation.axis = 3;
  auto upsampling = OldPlanes<QZLayerInfo_Upsampling>(14, 2, 1, 4, 4);
  upsampling.mode = 3;
  auto shuffle = OldPlanes<QZLayerInfo_ChannelShuffle>(15, 2, 1, 2, 2);
  shuffle.order = {1, 0};
  auto transposed = OldConvolution<QZLayerInfo_Conv2DTranspose>(2, 2, 2, 2, 12);
  transposed.group_divisor = 2;
  struct Case {
    char const* why;
    QZLayerInfo const& layer;
    std::string text;
  };
  std::string const unknown = "[TLN]: Not Implemented.";
  for (Case const& c :
       {Case{"kind of pooling", pooling, unknown}, Case{"operator", elementwise, unknown},
        Case{"axis", concatenation, unknown}, Case{"mode", upsampling, unknown},
        Case{"channel shuffle", shuffle, unknown},
        Case{"instance normalisation", OldPlanes<QZLayerInfo_InstanceNormalization>(6, 2, 1, 4, 4), unknown},
        Case{"region", OldPlanes<QZLayerInfo_Region>(9, 2, 1, 4, 4), unknown},
        Case{"depthwise transposed", OldConvolution<QZLayerInfo_DepthWiseConv2DTranspose>(16, 2, 4, 4, 24), unknown},
        Case{"depthwise channels", OldConvolution<QZLayerInfo_DepthWiseConv2D>(3, 2, 4, 8, 24), "[TLN]: "},
        Case{
            "weights divided", transposed,
            "[TLN]: first-generation layer 2: transposed convolution holds 12 weights, shape [2, 2, 3, 2] needs 24"}}) {
    SCOPED_TRACE(c.why);
    std::string refusal = RefusalOfLayer(c.layer);
    refusal.erase(refusal.find_last_not_of('\n') + 1);
    EXPECT_EQ(refusal, c.text);
  }
  TLModelInfo model;
  EXPECT_NE(RefusalOf([&model] { model.LoadFromTLModel1("/no such file"); }).find("Loading tlmdel1 fail."),
            std::string::npos);
}

// Without a limit a small file could have one large layer converted over and over.
TEST(TLModel1Conversion, ServesARepeatedIdOnlyAFewTimes) {
  TLModel1Writer file(10011);
  for (int i = 0; i < 8; ++i) file.Add(OldInput(1));
  TLModelInfo model;
  Convert(file, model);
  EXPECT_EQ(model.squential_ids, Names(8, "layer-1"));
  EXPECT_EQ(model.layers.size(), 1u);
  file.Add(OldInput(1));
  RefusalOf([&file] {
    TLModelInfo refused;
    Convert(file, refused);
  });
}

}  // namespace
}  // namespace talvo::test
