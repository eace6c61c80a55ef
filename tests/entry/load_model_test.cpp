#include "talvo/entry/load_model.h"

#include <gtest/gtest.h>

#include <functional>
#include <tuple>

#include "talvo/entry/create_context.h"
#include "talvo/entry/register_operators.h"
#include "talvo/serialization/layer_info_activation.h"
#include "talvo/serialization/layer_info_conv.h"
#include "talvo/utility/file.h"
#include "tests/support/bits.h"
#include "tests/support/log_capture.h"
#include "tests/support/model_builder.h"
#include "tests/support/scratch_folder.h"

namespace talvo::utility {
namespace {

using runtime::ActivationInfo;
using test::LogCapture;
using test::ModelBuilder;
using Configs = runtime::TLModelMultiBackendCfgs;

TEST(Version, IsOnePointZero) {
  unsigned int major = 9, minor = 9;
  EXPECT_EQ(TLN_Get_Core_Version(major, minor), 0);
  EXPECT_EQ(major * 10 + minor, 10u);
  EXPECT_EQ(tln_core_iosVersionNumber, 1.0);
  EXPECT_STREQ(tln_core_iosVersionString, "tln_core");
}

TEST(Version, IsCheckedInOrder) {
  using Lines = std::vector<std::string>;
  Lines const kLarger = {"[TLN]: tln_core version required by model is larger than actually used!\n"};
  std::string const used = "[TLN]: sdk version used now: 3.5\n";
  for (auto const& [why, model, lines] : std::vector<std::tuple<char const*, _TLNModelVerInfo, Lines>>{
           {"equal", {"x86", 1, 0, 3, 5}, {}},
           {"older core", {"x86", 0, 0, 3, 5}, {}},
           {"a minor core number, even of an older one", {"x86", 0, 1, 3, 5}, kLarger},
           {"a newer core", {"x86", 2, 0, 3, 5}, kLarger},
           {"an older sdk", {"x86", 1, 0, 3, 4}, {"[TLN]: sdk version required by model: 3.4\n", used}},
           {"a newer sdk", {"x86", 1, 0, 4, 5}, {"[TLN]: sdk version required by model: 4.5\n", used}},
           {"the core before the sdk", {"x86", 1, 1, 9, 9}, kLarger},
           {"the type before all", {"X86", 2, 2, 9, 9}, {"[TLN]: Model type is X86, can not match sdk type\n"}}}) {
    LogCapture const log;
    EXPECT_EQ(check_version("x86", 3, 5, model), lines.empty() ? 0 : -2) << why;
    EXPECT_EQ(log.Lines(), lines) << why;
  }
  LogCapture const quiet;
  EXPECT_EQ(check_version("x86", 3, 5, {std::string("x86\0", 4), 1, 0, 3, 5}), -2) << "all bytes count";
}

class LoadModelTest : public testing::Test {
 protected:
  LoadModelTest() {
    create_context(context_, 64);
    init_register_operators(kernels_, params_);
    package_->kernels = &kernels_;
    package_->context = context_;
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

  void LoadNet(ModelBuilder const& builder, std::shared_ptr<Configs> const& configs, char const* backend) {
    Load_Single_Net(package_, builder.model, configs, backend);
  }

  std::shared_ptr<runtime::Context> context_;
  runtime::ClassRegistry<std::shared_ptr<runtime::IKernel>> kernels_;
  runtime::ClassRegistry<std::shared_ptr<runtime::InferenceParam>> params_;
  std::map<std::string, std::shared_ptr<_NetworkPackage>> packages_;
  std::shared_ptr<_NetworkPackage> package_ = std::make_shared<_NetworkPackage>();
  test::ScratchFolder const folder_;
};

TEST_F(LoadModelTest, MakesAnEmptyPackageForEachModelOnce) {
  auto const file = TwoInputs().Package("one");
  TwoInputs().AddTo(*file, "two");
  for (std::string const form : {"json", "bin"}) {
    packages_.clear();
    std::string const path = folder_.Path(form == "json" ? "two.json" : "two.tlnmodel");
    file->ToFile(path.c_str(), form.c_str());
    EXPECT_EQ(Load(path, "TEST"), -2);
    EXPECT_TRUE(packages_.empty());
    ASSERT_EQ(Load(path), 0);
    ASSERT_EQ(packages_.size(), 2u);
    auto const one = packages_.at("one");
    EXPECT_EQ(one->params, &params_);
    EXPECT_EQ(one->kernels, &kernels_);
    EXPECT_EQ(one->context, context_);
    EXPECT_EQ(one->net, nullptr);
    EXPECT_EQ(one->inputs.count(0), 1u);
    EXPECT_EQ(one->output_ids, std::vector<unsigned int>{0});
    EXPECT_EQ(Load(path), 0);
    EXPECT_EQ(packages_.at("one"), one) << "the second load keeps what is there";
  }
}

TEST_F(LoadModelTest, RefusesFiles) {
  EXPECT_THROW(Load("a.tlmod"), std::out_of_range) << "shorter than the longest ending";
  EXPECT_THROW(Load("json"), std::out_of_range);
  for (std::string const path : {"folder/a.tlmod", "folder/package.JSON"})
    EXPECT_EQ(test::RefusalOf([&] { Load(path); }), "[TLN]: Unknow file type, file path: " + path + ".\n");
  LogCapture const quiet;
  EXPECT_EQ(Load("/nowhere/a.tlnmodel"), -2);
  EXPECT_THROW(Load("/nowhere/a.json"), std::runtime_error);
  EXPECT_THROW(Load(folder_.Save("cut.tlnmodel", "\x2f\x4e")), std::runtime_error);
}

// Weights are passed over where the file is known to hold them; what is wrong with a file is said all the same.
TEST_F(LoadModelTest, RefusesWhatTheReaderOfTheFileRefuses) {
  ModelBuilder builder = TwoInputs();
  auto& dense = builder.Add<runtime::FullConnectionInfo>("dense", {"b"}, "FullConnection_Fallback_C_Float_M1");
  dense.weight = test::WeightText(test::Floats(1, 40000));  // 80000 bytes: longer than what is read unseen
  dense.bias = test::WeightText(test::Floats(2, 400));
  auto const refusals = [](std::function<void()> const& action) {
    LogCapture const quiet;
    return test::RefusalOf(action);
  };
  for (std::string const form : {"bin", "json"}) {
    std::string const path = folder_.Path(form == "json" ? "dense.json" : "dense.tlnmodel");
    builder.Package("m")->ToFile(path.c_str(), form.c_str());
    EXPECT_EQ(Load(path), 0);
    std::string bytes;
    ASSERT_TRUE(LoadFile(path, bytes));
    std::size_t const record = bytes.find("FullConnectionInfo"),
                      weight = form == "json" ? bytes.find("\"weight\"", record) : record + 100;
    ASSERT_LT(weight, bytes.size());
    std::vector<std::string> damaged;
    for (std::size_t cut : {weight, weight + 100, weight + 40000, bytes.size() - 3000, bytes.size() - 500})
      damaged.push_back(bytes.substr(0, cut));
    if (form == "json") damaged.push_back(bytes.substr(0, weight) + "\"weight\": 1," + bytes.substr(weight));
    for (std::string const& content : damaged) {
      std::string const bad = folder_.Save(form == "json" ? "bad.json" : "bad.tlnmodel", content);
      std::string const want = refusals([&] { runtime::TLNModel().FromFile(bad.c_str(), form.c_str()); });
      EXPECT_NE(want, "") << content.size();
      EXPECT_EQ(refusals([&] { Load(bad); }), want) << content.size();
    }
  }
}

TEST_F(LoadModelTest, FillsAPackage) {
  ModelBuilder const builder = TwoInputs();
  auto const configs = builder.Package("m")->config_arr->configs.at("m");
  package_->inputs.clear();  // the application may drop the idle slot, and loading again keeps slots
  LoadNet(builder, configs, "x86");
  ASSERT_NE(package_->net, nullptr);
  EXPECT_EQ(package_->inputs.size(), 2u);
  EXPECT_EQ(package_->inputs.count(2), 1u);
  EXPECT_EQ(package_->output_ids, (std::vector<unsigned int>{3, 1}));
  EXPECT_EQ(package_->extra_info.model_id, 77u);

  package_->inputs[7] = nullptr;
  builder.model->squential_output_ids = {"nowhere", "b"};
  LoadNet(builder, configs, "x86");
  EXPECT_EQ(package_->inputs.size(), 3u);
  EXPECT_EQ(package_->output_ids, (std::vector<unsigned int>{0, 1})) << "an unknown id counts as layer 0";
}

TEST_F(LoadModelTest, TakesTheConfigurationOfTheBackEnd) {
  ModelBuilder const builder = TwoInputs();
  auto const other = [](char const* kernel) {  // a configuration that shows which one was taken
    auto const config = TwoInputs().config;
    config->layers["b"]->kernel->kernel_type = kernel + std::string("_Fallback_Float_M1");
    return config;
  };
  auto const sigmoid = other("Sigmoid"), tanh = other("TanH"), swish = other("HSwish"), metal = other("HSigmoid");
  metal->summary = "m";
  struct Case {
    char const* backend;
    std::function<void(Configs&)> fill;
    char const* kernel;  // its first word, null: refused
  };
  for (Case const& c : std::vector<Case>{
           {"x86", [&](Configs& to) { to.cpu_sse = sigmoid, to.cpu_avx = tanh; }, "Sigmoid"},
           {"x86", [&](Configs& to) { to.cpu_avx = tanh; }, nullptr},
           {"x86", [&](Configs& to) { to.cpu_sse = nullptr; }, nullptr},
           {"arm", [&](Configs& to) { to.cpu_armv7 = sigmoid, to.cpu_armv8 = tanh, to.cpu_armv82 = swish; }, "TanH"},
           {"arm", [&](Configs& to) { to.cpu_armv7 = sigmoid, to.cpu_armv82 = swish; }, "HSwish"},
           {"arm", [&](Configs& to) { to.cpu_armv7 = sigmoid; }, "Sigmoid"},
           {"arm", [&](Configs& to) { to.cpu_sse = sigmoid; }, nullptr},
           {"metal", [&](Configs& to) { to.gpu_metal = metal; }, "HSigmoid"},
           {"metal", [&](Configs& to) { to.gpu_metal = tanh; }, nullptr},  // without a summary
           {"avx", [&](Configs& to) { to.cpu_avx = to.cpu_sse = sigmoid; }, nullptr}}) {
    SCOPED_TRACE(c.backend);
    auto const configs = std::make_shared<Configs>();
    c.fill(*configs);
    package_->net = nullptr;
    if (c.kernel != nullptr) {
      LoadNet(builder, configs, c.backend);
      EXPECT_EQ(package_->net->layers[1]->kernel->GetName(), c.kernel + std::string("_Fallback_Float_M1"));
      package_->output_ids.clear();
    } else {
      test::RefusalOf([&] { LoadNet(builder, configs, c.backend); });
      EXPECT_EQ(package_->net, nullptr);
      EXPECT_EQ(package_->output_ids, (std::vector<unsigned int>{3, 1})) << "slots and ids come before the net";
    }
  }
}

TEST_F(LoadModelTest, RefusesEmptyArguments) {
  ModelBuilder const builder = TwoInputs();
  auto const configs = builder.Package("m")->config_arr->configs.at("m");
  auto const refusal = [&](auto package, auto const& model, auto const& from, char const* backend) {
    return test::RefusalOf([&] { Load_Single_Net(package, model, from, backend); });
  };
  std::shared_ptr<_NetworkPackage> const none, unregistered = std::make_shared<_NetworkPackage>();
  EXPECT_EQ(refusal(none, builder.model, configs, "x86"), "[TLN]: Load_Single_Net: the package is empty\n");
  EXPECT_NE(refusal(unregistered, builder.model, configs, "x86").find("no registry of kernels"), std::string::npos);
  EXPECT_NE(refusal(package_, nullptr, configs, "x86").find("the model is empty"), std::string::npos);
  EXPECT_NE(refusal(package_, builder.model, nullptr, "x86").find("the configuration is empty"), std::string::npos);
  EXPECT_NE(refusal(package_, builder.model, configs, nullptr).find("the back end's name is"), std::string::npos);
}

}  // namespace
}  // namespace talvo::utility
