#include "talvo/talvo_c.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/support/bits.h"
#include "tests/support/log_capture.h"

namespace talvo {
namespace {

constexpr char kSmall[] = "fuzz/corpus/run_package/small.json";  // test::SmallModel

class CInterface : public testing::Test {
 protected:
  CInterface() {
    EXPECT_EQ(talvo_model_open(kSmall, nullptr, &model_), TALVO_OK) << talvo_last_error();
    input_.id = "picture";
    input_.rank = 3;
    input_.dims[0] = 3;
    input_.dims[1] = input_.dims[2] = 8;
    input_.data = picture_.data();
    input_.bytes = picture_.size() * sizeof(float);
  }
  ~CInterface() override { talvo_model_close(model_); }

  talvo_status Run() { return talvo_model_run(model_, &input_, 1, nullptr, 0); }

  std::vector<float> Result(char const* id) {
    size_t bytes = 0;
    EXPECT_EQ(talvo_model_copy(model_, id, nullptr, 0, &bytes), TALVO_TOO_SMALL);
    std::vector<float> values(bytes / sizeof(float));
    EXPECT_EQ(talvo_model_copy(model_, id, values.data(), bytes, nullptr), TALVO_OK);
    return values;
  }

  test::LogCapture const quiet_;
  std::vector<float> const picture_ = test::Floats(5, 192);
  talvo_tensor input_ = TALVO_TENSOR_INIT;
  talvo_model* model_ = nullptr;
};

TEST_F(CInterface, RunsAndHandsOut) {
  ASSERT_EQ(Run(), TALVO_OK) << talvo_last_error();
  talvo_tensor result = TALVO_TENSOR_INIT, port = TALVO_TENSOR_INIT;
  ASSERT_EQ(talvo_model_result(model_, "sequence", &result), TALVO_OK);
  EXPECT_EQ(std::vector<uint32_t>(result.dims, result.dims + result.rank), (std::vector<uint32_t>{4, 4}));
  EXPECT_EQ(result.bytes, 64u);
  ASSERT_EQ(talvo_model_output(model_, 0, &port), TALVO_OK);
  EXPECT_STREQ(port.id, "classes");
  EXPECT_EQ(talvo_model_input_count(model_) * 10 + talvo_model_output_count(model_), 14u);
  auto const first = Result("sequence");
  EXPECT_TRUE(std::equal(first.begin(), first.end(), static_cast<float const*>(result.data)));
  Run();
  EXPECT_NE(Result("sequence"), first);
  talvo_model_reset(model_);
  char const* const wanted[] = {"sequence", "conv"};
  ASSERT_EQ(talvo_model_run(model_, &input_, 1, wanted, 2), TALVO_OK) << talvo_last_error();
  EXPECT_EQ(Result("sequence"), first);
  EXPECT_EQ(talvo_model_result(model_, "conv", &result), TALVO_OK);
}

TEST_F(CInterface, SaysWhatIsWrong) {
  auto const refused = [](talvo_status status) { return std::to_string(status) + ": " + talvo_last_error(); };
  talvo_model* none = model_;
  EXPECT_EQ(refused(talvo_model_open("none.json", nullptr, &none)),
            "1: none.json: cannot be opened: No such file or directory");
  EXPECT_EQ(none, nullptr);
  talvo_options options = {1, nullptr, nullptr, 0};
  EXPECT_EQ(refused(talvo_model_open(kSmall, &options, &none)),
            "2: talvo_options: set its size, with TALVO_OPTIONS_INIT");
  EXPECT_EQ(refused(talvo_model_open(nullptr, nullptr, &none)), "2: the path is null");
  input_.bytes -= 1;
  EXPECT_EQ(refused(Run()), "1: input \"picture\": 767 bytes, dims [3, 8, 8] need 768");
  input_.dims[0] = 1 << 25;
  EXPECT_EQ(refused(Run()),
            "1: input \"picture\": tensor of dims [33554432, 8, 8] and 4 bytes an element: more than 4294967295 bytes");
  input_.rank = 9;
  EXPECT_EQ(refused(Run()), "2: an input has more than 8 extents");
  EXPECT_EQ(refused(talvo_model_run(model_, nullptr, 0, nullptr, 0)),
            "1: fuzz/corpus/run_package/small.json: input \"picture\" has no tensor");
  EXPECT_EQ(refused(talvo_model_copy(model_, "classes", nullptr, 0, nullptr)),
            "1: there is no output \"classes\"; there was no run");
}

// An application of a later version, whose structs have a field more.
TEST_F(CInterface, LeavesLaterFieldsAlone) {
  struct {
    talvo_layer_time time;
    size_t later;
  } times[2] = {};
  for (auto& entry : times) entry = {{sizeof entry, nullptr, nullptr, 0}, 77};
  size_t count = 0;
  ASSERT_EQ(talvo_model_profile(model_, &input_, 1, &times[0].time, 2, &count), TALVO_OK) << talvo_last_error();
  EXPECT_GT(count, 20u);
  EXPECT_STREQ(times[0].time.id, "picture");
  EXPECT_STREQ(times[1].time.kernel, "Conv2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1");
  EXPECT_EQ(times[0].later + times[1].later + times[1].time.size, 154 + sizeof times[0]);
}

}  // namespace
}  // namespace talvo
