#include "talvo/runtime/net.h"

#include <gtest/gtest.h>

#include <map>
#include <tuple>

#include "talvo/entry/create_context.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/utility/log.h"
#include "tests/runtime/scripted_kernel.h"
#include "tests/support/log_capture.h"

namespace talvo::runtime {
namespace {

using test::ScriptedKernel;
using test::Tensors;
using Refs = std::vector<std::pair<std::uint32_t, std::uint32_t>>;

float ValueOf(std::shared_ptr<Tensor> const& tensor) { return *static_cast<float const*>(tensor->data); }

class NetTest : public testing::Test {
 protected:
  NetTest() { utility::create_context(context_, 64); }

  std::shared_ptr<TensorCPU> Scalar(float value) { return context_->device_cpu->CreateF32CMainMemory(1, &value); }

  // Notes `name` and the flag of PrepareForward, and makes `count` tensors of 10 * (sum of the inputs) + digit.
  std::shared_ptr<ScriptedKernel> Kernel(std::string const& name, float digit, std::size_t count = 1) {
    auto kernel =
        std::make_shared<ScriptedKernel>([=](Tensors const& inputs, Tensors& outputs, Context const& context) {
          EXPECT_TRUE(context.device_cpu->use_dynamic_pool);
          EXPECT_TRUE(outputs.empty());
          float sum = 0.0f;
          for (auto const& input : inputs) sum += ValueOf(input);
          float value = 10.0f * sum + digit;
          for (std::size_t i = 0; i < count; ++i, value += 0.5f)
            outputs.push_back(context.device_cpu->CreateF32CMainMemory(1, &value));
        });
    kernel->prepared = [=](Tensors const&, bool intermediate, Tensors&) {
      ran_.push_back(name + (intermediate ? "-" : "+"));
    };
    return kernel;
  }

  // Adds a layer and enters it with the producers.
  Layer& Add(std::string const& type, Refs const& input_refs, std::shared_ptr<IKernel> const& kernel) {
    auto const index = static_cast<std::uint32_t>(layers_.size());
    for (std::uint32_t position = 0; position < input_refs.size(); ++position) {
      std::uint32_t const producer = input_refs[position].first;
      if (producer < index) layers_[producer]->consumers.emplace_back(index, position);
    }
    layers_.push_back(std::make_shared<Layer>());
    layers_.back()->type = type;
    layers_.back()->input_refs = input_refs;
    layers_.back()->kernel = kernel;
    return *layers_.back();
  }

  void AddInput() {
    Add("Input", {}, std::make_shared<ScriptedKernel>([](Tensors const& inputs, Tensors& outputs, Context const&) {
          outputs = inputs;
        }));
  }

  // Input, A, B, C in a row.
  void AddRow() {
    AddInput();
    Add("A", {{0, 0}}, Kernel("A", 1));
    Add("B", {{1, 0}}, Kernel("B", 2));
    Add("C", {{2, 0}}, Kernel("C", 3));
  }

  std::unordered_map<unsigned int, Tensors> Forward(std::vector<unsigned int> const& output_ids) {
    ran_.clear();
    return Net(layers_, {}).Forward({{0, Scalar(1)}}, output_ids, context_, &times_, &gpu_times_);
  }

  std::shared_ptr<Context> context_;
  std::vector<std::shared_ptr<Layer>> layers_;
  std::vector<std::string> ran_;  // kernels in order, "-" for an intermediate output, "+" for one handed out
  std::vector<float> times_ = {-1}, gpu_times_ = {-1};
};

TEST_F(NetTest, StopsWhenAllRequestedLayersHaveRun) {
  AddRow();
  using Ids = std::vector<unsigned int>;
  using Names = std::vector<std::string>;
  using Row = std::tuple<char const*, Ids, Names, std::map<unsigned int, float>>;
  for (auto const& [why, requested, ran, want] :
       {Row{"the middle", {2}, {"A-", "B+"}, {{2, 112.0f}}},
        Row{"in any order", {3, 1}, {"A+", "B-", "C+"}, {{1, 11.0f}, {3, 1123.0f}}},
        Row{"the second entry is never served", {2, 2}, {"A-", "B+", "C-"}, {{2, 112.0f}}},
        Row{"beyond the layers", {7, 1}, {"A+", "B-", "C-"}, {{1, 11.0f}}},
        Row{"the input itself", {0}, Names{}, {{0, 1.0f}}}, Row{"nothing", Ids{}, Names{}, {}}}) {
    SCOPED_TRACE(why);
    context_->device_cpu->use_dynamic_pool = true;
    std::map<unsigned int, float> got;
    for (auto const& [id, tensors] : Forward(requested)) got[id] = ValueOf(tensors.at(0));
    EXPECT_EQ(ran_, ran);
    EXPECT_EQ(got, want);
    std::size_t const layers_run = requested.empty() ? 0 : ran.size() + 1;
    EXPECT_EQ(times_.size(), layers_run);
    EXPECT_EQ(gpu_times_, std::vector<float>(layers_run, 0.0f));
    EXPECT_FALSE(context_->device_cpu->use_dynamic_pool);
  }
}

TEST_F(NetTest, ConvertsAroundTheKernel) {
  AddInput();
  layers_[0]->input_converters[0] = Kernel("never, since an input layer takes its input as it is", 0);
  auto& a = Add("A", {{0, 0}}, Kernel("A", 1, 2));
  a.output_converters[1] = Kernel("out", 7, 3);
  auto& b = Add("B", {{1, 1}, {1, 0}}, Kernel("B", 2));
  b.input_converters[1] = Kernel("in", 5);
  auto const result = Forward({2, 1});
  EXPECT_EQ(ran_, (std::vector<std::string>{"A-", "out+", "in-", "B+"}));
  ASSERT_EQ(result.at(1).size(), 2u);
  EXPECT_EQ(ValueOf(result.at(1)[0]), 11.0f);
  EXPECT_EQ(ValueOf(result.at(1)[1]), 122.0f) << "10 * 11.5 + 7; the converter's further products are dropped";
  EXPECT_EQ(ValueOf(result.at(2)[0]), 10.0f * (122.0f + 115.0f) + 2.0f);
  Forward({2});
  EXPECT_EQ(ran_, (std::vector<std::string>{"A-", "out-", "in-", "B+"}));
}

// Notes which of three tensors live: two layers', and the own tensor of an input layer, which nothing releases.
TEST_F(NetTest, ReleasesATensorAfterItsLastReader) {
  std::weak_ptr<Tensor> watched[3];
  auto const watch = [&](std::size_t which) {
    return std::make_shared<ScriptedKernel>([&, which](Tensors const&, Tensors& outputs, Context const& context) {
      outputs.push_back(context.device_cpu->CreateZeroF32CMainMem(1));
      watched[which] = outputs[0];
    });
  };
  std::vector<std::string> alive;
  Add("Input", {}, watch(0));
  Add("Early", {{0, 0}}, watch(1));
  Add("Late", {{0, 0}}, watch(2));
  for (Refs const& refs : {Refs{{1, 0}, {2, 0}}, {{3, 0}}, {{4, 0}, {2, 0}}, {{5, 0}}}) {
    auto kernel = Kernel("note", 0);
    kernel->prepared = [&](Tensors const&, bool, Tensors&) {
      alive.emplace_back();
      for (auto const& tensor : watched) alive.back() += tensor.expired() ? '-' : '+';
    };
    Add("Note", refs, kernel);
  }
  Forward({6});
  EXPECT_EQ(alive, (std::vector<std::string>{"+++", "+-+", "+-+", "+--"}));
  alive.clear();
  auto const result = Forward({6, 1});
  EXPECT_EQ(alive, (std::vector<std::string>{"+++", "+++", "+++", "++-"}));
  EXPECT_EQ(result.at(1)[0], watched[1].lock());
}

// A layer may have as many readers as the net has layers: they are looked through once, and not at each reader.
TEST_F(NetTest, LooksThroughTheReadersOnce) {
  AddRow();
  auto const reader = std::make_shared<ScriptedKernel>([&](Tensors const& inputs, Tensors& outputs, Context const&) {
    layers_[1]->consumers.clear();  // whoever looks again finds that nobody reads on
    outputs.push_back(inputs.at(7));
  });
  for (int i = 0; i < 3; ++i) Add("R", Refs(8, {1, 0}), reader);
  EXPECT_EQ(ValueOf(Forward({6}).at(6)[0]), 11.0f);
}

TEST_F(NetTest, IsUsableAfterAKernelThrew) {
  AddRow();
  bool fails = true;
  layers_[2]->kernel = std::make_shared<ScriptedKernel>([&](Tensors const& inputs, Tensors& outputs, Context const&) {
    utility::Assert(!fails, "no");
    outputs = inputs;
  });
  EXPECT_EQ(test::RefusalOf([&] { Forward({3}); }), "[TLN]: no\n");
  EXPECT_EQ(times_.size(), 2u);
  EXPECT_TRUE(context_->device_cpu->use_dynamic_pool);
  fails = false;
  EXPECT_EQ(ValueOf(Forward({3}).at(3)[0]), 113.0f);
  EXPECT_FALSE(context_->device_cpu->use_dynamic_pool);
}

TEST_F(NetTest, RefusesWhatItCannotRunAndNamesTheLayer) {
  auto const silent = std::make_shared<ScriptedKernel>([](Tensors const&, Tensors&, Context const&) {});
  auto const null_maker = std::make_shared<ScriptedKernel>(
      [](Tensors const&, Tensors& outputs, Context const&) { outputs.push_back(nullptr); });
  auto const unconfigured = Kernel("X", 0);
  unconfigured->configured = false;
  using Ref = Refs::value_type;
  for (auto const& [spoil, want] : std::vector<std::pair<std::function<void()>, char const*>>{
           {[&] { layers_[2]->kernel = nullptr; }, "layer 2 (B): its kernel is missing"},
           {[&] { layers_[2]->kernel = unconfigured; }, "layer 2 (B): its kernel ScriptedKernel is not"},
           {[&] { layers_[2] = nullptr; }, "layer 2: no layer record"},
           {[&] { layers_[1]->kernel = null_maker; }, "layer 2 (B): its input 0 is output 0 of layer 1"},
           {[&] { layers_[2]->input_refs[0].second = 1; }, "layer 2 (B): its input 0 is output 1"},
           {[&] { layers_[2]->input_refs[0].first = 2; }, "layer 2 (B): its input 0 is output 0 of layer 2"},
           {[&] { layers_[1]->consumers.assign(1, Ref(9, 0)); }, "layer 1 (A): its consumer 9"},
           {[&] { layers_[0]->input_refs.assign(1, Ref(9, 0)); }, "layer 0 (Input): it reads layer 9"},
           {[&] { layers_[2]->input_converters[0] = nullptr; }, "layer 2 (B): its converter is missing"},
           {[&] { layers_[2]->output_converters[0] = silent; }, "layer 2 (B): its converter"},
           {[&] {
              layers_[1]->kernel = null_maker;
              layers_[1]->output_converters[0] = silent;
            },
            "layer 1 (A): output 0"},
           {[&] { layers_[2]->type = "Input"; }, "layer 2 (Input): no input tensor under key 2"}}) {
    layers_.clear();
    AddRow();
    spoil();
    std::string const text = test::RefusalOf([&] { Forward({3}); });
    EXPECT_NE(text.find(want), std::string::npos) << text << want;
  }
  context_->device_cpu->dynamic_pool->Clear();
  EXPECT_EQ(context_->device_cpu->dynamic_pool->HeapSize(), 0u) << "all tensors went back";
}

TEST_F(NetTest, RunsOnADeviceWithoutADynamicPoolAndRefusesNone) {
  auto const pool = std::make_shared<AlignUpPool>(64);
  context_->device_cpu = CreateDeviceCPU(DetectCPUDevice(), pool, nullptr, nullptr);
  bool flag = true;
  Add("Source", {}, std::make_shared<ScriptedKernel>([&](Tensors const&, Tensors& outputs, Context const& context) {
        flag = context.device_cpu->use_dynamic_pool;
        outputs.push_back(context.device_cpu->CreateZeroF32CMainMem(1));
      }));
  Net const net(layers_, {});
  auto const result = net.Forward({}, {0}, context_, nullptr, nullptr);
  EXPECT_FALSE(flag);
  EXPECT_EQ(pool->HeapSize(), 128u);
  auto const refusal = [&](auto const& context) {
    return test::RefusalOf([&] { net.Forward({}, {0}, context, nullptr, nullptr); });
  };
  EXPECT_NE(refusal(nullptr).find("null"), std::string::npos);
  EXPECT_NE(refusal(std::make_shared<Context>()).find("CPU"), std::string::npos);
}

}  // namespace
}  // namespace talvo::runtime
