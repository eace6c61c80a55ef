// upgrade_model as a user runs it, and its packages as an application opens them.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <memory>

#include "tests/support/application.h"
#include "tests/support/bits.h"
#include "tests/support/run_program.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/tlmodel1_writer.h"

namespace talvo::test {
namespace {

using half_float::half;
using namespace runtime;
using namespace talvo1;

Outcome Upgrade(std::string const& arguments) { return RunProgram(TALVO_UPGRADE_MODEL " " + arguments); }

// A file of version 10011 with an input, layer 1, and these layers.
std::string OldFile(std::initializer_list<QZLayerInfo const*> layers) {
  TLModel1Writer file(10011);
  file.Add(OldLayer<QZLayerInfo_Input>(1, {}));
  for (QZLayerInfo const* const layer : layers) file.Add(*layer);
  return file.bytes;
}

// A convolution of one tap.
template <class Layer = QZLayerInfo_Conv2D>
Layer OldPoints(unsigned short id, unsigned short input, unsigned short in, unsigned short out, std::size_t weights) {
  return OldConvolution<Layer>(id, input, in, out, 1, 1, weights);
}

QZLayerInfo_BatchNormalization Normalisation(unsigned short id, unsigned short input, unsigned short channels) {
  auto layer = OldLayer<QZLayerInfo_BatchNormalization>(id, {input}, channels, channels);
  layer.scale = HalfFloats(id, channels);
  layer.shift = HalfFloats(id + 50u, channels);
  layer.mean = HalfFloats(id + 60u, channels);
  for (unsigned short c = 0; c < channels; ++c) layer.variance.push_back(0.25f + static_cast<float>(c));
  return layer;
}

float Normalised(QZLayerInfo_BatchNormalization const& layer, std::size_t channel, float value) {
  return layer.scale[channel] * (value - layer.mean[channel]) / std::sqrt(layer.variance[channel] + 0.00001f) +
         layer.shift[channel];
}

// The result of the package on a picture of one point, the same for both back ends.
std::vector<float> RunPackage(std::string const& path, std::vector<float> const& input) {
  auto const point = [&](Context const& context) {
    return FloatTensor(context, {static_cast<unsigned int>(input.size()), 1, 1}, TensorShape::CHW, input);
  };
  auto const result = Application(path).Run(point).at(0);
  EXPECT_EQ(Application(path).Run(point, "arm").at(0), result);
  return result;
}

// A grouped convolution and a transposed one, each with its normalisation, and a leaky activation.
TEST(UpgradeModel, FoldsNormalisationsIntoTheirConvolutions) {
  auto direct = OldPoints(2, 1, 4, 6, 6 * 2);
  direct.groups = 2;
  direct.if_bias = 1;
  auto const first = Normalisation(3, 2, 6), second = Normalisation(6, 5, 3);
  auto leaky = OldLayer<QZLayerInfo_Activation>(4, {3});
  leaky.kind = 6;
  leaky.alpha = half(0.25f);
  auto const transposed = OldPoints<QZLayerInfo_Conv2DTranspose>(5, 4, 6, 3, 6 * 3);
  ScratchFolder const folder;
  std::string const in = folder.Save("in.old", OldFile({&direct, &first, &leaky, &transposed, &second}));
  std::string const out = folder.Path("out.tlnmodel");
  Outcome const outcome = Upgrade(in + " " + out + " --default-config --model-id net");
  EXPECT_EQ(outcome.status, 0) << outcome.text;
  for (char const* const text :
       {"layer-2       Conv2D                    with its batch normalisation layer-3: layer-3 Conv2dInfo Conv2D_Knxm",
        "layer-3       BatchNormalization        folded into the convolution layer-2", "Leaky_Fallback_Float_M1",
        "6 layers became 4"})
    EXPECT_NE(outcome.text.find(text), std::string::npos) << outcome.text;

  std::vector<float> const input = Floats(9, 4);
  std::vector<float> middle(6), want(3);
  for (std::size_t o = 0; o < 6; ++o) {
    for (std::size_t i = 0; i < 2; ++i) middle[o] += direct.weights[o * 2 + i] * input[o / 3 * 2 + i];
    float const value = Normalised(first, o, middle[o] + direct.bias[o]);
    middle[o] = value < 0 ? 0.25f * value : value;
  }
  for (std::size_t o = 0; o < 3; ++o) {
    for (std::size_t i = 0; i < 6; ++i) want[o] += transposed.weights[o * 6 + i] * middle[i];
    want[o] = Normalised(second, o, want[o]);  // if_bias is 0
  }
  std::vector<float> const got = RunPackage(out, input);
  ASSERT_EQ(got.size(), want.size());
  for (std::size_t i = 0; i < 3; ++i) EXPECT_NEAR(got[i], want[i], 0.004f) << "12 roundings to binary16";
}

TEST(UpgradeModel, TakesTheKernelsOfAConfiguration) {
  auto convolution = OldPoints(2, 1, 4, 2, 8);
  convolution.activation = 2;
  TLModelCfg config;
  for (auto const& [id, kernel] : {std::pair{"layer-1", "Input_Fallback_M1"},
                                   {"layer-2!", "Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1"},
                                   {"layer-2", "ReLU_Fallback_Float_M1"}}) {
    config.squential_ids.push_back(id);
    config.layers[id] = std::make_shared<LayerCfg>();
    config.layers[id]->kernel->kernel_type = kernel;
  }
  ScratchFolder const folder;
  std::string const json = folder.Path("config.json"), in = folder.Save("stem.old", OldFile({&convolution}));
  std::string const out = folder.Path("out.tlnmodel");
  config.ToFile(json.c_str(), "json");
  Outcome const outcome = Upgrade(in + " " + out + " --config " + json);
  EXPECT_EQ(outcome.status, 0) << outcome.text;
  EXPECT_NE(outcome.text.find("layer-2! Conv2dInfo Conv2d_K1x1_S1x1_D1x1_G1_SGEMM"), std::string::npos) << outcome.text;
  std::vector<float> const input = Floats(9, 4);
  std::vector<float> want(2);
  for (std::size_t o = 0; o < 2; ++o) {
    for (std::size_t i = 0; i < 4; ++i) want[o] += convolution.weights[o * 4 + i] * input[i];
    want[o] = std::max(want[o], 0.0f);
  }
  ExpectNearSum(want, RunPackage(out, input), 4, 4.0f);
  auto second = convolution;
  second.id = 3;
  std::string const broken = folder.Save("broken.json", "{\n  \"squential_ids\": [,]\n}");
  EXPECT_EQ(Upgrade(in + " " + out + " --config " + broken).text,
            "upgrade_model: " + broken + ": no JSON: line 2, column 21: Invalid value.\n");
  EXPECT_EQ(Upgrade(folder.Save("stem.old", OldFile({&convolution, &second})) + " " + out + " --config " + json).text,
            "upgrade_model: " + json + ": names no kernel for layer-3! (Conv2dInfo)\n");
}

TEST(UpgradeModel, RefusesWithLayerAndReason) {
  auto sigmoid = OldLayer<QZLayerInfo_Activation>(2, {1});
  sigmoid.kind = 1;
  auto bicubic = OldLayer<QZLayerInfo_Upsampling>(2, {1});
  bicubic.mode = 2;
  auto concatenation = OldLayer<QZLayerInfo_Concatenate>(2, {1, 1});
  concatenation.axis = 1;
  auto const squeeze = OldLayer<QZLayerInfo_TensorSqueeze>(2, {1});
  auto shuffle = OldLayer<QZLayerInfo_ChannelShuffle>(2, {1}, 1);
  shuffle.order = {0};
  auto const convolution = OldPoints(2, 1, 4, 2, 8);
  auto activated = convolution;
  activated.activation = 2;
  auto const normalisation = Normalisation(3, 2, 2), wide = Normalisation(3, 2, 5), other = Normalisation(4, 2, 2);
  auto const again = Normalisation(4, 3, 2);
  auto const nothing = OldLayer<QZLayerInfo_DepthWiseConv2D>(2, {1}, 0, 0);
  auto const of_nothing = Normalisation(3, 2, 0);
  auto constant = normalisation;
  constant.variance[1] = -1.0f;
  std::string const only_reader =
      "layer-3 (BatchNorm2dInfo): no kernel is known for a batch normalisation that is not the only reader of a "
      "convolution";
  ScratchFolder const folder;
  std::string const out = folder.Path("out.tlnmodel");
  for (auto const& [bytes, text] : std::vector<std::pair<std::string, std::string>>{
           {OldFile({&sigmoid}), "layer-2 (ActivationInfo): no kernel is known for activation type 1"},
           {OldFile({&bicubic}), "layer-2 (Upsample2dInfo): no kernel is known for bicubic upsampling"},
           {OldFile({&concatenation}), "layer-2 (ConcatenateInfo): no kernel is known for a concatenation with dim 2"},
           {OldFile({&squeeze}), "layer-2 (TensorSqueezeInfo): no kernel is known for this class"},
           {OldFile({&shuffle}), "layer-2 (ChannelShuffle): Not Implemented."},
           {OldFile({&activated, &normalisation}), only_reader},
           {OldFile({&convolution, &normalisation, &other}), only_reader},
           {OldFile({&convolution, &normalisation, &again}), "layer-4" + only_reader.substr(7)},
           {OldFile({&convolution, &wide}), "layer-3: normalises 5 channels, the convolution in front of it makes 2"},
           {OldFile({&nothing, &of_nothing}), "layer-3: normalises 0 channels, the convolution in front of it makes 0"},
           {OldFile({&convolution, &constant}),
            "layer-3: the batch normalisation cannot be folded, a result is too large or no number"},
           {TLModel1Writer(9999).bytes, "version 9999 is older than 10000"},
           {OldFile({&sigmoid}).substr(0, 1030),
            "no first-generation model, or a damaged one: message_end == 0xaaaa does not hold"},
           {OldFile({}) + std::string("\x55\x55\x0C\x00", 4),
            "no first-generation model, or a damaged one: Error, Unsupport Layer Type 12."}}) {
    std::string const in = folder.Save("in.old", bytes);
    Outcome const outcome = Upgrade(in + " " + out + " --default-config");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.text, "upgrade_model: " + in + ": " + text + "\n");
    EXPECT_FALSE(std::ifstream(out).is_open());
  }
  EXPECT_EQ(Upgrade("no_such_file " + out + " --default-config").status, 1);
  EXPECT_EQ(Upgrade("/ " + out + " --default-config").text, "upgrade_model: /: is a folder\n");
}

TEST(UpgradeModel, TellsHowToCallIt) {
  for (char const* const arguments :
       {"", "in.old", "in.old out.tlnmodel", "in.old out.bin --default-config", "in out.tlnmodel --config",
        "in out.tlnmodel --default-config --config c.json", "in out.tlnmodel --default-config --sdk-version 1",
        "in out.tlnmodel --default-config --sdk-version 1.65536", "in out.tlnmodel more --default-config",
        "in out.tlnmodel --unknown"}) {
    Outcome const outcome = Upgrade(arguments);
    EXPECT_EQ(outcome.status, 2) << arguments;
    EXPECT_NE(outcome.text.find("usage: upgrade_model"), std::string::npos) << arguments;
  }
}

}  // namespace
}  // namespace talvo::test
