#include "talvo/entry/check_model.h"

#include <gtest/gtest.h>

#include <limits>

#include "talvo/entry/open_package.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/memory_pool.h"
#include "talvo/serialization/layer_info_activation.h"
#include "talvo/serialization/layer_info_conv.h"
#include "tests/support/bits.h"
#include "tests/support/log_capture.h"
#include "tests/support/model_builder.h"

namespace talvo {
namespace {

using test::ModelBuilder;
using Lines = std::vector<std::string>;

Lines Check(ModelBuilder const& builder, InputDims const& inputs = {}) {
  test::LogCapture const quiet;
  Lines lines;
  for (auto const& [refused, layer, text] : CheckModel(*builder.Package("m"), inputs)) {
    lines.push_back((refused ? "refused " : "") + layer + ": " + text);
  }
  return lines;
}

ModelBuilder Dense() {
  ModelBuilder builder;
  builder.AddInput("in");
  auto& dense = builder.Add<runtime::FullConnectionInfo>("dense", {"in"}, "FullConnection_Fallback_C_Float_M1");
  dense.in_features = 2;
  dense.out_features = 1;
  dense.weight = test::WeightText({1, 2});
  builder.model->squential_output_ids = {"dense"};
  return builder;
}

TEST(CheckModel, FindsNothingInAGoodModel) {
  EXPECT_EQ(Check(Dense()), Lines());
  EXPECT_EQ(Check(Dense(), {{"in", {2}}}), Lines());
  EXPECT_EQ(Check(test::SmallModel(), {{"picture", {3, 8, 8}}}), Lines());
}

TEST(CheckModel, NamesEverySlip) {
  ModelBuilder builder = Dense();
  builder.Add<runtime::ActivationInfo>("relu", {"dens", "in"}, "RELU_Fallback_Float_M1");
  builder.model->squential_output_ids = {"dense", "in", "relu2"};
  builder.model->layers.at("dense")->read_count = 0;
  static_cast<runtime::FullConnectionInfo&>(*builder.model->layers.at("dense")).weight =
      test::WeightText({std::numeric_limits<float>::quiet_NaN(), 1e-8f, 1e6f, 1});
  EXPECT_EQ(Check(builder),
            (Lines{"relu: no layer reads it and it is no output", "in: it is an input and an output of the model",
                   "dense: 1 of the 4 values of weight are no numbers",
                   "dense: 1 of the 4 values of weight are so small that the binary form makes them 0",
                   "dense: 1 of the 4 values of weight are so large that the binary form makes them infinite",
                   "refused : the model gives out \"relu2\", which no layer is called; nearest: relu",
                   "refused relu: reads \"dens\", which no layer is called; nearest: dense",
                   "refused relu: names the kernel \"RELU_Fallback_Float_M1\", which there is not; nearest: "
                   "ReLU_Fallback_Float_M1, PReLU_Fallback_Float_M1, ReLU6_Fallback_Float_M1"}));
}

// Names as long as a file lets them be would be compared for hours, many of them among many for minutes.
TEST(CheckModel, SeeksTheNearestOfFewShortNames) {
  std::string const layer(1000000, 'a'), unknown(1000000, 'b');
  ModelBuilder builder = Dense();
  builder.Add<runtime::ActivationInfo>(layer, {unknown, "inn", "inn", "inn", "inn"}, "ReLU_Fallback_Float_M1");
  builder.model->squential_output_ids.push_back(layer);
  std::string const reads = "refused " + layer + ": reads \"inn\", which no layer is called",
                    nearest = reads + "; nearest: in";
  EXPECT_EQ(Check(builder),
            (Lines{"refused " + layer + ": reads \"" + unknown + "\", which no layer is called; nearest: none", nearest,
                   nearest, nearest, reads}));
}

TEST(CheckModel, TriesTheShapes) {
  EXPECT_EQ(Check(Dense(), {{"in", {2, 2}}}), Lines{"dense: reads 2 of the 4 elements of [2, 2]"});
  EXPECT_EQ(Check(Dense(), {{"im", {2}}}), Lines{"refused : the model has no input \"im\"; it has in"});
  Lines const narrow = Check(Dense(), {{"in", {1}}});
  ASSERT_EQ(narrow.size(), 1u);
  EXPECT_EQ(narrow[0].find("refused : "), 0u);
  EXPECT_NE(narrow[0].find("of layer dense: input 0 has dims [1]"), std::string::npos) << narrow[0];
}

// What is told before the run is what a run then holds, to the byte.
TEST(MeasureMemory, IsWhatThePoolTakes) {
  for (auto const& [path, input, dims] : {std::tuple<char const*, char const*, std::vector<unsigned int>>{
                                              "fuzz/corpus/run_package/small.json", "picture", {3, 8, 8}},
                                          {"examples/digits/digits.tlnmodel", "picture", {1, 28, 28}}}) {
    for (bool const fused : {false, true}) {
      ModelOptions options;
      options.prefer_fused = fused;
      auto const package = utility::OpenPackage(path);
      auto const told = MeasureMemory(*package, {{input, dims}}, options);
      Model model(path, options);
      auto const& pool = *model.Context()->device_cpu->dynamic_pool;
      std::vector<float> const values(runtime::ElementCount(dims));
      ModelInput const tensor(input, values.data(), dims);
      auto const run = [&] { model.Run({tensor}); };
      run();
      EXPECT_EQ(pool.HeapSize(), told.first_bytes) << path << fused;
      for (int i = 0; i < 9; ++i) run();
      EXPECT_EQ(pool.HeapSize(), told.steady_bytes) << path << fused;
      EXPECT_GT(told.layers.back().pool_bytes, told.layers.front().pool_bytes);
      EXPECT_EQ(told.layers[0].id, input);
      EXPECT_EQ(told.layers[0].dims, dims);
    }
  }
}

}  // namespace
}  // namespace talvo
