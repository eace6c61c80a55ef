// The whole road of an application, from a package file to output tensors.
#include <gtest/gtest.h>

#include <numeric>

#include "talvo/entry/create_context.h"
#include "talvo/entry/load_model.h"
#include "talvo/entry/register_operators.h"
#include "talvo/runtime/create_net.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/serialization/layer_info_activation.h"
#include "talvo/serialization/layer_info_conv.h"
#include "tests/support/bits.h"
#include "tests/support/guarded_context.h"
#include "tests/support/log_capture.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/small_model.h"

namespace talvo {
namespace {

using namespace talvo::runtime;
using test::ModelBuilder;
using Outputs = std::vector<std::vector<float>>;

class RoadTest : public testing::Test {
 protected:
  RoadTest() {
    utility::create_context(context_, 64);
    utility::init_register_operators(kernels_, params_);
  }

  // Writes the model in one of the package forms, opens it as an application does, and runs it once.
  Outputs WriteAndRun(ModelBuilder const& builder, std::string const& ending, std::shared_ptr<Tensor> const& input) {
    std::string const path = folder_.Path("package" + ending);
    char const* const form = ending == ".json" ? "json" : "bin";
    builder.Package("model")->ToFile(path.c_str(), form);
    std::map<std::string, std::shared_ptr<utility::_NetworkPackage>> packages;
    EXPECT_EQ(utility::load_model(path, packages, context_, kernels_, params_, "test", 3, 4), 0);
    TLNModel file;
    EXPECT_TRUE(file.FromFile(path.c_str(), form));
    auto& package = packages.at("model");
    Load_Single_Net(package, file.model_arr->models.at("model"), file.config_arr->configs.at("model"), "x86");
    package->inputs[package->net->input_ids.begin()->second] = input;
    return ValuesOf(package->net->Forward(package->inputs, package->output_ids, context_, nullptr, nullptr),
                    package->output_ids);
  }

  static Outputs ValuesOf(std::unordered_map<unsigned int, std::vector<std::shared_ptr<Tensor>>> const& tensors,
                          std::vector<unsigned int> const& ids) {
    Outputs values;
    for (unsigned int id : ids) values.push_back(test::Values(*tensors.at(id).at(0)));
    return values;
  }

  std::shared_ptr<Tensor> Picture(std::uint32_t seed) {
    return test::FloatTensor(*context_, {3, 8, 8}, TensorShape::CHW, test::Floats(seed, 192));
  }

  ClassRegistry<std::shared_ptr<IKernel>> kernels_;
  ClassRegistry<std::shared_ptr<InferenceParam>> params_;
  std::shared_ptr<Context> context_;
  test::ScratchFolder const folder_;
};

TEST_F(RoadTest, ComputesWhatTheRecordsSay) {
  ModelBuilder builder;
  builder.AddInput("in");
  auto& conv = builder.Add<Conv2dInfo>("conv", {"in"}, "Conv2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1");
  conv.in_channels = conv.out_channels = 1;
  conv.kernel_x = conv.kernel_y = 2;
  conv.if_bias = true;
  conv.weight = test::WeightText({1, 2, 3, -4});
  conv.bias = test::WeightText({0.5f});
  builder.Add<ActivationInfo>("relu", {"conv"}, "ReLU_Fallback_Float_M1");
  builder.model->squential_output_ids = {"relu", "conv"};
  auto const input = test::FloatTensor(*context_, {1, 2, 3}, TensorShape::CHW, {1, 2, 3, 4, 5, 1});
  for (char const* ending : {".json", ".tlnmodel"}) {
    EXPECT_EQ(WriteAndRun(builder, ending, input), (Outputs{{0, 19.5f}, {-2.5f, 19.5f}})) << ending;
  }
}

TEST_F(RoadTest, AllFormsOfOneModelGiveTheSameBits) {
  ModelBuilder const builder = test::SmallModel();
  auto const from_json = WriteAndRun(builder, ".json", Picture(5));
  auto const from_binary = WriteAndRun(builder, ".tlnmodel", Picture(5));
  InferenceConfig light;
  for (std::string const& id : builder.model->squential_ids) {
    light.layers.emplace_back();
    light.layers.back().kernel = std::make_shared<KernelInferenceConfig>();
    light.layers.back().kernel->kernel_type = builder.config->layers.at(id)->kernel->kernel_type;
  }
  auto const net = CreateNet(builder.model, CreateConfigFromJSON(light.ToJSON(), params_), kernels_, context_);
  auto const from_light =
      ValuesOf(net->Forward({{0, Picture(5)}}, {14, 10, 21, 18}, context_, nullptr, nullptr), {14, 10, 21, 18});
  ASSERT_EQ(from_json.size(), from_light.size());
  for (std::size_t i = 0; i < from_json.size(); ++i) {
    test::ExpectSameBits(from_json[i], from_binary[i]);
    test::ExpectSameBits(from_json[i], from_light[i]);
  }
  EXPECT_NEAR(std::accumulate(from_json[0].begin(), from_json[0].end(), 0.0f), 1.0f, 1e-6f);
  EXPECT_NE(WriteAndRun(builder, ".json", Picture(6)), from_json) << "the input counts";
}

TEST_F(RoadTest, TheFuzzSeedsAreTheSmallModel) {
  Outputs const want = WriteAndRun(test::SmallModel(), ".json", Picture(5));
  for (auto const& [seed, form] :
       {std::pair{"fuzz/corpus/run_package/small.json", "json"}, {"fuzz/corpus/run_package/small.tlnmodel", "bin"}}) {
    TLNModel file;
    ASSERT_TRUE(file.FromFile(seed, form)) << seed;
    ModelBuilder from_seed;
    from_seed.model = file.model_arr->models.at("small");
    from_seed.config = file.config_arr->configs.at("small")->cpu_sse;
    EXPECT_EQ(WriteAndRun(from_seed, ".json", Picture(5)), want) << seed;
  }
}

}  // namespace
}  // namespace talvo
