#include "talvo/runtime/create_net.h"

#include <gtest/gtest.h>

#include <tuple>

#include "talvo/entry/create_context.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/serialization/layer_info_activation.h"
#include "tests/runtime/scripted_kernel.h"
#include "tests/support/log_capture.h"
#include "tests/support/model_builder.h"

namespace talvo::runtime {
namespace {

using test::ModelBuilder;
using Refs = std::vector<std::pair<std::uint32_t, std::uint32_t>>;

std::vector<std::string> bound;  // "kernel(layer)" in the order of the calls

// Notes what it is bound to. "Refusing" answers false, "Throwing" throws.
class NotingKernel : public test::ScriptedKernel {
 public:
  explicit NotingKernel(std::string name)
      : ScriptedKernel([](auto const& inputs, auto& outputs, auto const&) { outputs = inputs; }),
        name_(std::move(name)) {}

  std::string GetName() const override { return name_; }
  bool Config(std::shared_ptr<LayerInfo> layer, std::shared_ptr<InferenceParam> param,
              std::shared_ptr<Context>) override {
    bound.push_back(name_ + "(" + (layer != nullptr ? layer->id : "-") + (param != nullptr ? "+p" : "") + ")");
    if (name_ == "Throwing") throw std::runtime_error("thrown by Config");
    return name_ != "Refusing";
  }

 private:
  std::string name_;
};

void AddConverter(KernelCfgArr& converters, std::string const& position, std::string const& kernel) {
  converters.kernel_ids.push_back(position);
  converters.kernels[position] = std::make_shared<KernelCfg>();
  converters.kernels[position]->kernel_type = kernel;
}

class CreateNetTest : public testing::Test {
 protected:
  CreateNetTest() {
    utility::create_context(context_, 64);
    for (std::string const name : {"K", "In", "Out", "Refusing", "Throwing"})
      kernels_.Register(
          name, [name] { return std::make_shared<NotingKernel>(name); }, false);
    bound.clear();
  }

  LayerInfo& Add(std::string const& id, std::vector<std::string> const& inputs, std::string const& kernel = "K") {
    if (inputs.empty()) return builder_.Add<InputInfo>(id, inputs, kernel);
    return builder_.Add<ActivationInfo>(id, inputs, kernel);
  }

  static std::shared_ptr<KernelInferenceConfig> Light(KernelCfg const& config) {
    auto light = std::make_shared<KernelInferenceConfig>();
    light->kernel_type = config.kernel_type;
    light->infer_param = config.infer_param;
    return light;
  }

  // The light form of the builder's configuration.
  std::shared_ptr<InferenceConfig> Light() const {
    auto light = std::make_shared<InferenceConfig>();
    for (std::string const& id : builder_.model->squential_ids) {
      LayerCfg const& config = *builder_.config->layers.at(id);
      LayerInferenceConfig& layer = light->layers.emplace_back();
      layer.kernel = Light(*config.kernel);
      for (auto const& [position, kernel] : config.input_converters->kernels)
        layer.input_converters[static_cast<unsigned int>(std::atoi(position.c_str()))] = Light(*kernel);
      for (auto const& [position, kernel] : config.output_converters->kernels)
        layer.output_converters[static_cast<unsigned int>(std::atoi(position.c_str()))] = Light(*kernel);
    }
    return light;
  }

  std::shared_ptr<Net> Packaged() { return CreateNet(builder_.model, builder_.config, kernels_, context_); }
  std::shared_ptr<Net> FromLight() { return CreateNet(builder_.model, Light(), kernels_, context_); }

  ModelBuilder builder_;
  ClassRegistry<std::shared_ptr<IKernel>> kernels_;
  std::shared_ptr<Context> context_;
};

TEST_F(CreateNetTest, WiresEveryInputToOutputZeroOfItsProducer) {
  Add("a", {});
  Add("c", {"a"});
  Add("b", {"a"});
  Add("d", {"b", "c", "b", "nowhere"});
  Add("e", {"c"}).id = "d";
  for (auto const& net : {Packaged(), FromLight()}) {
    ASSERT_EQ(net->layers.size(), 5u);
    EXPECT_EQ(net->layers[1]->consumers, (Refs{{3, 1}, {3, 0}})) << "a reader is what its record says it is";
    EXPECT_EQ(net->layers[3]->input_refs, (Refs{{2, 0}, {1, 0}, {2, 0}, {0, 0}})) << "the order is the layer's own";
    EXPECT_EQ(net->layers[0]->consumers, (Refs{{1, 0}, {2, 0}, {3, 3}})) << "an unknown id counts as layer 0";
    EXPECT_EQ(net->layers[2]->consumers, (Refs{{3, 0}, {3, 2}}));
    EXPECT_EQ(net->input_ids, (std::map<std::string, unsigned int>{{"a", 0}}));
  }
}

TEST_F(CreateNetTest, NamesTypesByTheirNumber) {
  for (unsigned short number = 0; number < 256; ++number) Add(std::to_string(number), {}).type = number;
  auto const net = Packaged();
  std::string names;
  for (auto const& layer : net->layers) names += layer->type == "UnKnown" ? "." : layer->type + " ";
  EXPECT_EQ(names,
            "Input Activation Conv2d ConvTranspose2d ..AvgPool2d MaxPool2d InstanceNorm2d BatchNorm2d Upsample2d "
            "ElementWiseOperator Concatenate TensorReshape TensorTranspose TensorSqueeze TensorUnSqueeze "
            "FullConnection ...PixelShuffle TensorGetItem ......Blob ......LSTM .........TensorSlice " +
                std::string(207, '.') + "Blob .");
}

TEST_F(CreateNetTest, ConfiguresConvertersAroundTheKernelOfEachLayer) {
  Add("a", {});
  Add("b", {"a"});
  LayerCfg& layer = *builder_.config->layers.at("b");
  AddConverter(*layer.input_converters, "1", "In");
  AddConverter(*layer.input_converters, "x", "K");  // position 0
  AddConverter(*layer.output_converters, "0", "Out");
  AddConverter(*layer.output_converters, "3", "Refusing");
  layer.kernel->infer_param = std::make_shared<InferenceParamConv2DQuant>();
  for (bool const packaged : {true, false}) {
    SCOPED_TRACE(packaged);
    bound.clear();
    auto const net = packaged ? Packaged() : FromLight();
    auto want = std::vector<std::string>{"K(a)", "In(-)", "K(-)", "K(b+p)", "Out(-)", "Refusing(-)"};
    if (!packaged) std::swap(want[1], want[2]);  // by position
    EXPECT_EQ(bound, want);
    auto const& converters = net->layers[1]->input_converters;
    ASSERT_EQ(converters.size(), 2u);
    EXPECT_EQ(converters.at(0)->GetName(), "K");
    EXPECT_EQ(converters.at(1)->GetName(), "In");
    EXPECT_EQ(net->layers[1]->output_converters.at(0)->GetName(), "Out");
    EXPECT_EQ(net->layers[1]->output_converters.at(3), nullptr) << "a converter that refuses stays empty";
  }
}

TEST_F(CreateNetTest, AMainKernelThatRefusesEndsOneFormAndStaysEmptyInTheOther) {
  Add("a", {});
  Add("b", {"a"}, "Refusing");
  EXPECT_EQ(test::RefusalOf([&] { Packaged(); }), "[TLN]: ");
  auto const net = FromLight();
  EXPECT_EQ(net->layers[1]->kernel, nullptr);
  auto const input = context_->device_cpu->CreateF32CMainMemory(1, nullptr);
  auto const run = [&] { net->Forward({{0, input}}, {1}, context_, nullptr, nullptr); };
  EXPECT_NE(test::RefusalOf(run).find("layer 1 (Activation): its kernel is missing"), std::string::npos);
}

TEST_F(CreateNetTest, ALayerThatStandsTwiceCountsWhereItStandsLast) {
  Add("a", {});
  Add("b", {"a"});
  Add("c", {"b"});
  builder_.model->squential_ids.insert(builder_.model->squential_ids.begin(), "b");
  std::string const text = test::RefusalOf([&] { Packaged(); });
  EXPECT_NE(text.find("layer b (K): its input 0 is layer a"), std::string::npos) << text;
  EXPECT_TRUE(
      CreateNet(std::make_shared<TLModelInfo>(), std::make_shared<TLModelCfg>(), kernels_, context_)->layers.empty());
}

TEST_F(CreateNetTest, RefusesWhatCannotRun) {
  using Row = std::tuple<std::function<void(LayerInfo&, LayerCfg&)>, std::string, bool>;  // the last: in both forms
  auto& model = builder_.model;
  auto& config = builder_.config;
  for (auto const& [spoil, text, in_both_forms] :
       {Row{[](auto&, auto&c) { c.kernel->kernel_type = "No"; }, "layer b: its kernel \"No\" is not reg", true},
        Row{[](auto&, auto&c) { c.kernel->kernel_type = "Throwing"; }, "thrown by Config", true},
        Row{[](auto&b, auto&) { b.input_ids.push_back("b"); }, "layer b (K): its input 1 is layer b", true},
        Row{[](auto&b, auto&) { b.input_ids.assign(9, "a"); }, "inputs of layer b: the id a stands", true},
        Row{[&](auto&, auto&) { model->layers.erase("b"); }, "layer b: the model has no record", false},
        Row{[&](auto&, auto&) { model->layers["b"] = nullptr; }, "layer b: the model has no record", true},
        Row{[&](auto&, auto&) { model->squential_ids.assign(9, "a"); }, "layers of the model: the id a", true},
        Row{[&](auto&, auto&) { config->layers.erase("b"); }, "layer b: the configuration has no record", false},
        Row{[&](auto&, auto&) { config->layers["b"] = nullptr; }, "layer b: the configuration has no", false},
        Row{[](auto&, auto&c) { c.kernel = nullptr; }, "layer b: its configuration names no kernel", false},
        Row{[](auto&, auto&c) { c.input_converters = nullptr; }, "layer b: its configuration has no list", false},
        Row{[](auto&, auto&c) { c.output_converters->kernel_ids = {"0"}; }, "names no converter", false},
        Row{[](auto&, auto&c) { AddConverter(*c.input_converters, "0", "No"); }, "its converter \"No\" is", false}}) {
    builder_ = ModelBuilder();
    Add("a", {});
    LayerInfo& b = Add("b", {"a"});
    spoil(b, *config->layers.at("b"));
    std::string const packaged = test::RefusalOf([&] { Packaged(); });
    EXPECT_NE(packaged.find(text), std::string::npos) << packaged << text;
    std::string const light = in_both_forms ? test::RefusalOf([&] { FromLight(); }) : text;
    EXPECT_NE(light.find(text), std::string::npos) << light << text;
  }
}

TEST_F(CreateNetTest, RefusesEmptyArgumentsAndShortLightConfigurations) {
  Add("a", {});
  auto light = Light(), short_of_one = std::make_shared<InferenceConfig>();
  light->layers[0].kernel = nullptr;
  auto const expect = [&](std::shared_ptr<TLModelInfo> const& model, auto const& config, char const* text) {
    EXPECT_NE(test::RefusalOf([&] { CreateNet(model, config, kernels_, context_); }).find(text), std::string::npos);
  };
  expect(nullptr, builder_.config, "the model is empty");
  expect(builder_.model, std::shared_ptr<TLModelCfg>(), "the configuration is empty");
  expect(builder_.model, CreateCfg(builder_.model, kernels_, "x86"), "the configuration is empty");
  expect(builder_.model, light, "layer a: its configuration names no kernel");
  expect(builder_.model, short_of_one, "layer a: the configuration has 0 records");
}

}  // namespace
}  // namespace talvo::runtime
