#include "talvo/entry/reset_rnn_state.h"

#include <gtest/gtest.h>

#include "tests/runtime/scripted_kernel.h"

namespace talvo::test {
namespace {

struct Resettable : ScriptedKernel {
  explicit Resettable(std::string* resets) : ScriptedKernel(nullptr), resets_(resets) {}
  int ResetRNNState() const override { return *resets_ += "reset ", 0; }
  std::string* resets_;
};

TEST(ResetRNNState, ReachesTheKernelAndTheConvertersOnBothSides) {
  std::string in, own, out;
  auto const layer = std::make_shared<runtime::Layer>(), empty = std::make_shared<runtime::Layer>();
  layer->input_converters[1] = std::make_shared<Resettable>(&in);
  layer->kernel = std::make_shared<Resettable>(&own);
  layer->output_converters[0] = std::make_shared<Resettable>(&out);
  utility::ResetRNNState(runtime::Net({nullptr, empty, layer}, {}));
  for (std::string const& resets : {in, own, out}) EXPECT_EQ(resets, "reset ");
}

}  // namespace
}  // namespace talvo::test
