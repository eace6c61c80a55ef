#include "talvo/entry/check_model.h"

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <random>
#include <type_traits>

#include "talvo/entry/open_package.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/memory_pool.h"
#include "talvo/serialization/json_visitors.h"
#include "talvo/serialization/layer_info_activation.h"
#include "talvo/serialization/layer_info_conv.h"
#include "talvo/serialization/weights.h"
#include "tests/support/bits.h"
#include "tests/support/log_capture.h"
#include "tests/support/model_builder.h"

namespace talvo {
namespace {

using runtime::Serializable;
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

// Changes one number of a record, the one at a place in the order of the walk. Records hand weights as texts to the
// JSON visitors alone.
class NumberChanger : private rapidjson::Document, public runtime::JSONNodeSetter {
 public:
  NumberChanger(std::size_t place, int number)
      : rapidjson::Document(rapidjson::kObjectType),
        JSONNodeSetter(*this, GetAllocator(), false),
        place_(place),
        number_(number) {}

#define TALVO_VISIT(type) \
  void Visit(type* value, char const* key) override { Take(*value, key); }
  TALVO_FOR_EACH_VISITED_TYPE(TALVO_VISIT)
#undef TALVO_VISIT

  std::size_t Places() const { return seen_; }

 private:
  template <class T>
  void Take(T& value, std::string const& key) {
    if constexpr (std::is_arithmetic_v<T>) {
      if (key != "type" && seen_++ == place_) value = static_cast<T>(number_);
    }
  }
  template <class T>
  void Take(std::vector<T>& list, std::string const& key) {
    if constexpr (std::is_arithmetic_v<T>) {
      if (seen_ == place_ && number_ == 0 && !list.empty()) list.pop_back();
      for (std::size_t i = 0; i < list.size(); ++i) Take(list[i], key);
    }
  }

  std::size_t const place_;
  int const number_;
  std::size_t seen_ = 0;
};

// A good model with a slip or two: a number of a record, an input, a kernel, a weight, or the shape that arrives.
class Mutation {
 public:
  explicit Mutation(unsigned int seed) : random_(seed) {
    do Change();
    while (Below(2) == 0);
    package = small_.Package("m");
  }

  std::shared_ptr<runtime::TLNModel> package;
  std::vector<unsigned int> dims = {3, 8, 8};

 private:
  std::size_t Below(std::size_t count) { return random_() % count; }
  std::string const& SomeId() { return small_.model->squential_ids[Below(small_.model->squential_ids.size())]; }

  void Change() {
    auto& record = *small_.model->layers.at(SomeId());
    switch (Below(8)) {
      case 0:
        if (!record.input_ids.empty()) record.input_ids[Below(record.input_ids.size())] = SomeId();
        return;
      case 1:
        if (!record.input_ids.empty()) record.input_ids.pop_back();
        return;
      case 2:
        small_.config->layers.at(SomeId())->kernel->kernel_type =
            small_.config->layers.at(SomeId())->kernel->kernel_type;
        return;
      case 3:
        runtime::ForEachWeight(record, [&](char const*, std::string& text) { text.resize(Below(text.size() + 1)); });
        return;
      case 4:
        dims[Below(3)] = static_cast<unsigned int>(Below(12));
        return;
      default:
        auto const counter = std::make_shared<NumberChanger>(~std::size_t{0}, 0);
        record.VisitAttr(counter);
        if (counter->Places() == 0) return;
        record.VisitAttr(std::make_shared<NumberChanger>(Below(counter->Places()), static_cast<int>(Below(10)) - 1));
    }
  }

  std::mt19937 random_;
  ModelBuilder small_ = test::SmallModel();
};

bool Runs(runtime::TLNModel& package, std::vector<unsigned int> const& dims, unsigned int seed) {
  auto const values = test::Floats(seed, runtime::ElementCount(dims));
  try {
    Model model(package);
    model.Run({{"picture", values.data(), dims}});
    return true;
  } catch (std::runtime_error const&) {
    return false;
  }
}

// With TALVO_MUTATIONS=100000 in the environment it takes some minutes.
TEST(CheckModel, AcceptsWhatRuns) {
  test::LogCapture const quiet;
  char const* const told = std::getenv("TALVO_MUTATIONS");
  unsigned int const count = told != nullptr ? static_cast<unsigned int>(std::atoi(told)) : 300;
  unsigned int accepted = 0;
  for (unsigned int seed = 0; seed < count; ++seed) {
    Mutation const mutation(seed);
    auto const findings = CheckModel(*mutation.package, {{"picture", mutation.dims}});
    bool const fine =
        std::none_of(findings.begin(), findings.end(), [](auto const& finding) { return finding.refused; });
    accepted += fine;
    EXPECT_EQ(Runs(*mutation.package, mutation.dims, seed), fine)
        << "seed " << seed << (findings.empty() ? "" : ": " + TextOf(findings.back()));
  }
  EXPECT_GT(accepted, count / 8);
  EXPECT_LT(accepted, count - count / 8);
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
