#include "talvo/entry/reset_rnn_state.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "talvo/kernel/recurrent.h"
#include "talvo/kernel/structural.h"
#include "talvo/runtime/net.h"
#include "talvo/serialization/layer_info_rnn.h"
#include "tests/support/bits.h"
#include "tests/support/guarded_context.h"

namespace talvo::test {
namespace {

std::shared_ptr<runtime::IKernel> Cell(std::uint32_t seed, std::shared_ptr<runtime::Context> const& context) {
  auto const info = std::make_shared<runtime::GRUCellInfo>();
  info->in_size = info->hidden_size = 4;
  info->weight_ih = WeightText(Floats(seed, 12 * 4));
  info->weight_hh = WeightText(Floats(seed + 1, 12 * 4));
  auto const cell = std::make_shared<kernel::GRUCell_Fallback_C_F32_M1>();
  EXPECT_TRUE(cell->Config(info, nullptr, context));
  return cell;
}

TEST(ResetRNNState, ReachesTheKernelAndTheConvertersOnBothSides) {
  auto const context = GuardedContext();
  auto const input = std::make_shared<runtime::Layer>(), layer = std::make_shared<runtime::Layer>();
  input->type = "Input";
  input->kernel = std::make_shared<kernel::Input_Fallback_M1>();
  ASSERT_TRUE(input->kernel->Config(std::make_shared<runtime::InputInfo>(), nullptr, context));
  input->consumers = {{1, 0}};
  layer->input_refs = {{0, 0}};
  layer->input_converters[0] = Cell(10, context);
  layer->kernel = Cell(20, context);
  layer->output_converters[0] = Cell(30, context);
  runtime::Net const net({input, layer}, {{"x", 0}});
  auto const run = [&] {
    auto const x = FloatTensor(*context, {4}, runtime::TensorShape::C, Floats(1, 4));
    return Values(*net.Forward({{0, x}}, {1}, context, nullptr, nullptr).at(1).at(0));
  };
  auto const first = run();
  EXPECT_NE(first, run());
  utility::ResetRNNState(net);
  ExpectSameBits(first, run());
}

}  // namespace
}  // namespace talvo::test
