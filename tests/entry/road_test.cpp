// The whole road of an application, from a package file to output tensors.
#include <gtest/gtest.h>

#include <numeric>

#include "talvo/runtime/create_net.h"
#include "talvo/serialization/layer_info_activation.h"
#include "talvo/serialization/layer_info_conv.h"
#include "tests/support/application.h"
#include "tests/support/bits.h"
#include "tests/support/model_builder.h"
#include "tests/support/scratch_folder.h"

namespace talvo {
namespace {

using namespace talvo::runtime;
using test::ModelBuilder;
using Outputs = std::vector<std::vector<float>>;
using Input = test::Application::Input;

// Writes the model in one of the package forms, opens it as an application does, and runs it once.
Outputs WriteAndRun(ModelBuilder const& builder, std::string const& ending, Input const& input) {
  test::ScratchFolder const folder;
  std::string const path = folder.Path("package" + ending);
  builder.Package("model")->ToFile(path.c_str(), ending == ".json" ? "json" : "bin");
  return test::Application(path).Run(input);
}

Input Picture(std::uint32_t seed) {
  return [seed](Context const& context) {
    return test::FloatTensor(context, {3, 8, 8}, TensorShape::CHW, test::Floats(seed, 192));
  };
}

TEST(Road, ComputesWhatTheRecordsSay) {
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
  for (char const* ending : {".json", ".tlnmodel"}) {
    EXPECT_EQ(WriteAndRun(builder, ending,
                          [](Context const& context) {
                            return test::FloatTensor(context, {1, 2, 3}, TensorShape::CHW, {1, 2, 3, 4, 5, 1});
                          }),
              (Outputs{{0, 19.5f}, {-2.5f, 19.5f}}))
        << ending;
  }
}

TEST(Road, AllFormsOfOneModelGiveTheSameBits) {
  ModelBuilder const builder = test::SmallModel();
  Outputs const want = WriteAndRun(builder, ".json", Picture(5));
  EXPECT_EQ(WriteAndRun(builder, ".tlnmodel", Picture(5)), want);
  EXPECT_NE(WriteAndRun(builder, ".json", Picture(6)), want) << "the input counts";
  EXPECT_NEAR(std::accumulate(want[0].begin(), want[0].end(), 0.0f), 1.0f, 1e-6f);
  for (std::string const form : {"json", "tlnmodel"}) {  // the seeds of the fuzzer
    EXPECT_EQ(test::Application("fuzz/corpus/run_package/small." + form).Run(Picture(5)), want) << form;
  }
  InferenceConfig light;
  for (std::string const& id : builder.model->squential_ids) {
    light.layers.emplace_back().kernel = std::make_shared<KernelInferenceConfig>();
    light.layers.back().kernel->kernel_type = builder.config->layers.at(id)->kernel->kernel_type;
  }
  ClassRegistry<std::shared_ptr<IKernel>> kernels;
  ClassRegistry<std::shared_ptr<InferenceParam>> params;
  utility::init_register_operators(kernels, params);
  auto const context = test::GuardedContext();
  auto const net = CreateNet(builder.model, CreateConfigFromJSON(light.ToJSON(), params), kernels, context);
  unsigned int const ids[] = {14, 10, 21, 18};
  auto const outputs = net->Forward({{0, Picture(5)(*context)}}, {14, 10, 21, 18}, context, nullptr, nullptr);
  for (std::size_t i = 0; i < want.size(); ++i) EXPECT_EQ(test::Values(*outputs.at(ids[i]).at(0)), want[i]);
}

}  // namespace
}  // namespace talvo
