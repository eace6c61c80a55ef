#include "talvo/runtime/inference_config.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>

#include "tests/support/log_capture.h"

namespace talvo::runtime {
namespace {

using ParamRegistry = ClassRegistry<std::shared_ptr<InferenceParam>>;

ParamRegistry Params() {
  ParamRegistry params;
  params.Register(
      "Quant", [] { return std::make_shared<InferenceParamConv2DQuant>(); }, false);
  return params;
}

std::shared_ptr<KernelInferenceConfig> Kernel(std::string const& name) {
  auto kernel = std::make_shared<KernelInferenceConfig>();
  kernel->kernel_type = name;
  return kernel;
}

TEST(InferenceConfig, ReadsConvertersAndParametersByPosition) {
  auto const params = Params();
  auto const config = CreateConfigFromJSON(
      R"({"config": [
        {"input_converters": {"2": {"kernel_type": "C", "infer_param_type": ""}, "x": {"kernel_type": "A", "infer_param_type": ""},
                              "0": {"kernel_type": "B", "infer_param_type": ""},
                              "99999999999999999999": {"kernel_type": "D", "infer_param_type": ""}},
         "kernel": {"kernel_type": "K", "infer_param_type": "Quant",
                    "infer_param": {"weight_step_size": 5, "output_step_size": -3}}},
        {"kernel": {"kernel_type": "L", "infer_param_type": "", "infer_param": 7},
         "output_converters": {"4": {"kernel_type": "O", "infer_param_type": ""}}}]})",
      params);
  ASSERT_EQ(config->layers.size(), 2u);
  auto const& converters = config->layers[0].input_converters;
  ASSERT_EQ(converters.size(), 3u);
  EXPECT_EQ(converters.at(0)->kernel_type, "B") << "\"x\" counts as 0, and a later one replaces it";
  EXPECT_EQ(converters.at(2)->kernel_type, "C");
  auto const quant = std::dynamic_pointer_cast<InferenceParamConv2DQuant>(config->layers[0].kernel->infer_param);
  ASSERT_NE(quant, nullptr);
  EXPECT_EQ(quant->weight_step_size, 5);
  EXPECT_EQ(quant->output_step_size, -3);
  EXPECT_EQ(config->layers[1].kernel->infer_param, nullptr) << "without a type the member is ignored";
  EXPECT_EQ(config->layers[1].output_converters.at(4)->kernel_type, "O");
}

TEST(InferenceConfig, WritesTheInputConvertersTwiceAndReadsWhatItWrote) {
  auto const params = Params();
  InferenceConfig config;
  EXPECT_EQ(config.ToJSON(), "{\n    \"config\": []\n}");
  config.layers.resize(2);
  for (auto& layer : config.layers) {
    layer.kernel = Kernel("K");
    layer.output_converters[4] = Kernel("Out");
  }
  config.layers[1].kernel->infer_param_type = "Quant";
  config.layers[1].kernel->infer_param_registry = &params;  // the parameters are made
  config.layers[1].input_converters[10] = Kernel("In");
  std::string text = config.ToJSON();
  EXPECT_NE(text.find("{\n            \"kernel\": {\n                \"kernel_type\": \"K\",\n"), std::string::npos);
  text.erase(std::remove_if(text.begin(), text.end(), [](unsigned char c) { return std::isspace(c); }), text.end());
  std::string const in = R"(_converters":{"10":{"kernel_type":"In","infer_param_type":""}})";
  EXPECT_EQ(text, R"({"config":[{"kernel":{"kernel_type":"K","infer_param_type":""},"output_converters":{}},{"input)" +
                      in +
                      R"(,"kernel":{"kernel_type":"K","infer_param_type":"Quant","infer_param":)"
                      R"({"weight_step_size":8,"output_step_size":11}},"output)" +
                      in + "}]}");
  config.layers[0].output_converters.clear();  // an empty map leaves nothing to be read
  EXPECT_EQ(CreateConfigFromJSON(config.ToJSON(), params)->ToJSON(), config.ToJSON());
}

TEST(InferenceConfig, RefusesTextsOfAnotherForm) {
  auto const params = Params();
  std::string const kernel = R"("kernel": {"kernel_type": "K", "infer_param_type": ")";
  for (auto const& [layers, named] : std::vector<std::pair<std::string, char const*>>{
           {"[", "document.IsObject()"},
           {"{}", "no array \"config\""},
           {"[[]]", "config[0]: a layer"},
           {"[{" + kernel + "\"}}, {}]", "config[1]: there is no \"kernel\""},
           {R"([{"input_converters": [], "kernel": {}}])", "config[0].input_converters: "},
           {"[{" + kernel + R"("}, "output_converters": {"1": null}}])", "config[0].output_converters.1: a kernel"},
           {"[{" + kernel + R"(Nope", "infer_param": {}}}])", "kernel K: the type Nope"},
           {"[{" + kernel + R"(Quant", "infer_param": {"weight_step_size": [], "output_step_size": 1}}}])",
            "path \"config[0].kernel.infer_param.weight_step_size\""}}) {
    std::string const text =
        test::RefusalOf([&, &list = layers] { CreateConfigFromJSON("{\"config\": " + list + "}", params); });
    EXPECT_NE(text.find(named), std::string::npos) << text;
  }
  EXPECT_EQ(test::RefusalOf([&] { CreateConfigFromJSON("[]", params); }), "[TLN]: document.IsObject()\n");
  InferenceConfig config;
  config.layers.resize(1);
  EXPECT_NE(test::RefusalOf([&] { config.ToJSON(); }).find("has no kernel"), std::string::npos);
  config.layers[0].kernel = Kernel("K");
  config.layers[0].kernel->infer_param_type = "Nope";
  EXPECT_NE(test::RefusalOf([&] { config.ToJSON(); }).find("kernel K: the type Nope"), std::string::npos);
}

}  // namespace
}  // namespace talvo::runtime
