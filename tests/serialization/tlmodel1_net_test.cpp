// Converted models as nets, beside what the layers of the first generation meant, computed from their own weights.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>

#include "talvo/entry/register_operators.h"
#include "talvo/runtime/create_net.h"
#include "talvo/serialization/tlmodel1_conversion.h"
#include "tests/support/bits.h"
#include "tests/support/guarded_context.h"
#include "tests/support/tlmodel1_writer.h"

namespace talvo::test {
namespace {

using namespace runtime;
using namespace talvo1;

struct Planes {
  unsigned int channels, height, width;
  std::vector<float> values;
  float& At(std::size_t c, std::size_t y, std::size_t x) { return values[(c * height + y) * width + x]; }
  float At(std::size_t c, std::size_t y, std::size_t x) const { return values[(c * height + y) * width + x]; }
};

Planes Zeros(unsigned int channels, unsigned int height, unsigned int width) {
  return {channels, height, width, std::vector<float>(std::size_t{channels} * height * width)};
}

Planes Sample(unsigned int channels, unsigned int height, unsigned int width) {
  return {channels, height, width, Floats(7, std::size_t{channels} * height * width)};
}

void Configure(TLModelInfo const& model, std::map<unsigned short, char const*> const& kernels, TLModelCfg& config) {
  for (std::string const& id : model.squential_ids) {
    auto const layer = std::make_shared<LayerCfg>();
    layer->kernel->kernel_type = kernels.at(model.layers.at(id)->type);
    config.layers[id] = layer;
  }
}

// The result of a net of `layer` and the layer 1 that it reads.
std::vector<float> Result(QZLayerInfo const& layer, unsigned int version, std::vector<unsigned int> const& dims,
                          unsigned int layout, std::vector<float> const& values) {
  static std::map<unsigned short, char const*> const kernels = {
      {0, "Input_Fallback_M1"},
      {1, "ReLU_Fallback_Float_M1"},
      {2, "Conv2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1"},
      {3, "ConvTranspose2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1"},
      {6, "Pooling2D_Avg_Fallback_Float_M1"},
      {7, "Pooling2D_Max_Fallback_Float_M1"},
      {10, "Upsampling2D_Fallback_CHW_Float_M1"},
      {11, "Elementwise_Fallback_Float_M1"},
      {12, "Concatenate_C_Fallback_CnHWn_M1"},
      {13, "Reshape_Fallback_To_C_M1"},
      {14, "Transform_MainMemory_Permute_Fallback"},
      {17, "FullConnection_Fallback_C_Float_M1"},
      {21, "Pixelshuffle_Fallback_CHW_Float_M1"},
      {36, "LSTM_Fallback_SC_F32_M1"}};
  TLModel1Writer file(version);
  auto input = OldLayer<QZLayerInfo_Input>(0, 1, {});
  input.output_shapes = {OldShape(1, 1, 1)};
  file.Add(input);
  file.Add(layer);
  QZNetLoader loader;
  EXPECT_TRUE(ReadOldModel(file.bytes, loader));
  auto const model = std::make_shared<TLModelInfo>();
  ConvertTLModel1(loader, *model);
  auto const config = std::make_shared<TLModelCfg>();
  Configure(*model, kernels, *config);
  ClassRegistry<std::shared_ptr<IKernel>> registry;
  ClassRegistry<std::shared_ptr<InferenceParam>> params;
  utility::init_register_operators(registry, params);
  auto const context = GuardedContext();
  auto const net = CreateNet(model, config, registry, context);
  auto const last = static_cast<unsigned int>(model->squential_ids.size() - 1);
  auto outputs = net->Forward({{0u, FloatTensor(*context, dims, layout, values)}}, {last}, context, nullptr, nullptr);
  return Values(*outputs.at(last).at(0));
}

std::vector<float> Result(QZLayerInfo const& layer, unsigned int version, Planes const& input) {
  return Result(layer, version, {input.channels, input.height, input.width}, TensorShape::CHW, input.values);
}

template <class Layer>
Layer OldPlanes(unsigned short type, Planes const& input, unsigned short out_channels) {
  Layer layer = OldLayer<Layer>(type, 2, {1});
  layer.input_shapes = {OldShape(static_cast<unsigned short>(input.channels), input.height, input.width)};
  layer.output_shapes = {OldShape(out_channels, input.height, input.width)};
  return layer;
}

void FillConvolution(QZConvolution& layer, std::size_t weights, std::size_t out) {
  layer.kernel_x = 3;
  layer.kernel_y = 2;
  layer.pad_x = 1;
  layer.pad_y = 2;
  layer.stride_x = 1;
  layer.stride_y = 2;
  layer.if_bias = 1;
  layer.weights = HalfFloats(3, weights);
  layer.bias = HalfFloats(4, out);
}

// y = bias, and then for each input channel of the group the sum over its taps. weight(o, ky, kx, i): o an output of
// all, i an input of the group.
template <class Weight>
Planes Convolve(QZConvolution const& layer, Planes const& input, unsigned int out, unsigned int groups, Weight weight) {
  unsigned int const height =
      (input.height + 2u * layer.pad_y - layer.dilation_y * (layer.kernel_y - 1u) - 1) / layer.stride_y + 1;
  unsigned int const width =
      (input.width + 2u * layer.pad_x - layer.dilation_x * (layer.kernel_x - 1u) - 1) / layer.stride_x + 1;
  std::size_t const group_inputs = input.channels / groups, group_outputs = out / groups;
  Planes result = Zeros(out, height, width);
  for (std::size_t o = 0; o < out; ++o)
    for (std::size_t y = 0; y < height; ++y)
      for (std::size_t x = 0; x < width; ++x) {
        result.At(o, y, x) = layer.if_bias != 0 ? layer.bias[o] : 0.0f;
        for (std::size_t i = 0; i < group_inputs; ++i) {
          float sum = 0.0f;
          for (std::size_t ky = 0; ky < layer.kernel_y; ++ky)
            for (std::size_t kx = 0; kx < layer.kernel_x; ++kx) {
              std::size_t const iy = y * layer.stride_y + ky * layer.dilation_y - layer.pad_y;  // wraps above the top
              std::size_t const ix = x * layer.stride_x + kx * layer.dilation_x - layer.pad_x;
              bool const inside = iy < input.height && ix < input.width;
              sum += weight(o, ky, kx, i) * (inside ? input.At(o / group_outputs * group_inputs + i, iy, ix) : 0.0f);
            }
          result.At(o, y, x) += sum;
        }
      }
  return result;
}

TEST(TLModel1Net, RunsConvolutions) {
  for (unsigned int const version : {10000u, 10001u}) {
    SCOPED_TRACE(version);
    Planes const input = Sample(4, 7, 9);
    auto layer = OldPlanes<QZLayerInfo_Conv2D>(1, input, 6);
    unsigned int const groups = version == 10000 ? 1 : 2;
    layer.groups = static_cast<unsigned short>(groups);
    layer.dilation_x = 2;
    layer.activation = 2;
    std::size_t const group_inputs = 4 / groups;
    FillConvolution(layer, 6 * 6 * group_inputs, 6);
    Planes want = Convolve(layer, input, 6, groups, [&](std::size_t o, std::size_t ky, std::size_t kx, std::size_t i) {
      return layer.weights[((o * 2 + ky) * 3 + kx) * group_inputs + i];
    });
    for (float& value : want.values) value = 0 > value ? 0 : value;
    ExpectSameBits(want.values, Result(layer, version, input));
  }
}

TEST(TLModel1Net, RunsDepthwiseConvolutions) {
  Planes const input = Sample(5, 6, 8);
  auto layer = OldPlanes<QZLayerInfo_DepthWiseConv2D>(3, input, 5);
  FillConvolution(layer, 6 * 5, 5);
  layer.if_bias = 0;
  Planes const want = Convolve(layer, input, 5, 5, [&](std::size_t o, std::size_t ky, std::size_t kx, std::size_t) {
    return layer.weights[(ky * 3 + kx) * 5 + o];
  });
  ExpectSameBits(want.values, Result(layer, 10003, input));
}

// Each input element adds the whole kernel, times itself, at stride times its place; paddings are borders around the
// spread input, so a kernel of k taps reaches k - 1 - pad elements out of the result.
TEST(TLModel1Net, RunsTransposedConvolutions) {
  Planes const input = Sample(3, 4, 5);
  auto layer = OldPlanes<QZLayerInfo_Conv2DTranspose>(2, input, 2);
  FillConvolution(layer, 2 * 6 * 3, 2);
  layer.stride_x = 3;
  layer.pad_y = 0;
  Planes want = Zeros(2, 2 * 4 - 1, 3 * 5 + 2 - 2);
  for (std::size_t o = 0; o < 2; ++o) {
    std::fill_n(&want.At(o, 0, 0), want.height * want.width, layer.bias[o]);
    for (std::size_t i = 0; i < 3; ++i)
      for (std::size_t iy = 0; iy < 4; ++iy)
        for (std::size_t ix = 0; ix < 5; ++ix)
          for (std::size_t ky = 0; ky < 2; ++ky)
            for (std::size_t kx = 0; kx < 3; ++kx) {
              std::size_t const y = iy * 2 + ky - 1, x = ix * 3 + kx - 1;  // wraps in front of the result
              if (y < want.height && x < want.width)
                want.At(o, y, x) += input.At(i, iy, ix) * layer.weights[((o * 2 + ky) * 3 + kx) * 3 + i];
            }
  }
  ExpectSameBits(want.values, Result(layer, 10003, input));
}

TEST(TLModel1Net, RunsPoolingsWithTheRoundingOfTheOldShapes) {
  for (unsigned int const out_height : {2u, 3u}) {
    SCOPED_TRACE(out_height);
    Planes const input = Sample(3, 5, 8);
    auto layer = OldPlanes<QZLayerInfo_Pooling>(5, input, 3);
    layer.output_shapes[0] = OldShape(3, out_height, 3);
    layer.kernel_x = 3;
    layer.kernel_y = layer.stride_x = layer.stride_y = 2;
    layer.kind = 1;
    unsigned int const width = out_height == 3 ? 4 : 3;
    Planes want = Zeros(3, out_height, width);
    for (std::size_t c = 0; c < 3; ++c)
      for (std::size_t y = 0; y < out_height; ++y)
        for (std::size_t x = 0; x < width; ++x) {
          float best = -10.0f;
          for (std::size_t iy = 2 * y; iy < std::min<std::size_t>(2 * y + 2, 5); ++iy)
            for (std::size_t ix = 2 * x; ix < std::min<std::size_t>(2 * x + 3, 8); ++ix)
              best = std::max(best, input.At(c, iy, ix));
          want.At(c, y, x) = best;
        }
    ExpectSameBits(want.values, Result(layer, 10001, input));
    layer.kind = 0;  // always rounded down
    EXPECT_EQ(Result(layer, 10001, input).size(), 3u * 2 * 3);
  }
}

TEST(TLModel1Net, RunsLayersOfSeveralInputs) {
  Planes const input = Sample(2, 3, 4);
  auto layer = OldLayer<QZLayerInfo_ElementWiseOperator>(10, 2, {1, 1});
  layer.output_shapes = {OldShape(2, 3, 4)};
  layer.activation = 2;
  std::vector<float> want;
  for (float const value : input.values) want.push_back(0 > value + value ? 0 : value + value);
  ExpectSameBits(want, Result(layer, 10001, input));
  auto joined = OldLayer<QZLayerInfo_Concatenate>(11, 2, {1, 1, 1});
  joined.output_shapes = {OldShape(6, 3, 4)};
  want.clear();
  for (int i = 0; i < 3; ++i) want.insert(want.end(), input.values.begin(), input.values.end());
  ExpectSameBits(want, Result(joined, 10001, input));
}

TEST(TLModel1Net, RunsLayersThatMoveElements) {
  Planes const input = Sample(8, 2, 3);
  Planes doubled = Zeros(8, 4, 6), shuffled = Zeros(2, 4, 6), turned = Zeros(2, 3, 8);
  for (std::size_t c = 0; c < 8; ++c)
    for (std::size_t y = 0; y < 4; ++y)
      for (std::size_t x = 0; x < 6; ++x) {
        doubled.At(c, y, x) = input.At(c, y / 2, x / 2);
        if (c < 2) shuffled.At(c, y, x) = input.At(c * 4 + y % 2 * 2 + x % 2, y / 2, x / 2);
        if (y < 2 && x < 3) turned.At(y, x, c) = input.At(c, y, x);
      }
  auto upsampling = OldPlanes<QZLayerInfo_Upsampling>(14, input, 8);
  upsampling.scale_factor = half_float::half(2.0f);
  ExpectSameBits(doubled.values, Result(upsampling, 10001, input));
  auto shuffle = OldPlanes<QZLayerInfo_PixelShuffle>(4, input, 2);
  shuffle.upscale_factor = half_float::half(2.0f);
  ExpectSameBits(shuffled.values, Result(shuffle, 10001, input));
  auto transpose = OldLayer<QZLayerInfo_TensorTranspose>(19, 2, {1});
  transpose.output_tensor = OldTensor({1, 2, 3, 8});
  transpose.axes = {0, 2, 3, 1};
  ExpectSameBits(turned.values, Result(transpose, 10008, input));
  auto reshape = OldLayer<QZLayerInfo_TensorReshape>(18, 2, {1});
  reshape.output_tensor = OldTensor({1, 48});
  ExpectSameBits(input.values, Result(reshape, 10008, input));
}

// Two layers, gates in the order input, forget, cell, output; rows of weights are gate times size plus unit.
TEST(TLModel1Net, RunsStackedLSTMs) {
  constexpr std::size_t kSize = 3, kSteps = 4;
  auto layer = OldLayer<QZLayerInfo_LSTM>(22, 2, {1});
  layer.in_size = layer.hidden_size = kSize;
  layer.num_layers = 2;
  layer.if_bias = 1;
  for (std::uint32_t l = 0; l < 2; ++l)
    layer.forward.push_back(
        {HalfFloats(l, 36), HalfFloats(l + 10, 36), HalfFloats(l + 20, 12), HalfFloats(l + 30, 12)});
  std::vector<float> const input = Floats(5, kSteps * kSize);
  std::vector<float> got = Result(layer, 10008, {kSteps, kSize}, TensorShape::SC, input);
  ASSERT_EQ(got.size(), input.size());
  double hidden[2][kSize] = {}, cell[2][kSize] = {};
  auto const sigmoid = [](double x) { return 1.0 / (1.0 + std::exp(-x)); };
  for (std::size_t t = 0; t < kSteps; ++t) {
    double x[kSize];
    std::copy_n(input.begin() + static_cast<std::ptrdiff_t>(t * kSize), kSize, x);
    for (std::size_t l = 0; l < 2; ++l) {
      QZLSTMWeights const& weights = layer.forward[l];
      double gates[4 * kSize];
      for (std::size_t g = 0; g < 4 * kSize; ++g) {
        gates[g] = weights.bias_ih[g] + weights.bias_hh[g];
        for (std::size_t i = 0; i < kSize; ++i)
          gates[g] += weights.weight_ih[g * kSize + i] * x[i] + weights.weight_hh[g * kSize + i] * hidden[l][i];
      }
      for (std::size_t u = 0; u < kSize; ++u) {
        cell[l][u] = sigmoid(gates[kSize + u]) * cell[l][u] + sigmoid(gates[u]) * std::tanh(gates[2 * kSize + u]);
        hidden[l][u] = sigmoid(gates[3 * kSize + u]) * std::tanh(cell[l][u]);
      }
      std::copy_n(hidden[l], kSize, x);
    }
    for (std::size_t u = 0; u < kSize; ++u) EXPECT_NEAR(got[t * kSize + u], hidden[1][u], 1e-5);
  }
}

TEST(TLModel1Net, RunsDenseLayers) {
  auto layer = OldLayer<QZLayerInfo_FullConnection>(21, 2, {1});
  layer.in_features = 5;
  layer.out_features = 3;
  layer.if_bias = 1;
  layer.weights = HalfFloats(1, 15);
  layer.bias = HalfFloats(2, 3);
  std::vector<float> const input = Floats(3, 5);
  std::vector<float> want(3);
  for (std::size_t o = 0; o < 3; ++o) {
    for (std::size_t i = 0; i < 5; ++i) want[o] += layer.weights[o * 5 + i] * input[i];
    want[o] += layer.bias[o];
  }
  ExpectNearSum(want, Result(layer, 10008, {5}, TensorShape::C, input), 6, 6.0f);
}

}  // namespace
}  // namespace talvo::test
