#include "talvo/entry/load_model.h"

#include <gtest/gtest.h>

#include "talvo/entry/create_context.h"
#include "talvo/entry/register_operators.h"
#include "talvo/serialization/layer_info_activation.h"
#include "tests/support/log_capture.h"
#include "tests/support/model_builder.h"
#include "tests/support/scratch_folder.h"

namespace talvo::utility {
namespace {

using runtime::ActivationInfo;
using test::LogCapture;
using test::ModelBuilder;

constexpr char kLarger[] = "tln_core version required by model is larger than actually used!";

TEST(Version, IsOnePointZero) {
  unsigned int major = 9, minor = 9;
  EXPECT_EQ(TLN_Get_Core_Version(major, minor), 0);
  EXPECT_EQ(major, 1u);
  EXPECT_EQ(minor, 0u);
  EXPECT_EQ(tln_core_iosVersionNumber, 1.0);
  EXPECT_STREQ(tln_core_iosVersionString, "tln_core");
}

TEST(Version, IsCheckedInOrder) {
  struct Case {
    char const *why, *sdk_type;
    unsigned short core_major, core_minor, sdk_major, sdk_minor;
    char const *line, *second_line;  // null: none
  };
  constexpr char kUsed[] = "sdk version used now: 3.5";
  for (Case const& c :
       {Case{"equal", "x86", 1, 0, 3, 5, nullptr, nullptr},
        {"older core", "x86", 0, 0, 3, 5, nullptr, nullptr},
        {"a minor core number, even of an older one", "x86", 0, 1, 3, 5, kLarger, nullptr},
        {"a newer minor core number", "x86", 1, 1, 3, 5, kLarger, nullptr},
        {"a newer core", "x86", 2, 0, 3, 5, kLarger, nullptr},
        {"an older sdk", "x86", 1, 0, 3, 4, "sdk version required by model: 3.4", kUsed},
        {"a newer sdk", "x86", 1, 0, 4, 5, "sdk version required by model: 4.5", kUsed},
        {"the core before the sdk", "x86", 1, 1, 9, 9, kLarger, nullptr},
        {"the type before all", "X86", 2, 2, 9, 9, "Model type is X86, can not match sdk type", nullptr}}) {
    SCOPED_TRACE(c.why);
    LogCapture const log;
    std::vector<std::string> want;
    for (char const* line : {c.line, c.second_line}) {
      if (line != nullptr) want.push_back("[TLN]: " + std::string(line) + "\n");
    }
    EXPECT_EQ(check_version("x86", 3, 5, {c.sdk_type, c.core_major, c.core_minor, c.sdk_major, c.sdk_minor}),
              want.empty() ? 0 : -2);
    EXPECT_EQ(log.Lines(), want);
  }
  LogCapture const log;
  EXPECT_EQ(check_version("x86", 3, 5, {std::string("x86\0", 4), 1, 0, 3, 5}), -2) << "all bytes count";
}

class LoadModelTest : public testing::Test {
 protected:
  LoadModelTest() {
    create_context(context_, 64);
    init_register_operators(kernels_, params_);
  }

  // An input and an activation, twice; the outputs stand in another order.
  static ModelBuilder TwoInputs() {
    ModelBuilder builder;
    builder.AddInput("a");
    builder.Add<ActivationInfo>("b", {"a"}, "ReLU_Fallback_Float_M1");
    builder.AddInput("c");
    builder.Add<ActivationInfo>("d", {"c"}, "ReLU6_Fallback_Float_M1");
    builder.model->squential_output_ids = {"d", "b"};
    builder.model->extra_info.model_id = 77;
    return builder;
  }

  int Load(std::string const& path, std::string const& sdk_type = "test") {
    return load_model(path, packages_, context_, kernels_, params_, sdk_type, 3, 4);
  }

  int LoadPackage(runtime::TLNModel& file, std::string const& ending, std::string const& sdk_type = "test") {
    path_ = folder_.Path("package" + ending);
    file.ToFile(path_.c_str(), ending == ".json" ? "json" : "bin");
    return Load(path_, sdk_type);
  }

  std::shared_ptr<_NetworkPackage> EmptyPackage() {
    auto package = std::make_shared<_NetworkPackage>();
    package->kernels = &kernels_;
    package->context = context_;
    return package;
  }

  std::shared_ptr<runtime::Context> context_;
  runtime::ClassRegistry<std::shared_ptr<runtime::IKernel>> kernels_;
  runtime::ClassRegistry<std::shared_ptr<runtime::InferenceParam>> params_;
  std::map<std::string, std::shared_ptr<_NetworkPackage>> packages_;
  test::ScratchFolder const folder_;
  std::string path_;  // of the package that was loaded last
};

TEST_F(LoadModelTest, MakesAnEmptyPackageForEachModelOnce) {
  for (char const* ending : {".json", ".tlnmodel"}) {
    packages_.clear();
    auto const file = TwoInputs().Package("one");
    TwoInputs().AddTo(*file, "two");
    ASSERT_EQ(LoadPackage(*file, ending), 0);
    ASSERT_EQ(packages_.size(), 2u);
    auto const one = packages_.at("one");
    EXPECT_EQ(one->params, &params_);
    EXPECT_EQ(one->net, nullptr);
    EXPECT_EQ(one->inputs.count(0), 1u);
    EXPECT_EQ(one->output_ids, std::vector<unsigned int>{0});
    EXPECT_EQ(Load(path_), 0);
    EXPECT_EQ(packages_.at("one"), one) << "the second load keeps what is there";
  }
}

TEST_F(LoadModelTest, RefusesFiles) {
  EXPECT_THROW(Load("a.tlmod"), std::out_of_range) << "shorter than the longest ending";
  EXPECT_THROW(Load("json"), std::out_of_range);
  EXPECT_NE(test::RefusalOf([&] { Load("folder/a.tlmod"); }).find("Unknow file type, file path: folder/a.tlmod."),
            std::string::npos);
  test::RefusalOf([&] { Load("folder/package.JSON"); });
  LogCapture const quiet;
  EXPECT_EQ(Load("/nowhere/a.tlnmodel"), -2);
  EXPECT_THROW(Load("/nowhere/a.json"), std::runtime_error);
  auto const file = TwoInputs().Package("one");
  EXPECT_EQ(LoadPackage(*file, ".tlnmodel", "TEST"), -2);
  EXPECT_TRUE(packages_.empty());
  EXPECT_THROW(Load(folder_.Save("cut.tlnmodel", "\x2f\x4e")), std::runtime_error);
}

TEST_F(LoadModelTest, FillsAPackage) {
  ModelBuilder const builder = TwoInputs();
  auto package = EmptyPackage();
  package->inputs.clear();  // the application may drop the idle slot, and loading again keeps slots
  auto const file = builder.Package("m");
  Load_Single_Net(package, builder.model, file->config_arr->configs.at("m"), "x86");
  ASSERT_NE(package->net, nullptr);
  EXPECT_EQ(package->inputs.size(), 2u);
  EXPECT_EQ(package->inputs.count(2), 1u);
  EXPECT_EQ(package->output_ids, (std::vector<unsigned int>{3, 1}));
  EXPECT_EQ(package->extra_info.model_id, 77u);

  package->inputs[7] = nullptr;
  builder.model->squential_output_ids = {"nowhere", "b"};
  Load_Single_Net(package, builder.model, file->config_arr->configs.at("m"), "x86");
  EXPECT_EQ(package->inputs.size(), 3u);
  EXPECT_EQ(package->output_ids, (std::vector<unsigned int>{0, 1})) << "an unknown id counts as layer 0";
}

TEST_F(LoadModelTest, TakesTheConfigurationOfTheBackEnd) {
  ModelBuilder const builder = TwoInputs();
  auto const other = [](char const* kernel) {  // a configuration that shows which one was taken
    auto const config = TwoInputs().config;
    config->layers["b"]->kernel->kernel_type = kernel + std::string("_Fallback_Float_M1");
    return config;
  };
  auto const sigmoid = other("Sigmoid"), tanh = other("TanH"), swish = other("HSwish"), metal = other("HSigmoid");
  using Configs = runtime::TLModelMultiBackendCfgs;
  struct Case {
    char const *why, *backend;
    std::function<void(Configs&)> fill;
    char const* kernel;  // its first word, null: refused
  };
  for (Case const& c : std::vector<Case>{
           {"x86", "x86", [&](Configs& to) { to.cpu_sse = sigmoid, to.cpu_avx = tanh; }, "Sigmoid"},
           {"x86 without", "x86", [&](Configs& to) { to.cpu_avx = tanh; }, nullptr},
           {"x86, null", "x86", [&](Configs& to) { to.cpu_sse = nullptr; }, nullptr},
           {"arm, first choice", "arm",
            [&](Configs& to) { to.cpu_armv7 = sigmoid, to.cpu_armv8 = tanh, to.cpu_armv82 = swish; }, "TanH"},
           {"arm, second choice", "arm", [&](Configs& to) { to.cpu_armv7 = sigmoid, to.cpu_armv82 = swish; }, "HSwish"},
           {"arm, last choice", "arm", [&](Configs& to) { to.cpu_armv7 = sigmoid; }, "Sigmoid"},
           {"arm without", "arm", [&](Configs& to) { to.cpu_sse = sigmoid; }, nullptr},
           {"metal", "metal", [&](Configs& to) { metal->summary = "m", to.gpu_metal = metal; }, "HSigmoid"},
           {"metal without summary", "metal", [&](Configs& to) { metal->summary.clear(), to.gpu_metal = metal; },
            nullptr},
           {"another word", "avx", [&](Configs& to) { to.cpu_avx = to.cpu_sse = sigmoid; }, nullptr}}) {
    SCOPED_TRACE(c.why);
    auto const configs = std::make_shared<Configs>();
    c.fill(*configs);
    auto package = EmptyPackage();
    if (c.kernel != nullptr) {
      Load_Single_Net(package, builder.model, configs, c.backend);
      EXPECT_EQ(package->net->layers[1]->kernel->GetName(), c.kernel + std::string("_Fallback_Float_M1"));
    } else {
      test::RefusalOf([&] { Load_Single_Net(package, builder.model, configs, c.backend); });
      EXPECT_EQ(package->net, nullptr);
      EXPECT_EQ(package->output_ids, (std::vector<unsigned int>{3, 1})) << "slots and ids come before the net";
    }
  }
}

TEST_F(LoadModelTest, RefusesEmptyArguments) {
  ModelBuilder const builder = TwoInputs();
  auto const configs = builder.Package("m")->config_arr->configs.at("m");
  auto package = EmptyPackage();
  for (auto none : {std::shared_ptr<_NetworkPackage>(), std::make_shared<_NetworkPackage>()})
    test::RefusalOf([&] { Load_Single_Net(none, builder.model, configs, "x86"); });
  test::RefusalOf([&] { Load_Single_Net(package, nullptr, configs, "x86"); });
  test::RefusalOf([&] { Load_Single_Net(package, builder.model, nullptr, "x86"); });
  test::RefusalOf([&] { Load_Single_Net(package, builder.model, configs, nullptr); });
}

}  // namespace
}  // namespace talvo::utility
