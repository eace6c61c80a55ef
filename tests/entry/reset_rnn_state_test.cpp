#include "talvo/entry/reset_rnn_state.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "talvo/kernel/recurrent.h"
#include "talvo/serialization/layer_info_rnn.h"
#include "tests/support/bits.h"
#include "tests/support/guarded_context.h"

namespace talvo::test {
namespace {

TEST(ResetRNNState, ReachesTheKernelAndTheConvertersOnBothSides) {
  auto const context = GuardedContext();
  auto const info = std::make_shared<runtime::GRUCellInfo>();
  info->in_size = info->hidden_size = 4;
  info->weight_ih = info->weight_hh = WeightText(Floats(1, 12 * 4));
  auto const make = [&] {
    auto const cell = std::make_shared<kernel::GRUCell_Fallback_C_F32_M1>();
    EXPECT_TRUE(cell->Config(info, nullptr, context));
    return cell;
  };
  auto const layer = std::make_shared<runtime::Layer>(), empty = std::make_shared<runtime::Layer>();
  layer->input_converters[1] = make();
  layer->kernel = make();
  layer->output_converters[0] = make();
  for (auto const& cell : {layer->input_converters[1], layer->kernel, layer->output_converters[0]}) {
    std::vector<std::shared_ptr<runtime::Tensor>> first, second;
    auto const x = FloatTensor(*context, {4}, runtime::TensorShape::C, Floats(2, 4));
    cell->Forward({x}, first, context);
    utility::ResetRNNState(runtime::Net({nullptr, empty, layer}, {}));
    cell->Forward({x}, second, context);
    ExpectSameBits(Values(*first[0]), Values(*second[0]));
  }
}

}  // namespace
}  // namespace talvo::test
