#include "talvo/entry/model.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <iterator>

#include "talvo/serialization/layer_info_activation.h"
#include "talvo/serialization/layer_info_conv.h"
#include "tests/support/application.h"
#include "tests/support/bits.h"
#include "tests/support/log_capture.h"
#include "tests/support/model_builder.h"
#include "tests/support/scratch_folder.h"

namespace talvo {
namespace {

using test::ModelBuilder;

constexpr char kSmall[] = "fuzz/corpus/run_package/small.";  // both forms of test::SmallModel

std::string RefusalOf(std::function<void()> const& action) {
  test::LogCapture const quiet;
  try {
    action();
  } catch (std::runtime_error const& refusal) {
    return refusal.what();
  }
  return "served";
}

// Saves the model in both forms and tells how the facade refuses it, without the path.
std::string RefusalOf(ModelBuilder const& builder, ModelOptions const& options = {}) {
  test::ScratchFolder const folder;
  std::string const path = folder.Path("p.tlnmodel");
  builder.Package("m")->ToFile(path.c_str(), "bin");
  std::string const refusal = RefusalOf([&] { Model(path, options); });
  return refusal.substr(refusal.find("p.tlnmodel"));
}

ModelBuilder InputAndReLU() {
  ModelBuilder builder;
  builder.AddInput("in");
  builder.Add<runtime::ActivationInfo>("relu", {"in"}, "ReLU_Fallback_Float_M1");
  builder.model->squential_output_ids = {"relu"};
  return builder;
}

TEST(Model, GivesWhatTheLongWayGives) {
  auto const picture = test::Floats(5, 192);
  auto const want = test::Application(kSmall + std::string("json")).Run([&](runtime::Context const& context) {
    return test::FloatTensor(context, {3, 8, 8}, runtime::TensorShape::CHW, picture);
  });
  for (std::string const form : {"json", "tlnmodel"}) {
    std::ifstream file(kSmall + form, std::ios::binary);
    std::string const bytes{std::istreambuf_iterator<char>(file), {}};
    std::vector<Model> models;
    models.emplace_back(kSmall + form);
    models.push_back(Model::FromBytes(bytes.data(), bytes.size()));
    for (Model& model : models) {
      auto const results = model.Run({{"picture", picture.data(), {3, 8, 8}}});
      for (std::size_t i = 0; i < want.size(); ++i) {
        std::string const& id = model.Outputs()[i].id;
        std::vector<float> const got(results.Values(id), results.Values(id) + results.Count(id));
        EXPECT_EQ(got, want[i]) << form << " " << id;
      }
    }
  }
}

TEST(Model, RunsTheExampleThatIsReadByPeople) {
  Model model("examples/xor.json");
  for (float const x : {0.0f, 1.0f}) {
    for (float const y : {0.0f, 1.0f}) {
      float const bits[] = {x, y};
      auto const results = model.Run({{"bits", bits, {2}}});
      EXPECT_EQ(results.Values("exclusive_or")[0], x != y ? 1.0f : 0.0f) << x << " " << y;
    }
  }
}

TEST(Model, ServesInnerLayersSharedContextsAndResultsThatOutliveIt) {
  auto const picture = test::Floats(5, 192);
  ModelOutputs kept;
  std::vector<float> want;
  {
    Model first(kSmall + std::string("json"));
    ModelOptions options;
    options.context = first.Context();
    Model second(kSmall + std::string("tlnmodel"), options);
    auto const tensor = test::FloatTensor(*first.Context(), {3, 8, 8}, runtime::TensorShape::CHW, picture);
    std::string const inner = first.Profile({{"picture", tensor}}).at(1).id;
    kept = second.Run({{"picture", tensor}}, {inner, "classes", inner});
    want = test::Values(first.Run({{"picture", tensor}}, {inner})[inner]);
    EXPECT_EQ(tensor.use_count(), 1) << "inputs are let go";
    first = std::move(second);
    EXPECT_EQ(first.Run({{"picture", tensor}}).Dims("classes"), std::vector<unsigned int>{5});
    EXPECT_EQ(RefusalOf([&] { second.Run({{"picture", tensor}}); }), "the model was moved away");
    kept = first.Run({{"picture", tensor}}, {inner, "classes"});  // the tensors before go with their context
  }
  EXPECT_EQ(test::Values(kept["classes"]).size(), 5u);
  EXPECT_FALSE(want.empty());
}

TEST(Model, KeepsRecurrentStateUntilReset) {
  auto const picture = test::Floats(5, 192);
  Model model(kSmall + std::string("json"));
  auto const sequence = [&] { return test::Values(model.Run({{"picture", picture.data(), {3, 8, 8}}})["sequence"]); };
  auto const first = sequence();
  EXPECT_NE(sequence(), first);
  model.Reset();
  EXPECT_EQ(sequence(), first);
}

TEST(Model, RefusesRunsInWords) {
  auto const picture = test::Floats(5, 192);
  Model model(kSmall + std::string("json"));
  std::string const path = "fuzz/corpus/run_package/small.json: ";
  ModelInput const whole("picture", picture.data(), {3, 8, 8});
  for (auto const& [inputs, outputs, want] :
       std::vector<std::tuple<std::vector<ModelInput>, std::vector<std::string>, std::string>>{
           {{}, {}, "input \"picture\" has no tensor"},
           {{whole, whole}, {}, "input \"picture\" is given twice"},
           {{{"picture", nullptr}}, {}, "input \"picture\": is null"},
           {{{"pictures", picture.data(), {3, 8, 8}}},
            {},
            "model \"small\" has no layer \"pictures\"; nearest: picture, features"},
           {{whole, {"classes", picture.data(), {1}}}, {}, "layer \"classes\" is no input of the model"},
           {{{"picture", picture.data(), {70000, 70000, 3}}},
            {},
            "input \"picture\": tensor of dims [70000, 70000, 3] and 4 bytes an element: more than 4294967295 bytes"},
           {{whole}, {"clases"}, "model \"small\" has no layer \"clases\"; nearest: classes"}}) {
    EXPECT_EQ(RefusalOf([&, &i = inputs, &o = outputs] { model.Run(i, o); }), path + want);
  }
  std::string const narrow = RefusalOf([&] { model.Run({{"picture", picture.data(), {1, 8, 8}}}); });
  EXPECT_NE(narrow.find("layer conv: input 0 has dims [1, 8, 8], needs 3 channels"), std::string::npos) << narrow;
  auto const results = model.Run({whole});
  EXPECT_EQ(RefusalOf([&] { results["class"]; }).find("there is no output \"class\"; the run gave "), 0u);
}

TEST(Model, RefusesPackagesInWords) {
  ModelBuilder builder = InputAndReLU();
  EXPECT_EQ(RefusalOf(builder, {"n", "", false, nullptr}), "p.tlnmodel: has no model \"n\"; it holds m");
  EXPECT_EQ(RefusalOf(builder, {"", "gpu", false, nullptr}),
            "p.tlnmodel: model \"m\" has no configuration for \"gpu\"");
  builder.model->layers.at("relu")->input_ids = {"im"};
  EXPECT_EQ(RefusalOf(builder), "p.tlnmodel: layer relu reads \"im\", which no layer is called; nearest: in");
  builder = InputAndReLU();
  builder.config->layers.at("relu")->kernel->kernel_type = "ReLU_Fallback_Flat_M1";
  EXPECT_EQ(RefusalOf(builder).find(
                "p.tlnmodel: layer relu names the kernel \"ReLU_Fallback_Flat_M1\", which there is not; nearest: "
                "ReLU_Fallback_Float_M1"),
            0u);
  builder = InputAndReLU();
  builder.Add<runtime::Conv2dInfo>("conv", {"relu"}, "ReLU_Fallback_Float_M1").in_channels = 1;
  EXPECT_EQ(RefusalOf(builder),
            "p.tlnmodel: layer conv (Conv2dInfo): its kernel ReLU_Fallback_Float_M1 refuses the layer's record");
  EXPECT_EQ(RefusalOf([] { Model("none.tlnmodel"); }), "none.tlnmodel: cannot be opened: No such file or directory");
  EXPECT_EQ(RefusalOf([] { Model("none"); }), "none: a package ends in .tlnmodel or .json");
  EXPECT_EQ(RefusalOf([] { Model::FromBytes("{\n \"a\": ,\n}", 11); }),
            "package: no JSON: line 2, column 7: Invalid value.");
  EXPECT_EQ(
      RefusalOf([] { Model::FromBytes("\x2f\x4e\0\0", 4); }).find("package: at byte 4 of 4, where it is cut short: "),
      0u);
}

}  // namespace
}  // namespace talvo
