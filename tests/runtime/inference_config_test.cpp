#include "talvo/runtime/inference_config.h"

#include <gtest/gtest.h>

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

TEST(InferenceConfig, ReadsConvertersAndParametersByPositionAndWhatItWrote) {
  auto const params = Params();
  auto const config = CreateConfigFromJSON(
      R"({"config": [
        {"input_converters": {"2": {"kernel_type": "C", "infer_param_type": ""}, "x": {"kernel_type": "A", "infer_param_type": ""},
                              "0": {"kernel_type": "B", "infer_param_type": ""}},
         "kernel": {"kernel_type": "K", "infer_param_type": "Quant",
                    "infer_param": {"weight_step_size": 5, "output_step_size": -3}}},
        {"kernel": {"kernel_type": "L", "infer_param_type": "", "infer_param": 7}, "output_converters": {}}]})",
      params);
  ASSERT_EQ(config->layers.size(), 2u);
  auto const& converters = config->layers[0].input_converters;
  ASSERT_EQ(converters.size(), 2u);
  EXPECT_EQ(converters.at(0)->kernel_type, "B") << "\"x\" counts as 0, and a later one replaces it";
  EXPECT_EQ(converters.at(2)->kernel_type, "C");
  auto const quant = std::dynamic_pointer_cast<InferenceParamConv2DQuant>(config->layers[0].kernel->infer_param);
  ASSERT_NE(quant, nullptr);
  EXPECT_EQ(quant->weight_step_size, 5);
  EXPECT_EQ(quant->output_step_size, -3);
  EXPECT_EQ(config->layers[1].kernel->infer_param, nullptr) << "without a type the member is ignored";
  EXPECT_TRUE(config->layers[1].output_converters.empty());

  config->layers[0].kernel->infer_param = nullptr;
  std::string const text = config->ToJSON();  // makes the parameters
  EXPECT_NE(config->layers[0].kernel->infer_param, nullptr);
  EXPECT_EQ(CreateConfigFromJSON(text, params)->ToJSON(), text);
}

TEST(InferenceConfig, WritesTheInputConvertersTwice) {
  InferenceConfig config;
  EXPECT_EQ(config.ToJSON(), "{\n    \"config\": []\n}");
  config.layers.resize(3);
  for (auto& layer : config.layers) layer.kernel = Kernel("K");
  config.layers[1].output_converters[4] = Kernel("Out");
  config.layers[2].input_converters[10] = Kernel("In10");
  config.layers[2].input_converters[2] = Kernel("In2");
  config.layers[2].output_converters[1] = Kernel("Out");
  std::string const in = R"("2": {
                    "kernel_type": "In2",
                    "infer_param_type": ""
                },
                "10": {
                    "kernel_type": "In10",
                    "infer_param_type": ""
                })";
  std::string const kernel = R"("kernel": {
                "kernel_type": "K",
                "infer_param_type": ""
            })";
  EXPECT_EQ(config.ToJSON(), R"({
    "config": [
        {
            )" + kernel + R"(
        },
        {
            )" + kernel + R"(,
            "output_converters": {}
        },
        {
            "input_converters": {
                )" + in + R"(
            },
            )" + kernel + R"(,
            "output_converters": {
                )" + in + R"(
            }
        }
    ]
})");
}

TEST(InferenceConfig, RefusesTextsOfAnotherForm) {
  struct Case {
    char const *why, *text, *named;
  };
  auto const params = Params();
  for (Case const& c :
       {Case{"no JSON", "{\"config\": [", "document.IsObject()"},
        {"a root that is no object", "[]", "document.IsObject()"},
        {"no config", "{}", "\"config\""},
        {"a config that is no array", R"({"config": {}})", "\"config\""},
        {"a layer that is no object", R"({"config": [[]]})", "config[0]"},
        {"no kernel", R"({"config": [{"kernel": {"kernel_type": "K", "infer_param_type": ""}}, {}]})", "config[1]"},
        {"converters that are no object", R"({"config": [{"input_converters": [], "kernel": {}}]})",
         "config[0].input_converters"},
        {"a converter that is no object", R"({"config": [{"kernel": {"kernel_type": "K", "infer_param_type": ""},
                                                             "output_converters": {"1": null}}]})",
         "config[0].output_converters.1"},
        {"an unknown type of parameters",
         R"({"config": [{"kernel": {"kernel_type": "K", "infer_param_type": "Nope", "infer_param": {}}}]})", "Nope"},
        {"a parameter of the wrong kind",
         R"({"config": [{"kernel": {"kernel_type": "K", "infer_param_type": "Quant",
                                       "infer_param": {"weight_step_size": [], "output_step_size": 1}}}]})",
         "path \"config[0].kernel.infer_param.weight_step_size\""}}) {
    SCOPED_TRACE(c.why);
    std::string const text = test::RefusalOf([&] { CreateConfigFromJSON(c.text, params); });
    EXPECT_NE(text.find(c.named), std::string::npos) << text;
  }
}

TEST(InferenceConfig, RefusesToWriteALayerWithoutKernelAndUnknownParameters) {
  InferenceConfig config;
  config.layers.resize(1);
  test::RefusalOf([&] { config.ToJSON(); });
  config.layers[0].kernel = Kernel("K");
  config.layers[0].kernel->infer_param_type = "Nope";
  std::string const text = test::RefusalOf([&] { config.ToJSON(); });
  EXPECT_NE(text.find("kernel K: the type Nope"), std::string::npos) << text;
}

}  // namespace
}  // namespace talvo::runtime
