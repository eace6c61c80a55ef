#include "talvo/kernel/structural.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <string>

#include "talvo/kernel/functional/structural.h"
#include "talvo/kernel/rows/exponential.h"
#include "talvo/kernel/rows/instruction_sets.h"
#include "talvo/serialization/inference_param.h"
#include "talvo/serialization/layer_info_activation.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "tests/support/bits.h"
#include "tests/support/guarded_context.h"
#include "tests/support/log_capture.h"

namespace talvo {
namespace {

using runtime::Tensor;
using runtime::TensorShape;

using Dims = std::vector<unsigned int>;
using Tensors = std::vector<std::shared_ptr<Tensor>>;
using Shorts = std::vector<short>;

class Structural : public ::testing::Test {
 protected:
  std::shared_ptr<runtime::TensorCPU> Random(Dims const& dims, unsigned int layout = TensorShape::CHW,
                                             std::uint32_t seed = 1) const {
    return test::FloatTensor(*context_, dims, layout, test::Floats(seed, runtime::ElementCount(dims)));
  }

  // Runs a kernel that was configured with the layer.
  Tensors Run(runtime::IKernel& kernel, std::shared_ptr<runtime::LayerInfo> const& layer, Tensors const& inputs) const {
    EXPECT_TRUE(kernel.Config(layer, nullptr, context_));
    Tensors outputs;
    EXPECT_EQ(0, kernel.Forward(inputs, outputs, context_));
    return outputs;
  }

  void ExpectRefusal(runtime::IKernel& kernel, std::shared_ptr<runtime::LayerInfo> const& layer, Tensors const& inputs,
                     std::string const& text) const {
    EXPECT_TRUE(kernel.Config(layer, nullptr, context_));
    Tensors outputs;
    auto const refusal = test::RefusalOf([&] { kernel.Forward(inputs, outputs, context_); });
    EXPECT_NE(std::string::npos, refusal.find(text)) << refusal;
    EXPECT_TRUE(outputs.empty());
  }

  std::shared_ptr<runtime::Context> context_ = test::GuardedContext();
};

template <class Info, class Value>
std::shared_ptr<Info> LayerWith(Value Info::*field, Value const& value) {
  auto layer = std::make_shared<Info>();
  (*layer).*field = value;
  return layer;
}
template <class Info>
auto LayerWithDim(decltype(Info::dim) dim) {
  return LayerWith(&Info::dim, dim);
}
auto SliceLayer(Shorts const& dims) { return LayerWith(&runtime::TensorSliceInfo::slice_dims, dims); }
auto ExpandLayer(Shorts const& shape) { return LayerWith(&runtime::TensorExpandInfo::new_shape, shape); }

TEST_F(Structural, PassesTensorsOnAndIgnoresThem) {
  auto const x = Random({2, 3}), elsewhere = Random({1});
  elsewhere->shape.location = TensorShape::MetalBuffer;
  kernel::Input_Fallback_M1 input;
  kernel::Straight_Through_Fallback_M1 straight;
  for (runtime::IKernel* kernel : {static_cast<runtime::IKernel*>(&input), static_cast<runtime::IKernel*>(&straight)}) {
    EXPECT_FALSE(kernel->Config(nullptr, nullptr, context_));
    EXPECT_EQ((Tensors{x, elsewhere}), Run(*kernel, std::make_shared<runtime::SoftmaxInfo>(), {x, elsewhere}));
  }
  EXPECT_EQ(0, input.IsValidInput({elsewhere}));
  EXPECT_EQ(-2, straight.IsValidInput({elsewhere}));

  kernel::LayerPlaceholder_Fallback_Float_M1 placeholder;
  auto const layer = std::make_shared<runtime::LayerPlaceholderInfo>();
  EXPECT_FALSE(placeholder.Config(layer, nullptr, context_)) << "an empty shape";
  layer->output_shape = {2, 1, 65};
  auto const outputs = Run(placeholder, layer, {context_->device_cpu->CreateU8HWCMainMem({1}, nullptr)});
  EXPECT_EQ((Dims{2, 1, 65}), outputs.at(0)->shape.dims);
  EXPECT_EQ(std::vector<float>(130, 128.0f), test::Values(*outputs[0]));
  EXPECT_EQ(0, placeholder.IsValidInput({outputs[0], nullptr}));
}

// Element (o, j, i) of the concatenation of [outer, n, inner] arrays comes from the array in which j falls.
TEST_F(Structural, ConcatenatesAlongAnyAxis) {
  struct Case {
    char const* why;
    std::vector<Dims> dims;
    unsigned short axis;
    Dims joined;
  };
  for (Case const& c : {Case{"first axis, three inputs", {{2, 3}, {1, 3}, {4, 3}}, 0, {7, 3}},
                        {"middle axis", {{2, 3, 4}, {2, 5, 4}}, 1, {2, 8, 4}},
                        {"last axis", {{3, 2, 1}, {3, 2, 0}, {3, 2, 6}}, 2, {3, 2, 7}},
                        {"rank 1", {{1}, {1}}, 0, {2}}}) {
    SCOPED_TRACE(c.why);
    Tensors inputs;
    std::vector<std::size_t> at(c.dims.size());
    for (std::size_t i = 0; i < c.dims.size(); ++i) {
      inputs.push_back(Random(c.dims[i], TensorShape::CHW, static_cast<std::uint32_t>(i)));
    }
    kernel::Concatenate_MainMemory_Fallback kernel;
    auto const outputs = Run(kernel, LayerWithDim<runtime::ConcatenateInfo>(c.axis), inputs);
    ASSERT_EQ(1u, outputs.size());
    EXPECT_EQ(c.joined, outputs[0]->shape.dims);
    EXPECT_EQ(unsigned{TensorShape::FLEXIABLE}, outputs[0]->shape.layout);
    std::size_t outer = 1, inner = 1;
    for (std::size_t i = 0; i < c.axis; ++i) outer *= c.joined[i];
    for (std::size_t i = c.axis + 1u; i < c.joined.size(); ++i) inner *= c.joined[i];
    std::vector<float> want;
    for (std::size_t o = 0; o < outer; ++o) {
      for (std::size_t i = 0; i < inputs.size(); ++i) {
        for (std::size_t k = 0; k < c.dims[i][c.axis] * inner; ++k) want.push_back(test::Values(*inputs[i])[at[i]++]);
      }
    }
    test::ExpectSameBits(want, test::Values(*outputs[0]));
  }
}

TEST_F(Structural, ConcatenationTakesAnyElementTypeAndJudgesItself) {
  kernel::Concatenate_MainMemory_Fallback kernel;
  auto const layer = LayerWithDim<runtime::ConcatenateInfo>(1);
  auto const bytes = [&](Dims const& dims, char const* text) {
    return context_->device_cpu->CreateU8HWCMainMem(dims, text);
  };
  auto outputs = Run(kernel, layer, {bytes({2, 2}, "abef"), bytes({2, 3}, "cd-gh+")});
  EXPECT_EQ(0, std::memcmp("abcd-efgh+", outputs.at(0)->data, 10));
  auto const refusal = [&](Tensors const& inputs) {
    return test::RefusalOf([&] { kernel.Forward(inputs, outputs, context_); });
  };
  Tensors const good = {Random({2, 3}), Random({2, 1})};
  EXPECT_EQ("[TLN]: Not Implemented.\n", refusal(good));
  outputs.push_back(outputs[0]);
  EXPECT_EQ("[TLN]: Invalid forward output param\n", refusal(good));
  outputs.clear();
  for (Tensors const& bad : {Tensors{Random({2, 3})},
                             {Random({2, 3}), bytes({2, 3}, "abcdef")},
                             {Random({2, 3}), Random({3, 3})},
                             {Random({2}), Random({2, 3})},
                             {Random({2, 3}), nullptr}}) {
    EXPECT_EQ("[TLN]: Invalid forward input param\n", refusal(bad));
  }
  EXPECT_EQ("[TLN]: Concatenate_MainMemory_Fallback: axis 1, the inputs have rank 1\n",
            refusal({Random({4}), Random({4})}));
  EXPECT_TRUE(outputs.empty());
}

TEST_F(Structural, ConcatenationShapesFollowTheLeadingExtents) {
  auto const shape = [](Dims dims) { return TensorShape(std::move(dims), 0, 0, TensorShape::MainMemory, {}); };
  kernel::Concatenate_MainMemory_Fallback kernel;
  Dims const empty = {0xFFFFFFFF, 0};  // rows without elements are passed over, however many there are
  auto const outputs = Run(kernel, LayerWithDim<runtime::ConcatenateInfo>(1), {Random(empty), Random(empty)});
  EXPECT_EQ(empty, outputs.at(0)->shape.dims);
  EXPECT_EQ((Dims{2, 2, 2}), kernel.GetOutputShapes({shape({2, 3, 4}), shape({2, 5, 4})})[0].dims);
  auto const uneven = [&] { kernel.GetOutputShapes({shape({2, 3}), shape({3, 3})}); };
  EXPECT_EQ("[TLN]: input tensor shapes error.\n", test::RefusalOf(uneven));
}

TEST_F(Structural, ConcatenatesChannelsByAppending) {
  kernel::Concatenate_C_Fallback_CnHWn_M1 kernel;
  EXPECT_FALSE(kernel.Config(LayerWithDim<runtime::ConcatenateInfo>(0), nullptr, context_));
  auto const layer = LayerWithDim<runtime::ConcatenateInfo>(1);
  Tensors const inputs = {Random({2, 3, 5, 4}, TensorShape::C4HW4, 1), Random({1, 3, 5, 4}, TensorShape::C4HW4, 2),
                          Random({3, 3, 5, 4}, TensorShape::C4HW4, 3)};
  EXPECT_EQ(0, kernel.IsValidInput(inputs));
  EXPECT_EQ(-2, kernel.IsValidInput({inputs[0], Random({1, 3, 5})}));
  EXPECT_EQ(-2, kernel.IsValidInput({Random({5}, TensorShape::C)}));
  auto const outputs = Run(kernel, layer, inputs);
  EXPECT_EQ((Dims{6, 3, 5, 4}), outputs.at(0)->shape.dims);
  std::vector<float> want;
  for (auto const& input : inputs) {
    for (float value : test::Values(*input)) want.push_back(value);
  }
  test::ExpectSameBits(want, test::Values(*outputs[0]));
  ExpectRefusal(kernel, layer, {Random({1, 2, 2}), Random({1, 3, 3})}, "2 inputs hold 52 bytes, the output 32");
  ExpectRefusal(kernel, layer, {Random({1, 2, 2}), nullptr}, "Concatenate_C_Fallback_CnHWn_M1: input 1 is no CPU");
  ExpectRefusal(kernel, layer, {}, "Concatenate_C_Fallback_CnHWn_M1: 0 shapes given");
  ExpectRefusal(kernel, layer, {Random({})}, "one of 1 tensors has no dims");
}

TEST_F(Structural, SlicesEqualTheLoops) {
  auto const x = Random({6, 7, 9}), wide = Random({2, 3, 2500});
  for (Shorts const& s : {Shorts{0, 6, 1, 0, 7, 1, 0, 9, 1},  // everything
                          {1, 5, 1, 0, 7, 1, 0, 9, 1},        // whole planes that follow each other
                          {0, 6, 3, 0, 7, 1, 0, 9, 1},        // some planes
                          {1, 5, 2, 1, 7, 2, 1, 9, 4},        // single elements
                          {0, 6, 1, 0, 7, 1, 3, 9, 3},        // single elements of all rows
                          {1, 3, 1, 2, 6, 2, 4, 6, 1},        // parts of some rows
                          {0, 6, 2, 0, 7, 1, 8, 9, 1},        // one column
                          {3, 6, 1, 1, 7, 3, 0, 9, 1},        // some whole rows
                          {3, 6, 1, 2, 5, 1, 0, 9, 1},        // whole rows that follow each other
                          {2, 2, 1, 0, 7, 1, 0, 9, 1},        // no channel
                          {0, 6, 1, 5, 5, 2, 0, 9, 1},        // no row
                          {0, 6, 1, 0, 7, 1, 9, 8, 2},        // no column: -1 / 2 is 0
                          {0, 6, 1, 5, 8, 3, 4, 10, 3},       // what is picked lies inside, the ends do not
                          {4, 8, 4, 0, 7, 1, 0, 9, 1},        // likewise of planes
                          {9, 7, 3, 9, 9, 1, 0, 9, 1},        // nothing of what is outside
                          {0, 2, 1, 1, 3, 1, 7, 107, 1},      // rows of some vectors
                          {0, 2, 1, 1, 3, 1, 7, 2403, 1},     // long rows
                          {0, 2, 1, 0, 4, 2, 0, 2500, 1}}) {  // long whole rows, two of three
    SCOPED_TRACE(::testing::PrintToString(s));
    auto const from = s[7] > 10 ? wide : x;
    std::vector<float> want;
    for (short c = s[0]; c < s[1]; c = static_cast<short>(c + s[2])) {
      for (short h = s[3]; h < s[4]; h = static_cast<short>(h + s[5])) {
        for (short w = s[6]; w < s[7]; w = static_cast<short>(w + s[8])) {
          want.push_back(*from->Locate3D<float>(static_cast<unsigned int>(c), static_cast<unsigned int>(h),
                                                static_cast<unsigned int>(w)));
        }
      }
    }
    for (auto const set : kernel::rows::RunnableSets()) {
      kernel::rows::ScopedInstructionSet const use(set);
      kernel::Slice_Fallback_CHW_Float_M1 kernel;
      test::ExpectSameBits(want, test::Values(*Run(kernel, SliceLayer(s), {from}).at(0)));
    }
  }
}

TEST_F(Structural, SlicesThatLeaveTheTensorAreRefused) {
  kernel::Slice_Fallback_CHW_Float_M1 kernel;
  auto const x = Random({4, 4, 4});
  for (Shorts const& bad : {Shorts{},
                            {0, 2, 1, 0, 4, 1},              // fewer than nine values
                            {0, 4, 0, 0, 4, 1, 0, 4, 1},     // a step of 0
                            {0, 4, 1, 0, 4, 1, 4, 0, -1},    // a negative one
                            {0, 4, 3, 0, 4, 1, 0, 4, 1},     // a step that does not divide the range
                            {0, 4, 1, 0, 4, 1, 0, 3, 2},     // likewise in a row
                            {2, 5, 1, 0, 4, 1, 0, 4, 1},     // picks behind the channels
                            {0, 4, 1, 3, 5, 1, 0, 4, 1},     // behind the rows
                            {0, 4, 1, 0, 4, 1, -1, 2, 1},    // starts before the columns
                            {-2, 0, 1, 0, 4, 1, 0, 4, 1},    // before the channels
                            {0, 4, 1, 0, 4, 1, 3, 1, 1},     // a negative extent
                            {0, 5, 1, 3, 1, 1, 0, 4, 1}}) {  // extents whose product wraps
    SCOPED_TRACE(::testing::PrintToString(bad));
    auto const layer = SliceLayer(bad);
    layer->id = "cut";
    ExpectRefusal(kernel, layer, {x}, "Slice_Fallback_CHW_Float_M1 of layer cut: ");
  }
  ExpectRefusal(kernel, SliceLayer({0, 4, 1, 0, 4, 1, 0, 4, 1}), {Random({4, 4})}, "input 0 has dims [4, 4]");
  auto const slice = kernel::functional::Function_TensorSlice_Fallback_CHW_Float_M1;
  for (auto const& [output, text] :
       {std::pair(Random({1, 4, 4}), "{0, 2, 1} selects 2 of the 4 elements of axis 0, the output holds 1"),
        {nullptr, "the output is no CPU tensor"}}) {
    auto const refusal = test::RefusalOf([&, to = output] { slice(x, {0, 2, 1, 0, 4, 1, 0, 4, 1}, to); });
    EXPECT_EQ(std::string("[TLN]: Function_TensorSlice_Fallback_CHW_Float_M1: ") + text + "\n", refusal);
  }
  // A whole plane does not look at the triples of H and W.
  auto const y = Random({4, 4, 4}, TensorShape::CHW, 2);
  slice(x, {0, 4, 1, 9, 13, 1, 0, 8, 2}, y);
  test::ExpectSameBits(test::Values(*x), test::Values(*y));
}

TEST_F(Structural, SliceAndExpandJudgeWithoutEffect) {
  struct Case {
    Shorts values;
    int slice, expand;
  };
  kernel::Slice_Fallback_CHW_Float_M1 slice;
  kernel::Expand_Fallback_CHW_Float_M1 expand;
  for (Case const& c : {Case{{}, -1, -1},
                        {{1, 1}, -1, 0},
                        {{2, 4, 1}, -1, -1},  // an ordinary slice
                        {{4, 2, 1}, -1, -1},  // -1 elements are fewer than 1
                        {{2, 2, 1}, 0, -1},
                        {{2, 2, 2}, -1, -1},
                        {{1, 1, 1, -1, -1, 1, 1, 2, 0}, 0, 0},          // the second and third triple are not read
                        {{1, 1, 1, 0, 0, 1, 0, 0, 1, 0, 1, 1}, -1, 0},  // the fourth is
                        {{1, -1, -1, -1}, -1, -1}}) {
    SCOPED_TRACE(::testing::PrintToString(c.values));
    EXPECT_EQ(c.slice, slice.IsValidParam(SliceLayer(c.values), nullptr));
    EXPECT_EQ(c.expand, expand.IsValidParam(ExpandLayer(c.values), nullptr));
    EXPECT_TRUE(slice.Config(SliceLayer(c.values), nullptr, context_) && slice.IsConfigured());
    EXPECT_TRUE(expand.Config(ExpandLayer(c.values), nullptr, context_) && expand.IsConfigured());
  }
  EXPECT_TRUE(slice.Config(SliceLayer({}), std::make_shared<runtime::InferenceParamActQuant>(), context_));
  EXPECT_FALSE(slice.Config(ExpandLayer({}), nullptr, context_) || slice.IsConfigured());
  EXPECT_FALSE(expand.Config(nullptr, nullptr, context_) || expand.IsConfigured());
  EXPECT_FALSE(kernel::UnSqueeze_Fallback_M1().Config(ExpandLayer({}), nullptr, context_));
}

TEST_F(Structural, ExpandSpreadsSingleElementsOnly) {
  kernel::Expand_Fallback_CHW_Float_M1 kernel;
  auto const x = Random({3, 1, 1});
  auto outputs = Run(kernel, ExpandLayer({1, 5, 5, 7}), {x});  // the channels stay
  ASSERT_EQ((Dims{3, 5, 7}), outputs.at(0)->shape.dims);
  std::vector<float> want;
  for (float value : test::Values(*x)) want.insert(want.end(), 35, value);
  test::ExpectSameBits(want, test::Values(*outputs[0]));

  short const words[] = {1, -2};
  outputs = Run(kernel, ExpandLayer({1, -1, 1, 3}), {context_->device_cpu->CreateS16CHWMainMem({2, 1, 1}, words)});
  short const spread[] = {1, 1, 1, -2, -2, -2};
  EXPECT_EQ(0, std::memcmp(spread, outputs.at(0)->data, sizeof spread));

  outputs = Run(kernel, ExpandLayer({1, 1, 2, 2}), {Random({1, 2, 2})});
  EXPECT_EQ(0, std::memcmp(std::string(16, '\xA5').data(), outputs.at(0)->data, 16)) << "what the pool gave";
  outputs = Run(kernel, ExpandLayer({1, 0, 2, 2}), {x});
  EXPECT_EQ((Dims{0, 2, 2}), outputs.at(0)->shape.dims);

  outputs = Run(kernel, ExpandLayer({1, -1, 0, 2}), {context_->device_cpu->CreateU8CHWMainMem({70000, 1, 1}, nullptr)});
  EXPECT_EQ((Dims{70000, 0, 2}), outputs.at(0)->shape.dims);

  ExpectRefusal(kernel, ExpandLayer({1, 2, 2, 2}), {Random({2, 2, 2})}, "[TLN]: ");
  ExpectRefusal(kernel, ExpandLayer({1, 3, 5}), {x}, "new_shape holds 3 values, an input of dims [3, 1, 1] needs 4");
}

TEST_F(Structural, UnSqueezeInsertsAnAxis) {
  struct Case {
    short dim;
    Dims dims, want;
  };
  kernel::UnSqueeze_Fallback_M1 kernel;
  for (Case const& c : {Case{1, {3, 4}, {1, 3, 4}},
                        {0, {3, 4}, {1, 3, 4}},
                        {3, {3, 4}, {3, 4, 1}},
                        {-1, {3, 4}, {3, 4, 1}},
                        {-3, {3, 4}, {1, 3, 4}},
                        {2, {0, 4}, {0, 1, 4}},
                        {-1, {}, {1}}}) {
    SCOPED_TRACE(c.dim);
    auto const x = Random(c.dims);
    auto const outputs = Run(kernel, LayerWithDim<runtime::TensorUnSqueezeInfo>(c.dim), {x});
    EXPECT_EQ(c.want, outputs.at(0)->shape.dims);
    EXPECT_EQ(unsigned{TensorShape::CHW}, outputs[0]->shape.layout);
    test::ExpectSameBits(test::Values(*x), test::Values(*outputs[0]));
  }
  for (short dim : {short{4}, short{-4}}) {
    auto const layer = LayerWithDim<runtime::TensorUnSqueezeInfo>(dim);
    EXPECT_EQ("[TLN]: ", test::RefusalOf([&] { Run(kernel, layer, {Random({3, 4})}); }));
  }
}

float Exp(float x) {
  kernel::rows::ExpRow(&x, 1, &x);
  return x;
}

TEST_F(Structural, SoftmaxSumsInDoubleWithoutAMaximum) {
  struct Case {
    Dims dims;
    unsigned short dim;
  };
  kernel::Softmax_Fallback_Float_M1 kernel;
  for (Case const& c :
       {Case{{1000}, 1}, {{3, 17, 5}, 1}, {{3, 17, 5}, 2}, {{3, 17, 5}, 3}, {{2, 0, 5}, 1}, {{0, 1000000000}, 1}}) {
    SCOPED_TRACE(::testing::PrintToString(c.dims) + " dim " + std::to_string(c.dim));
    auto const x = Random(c.dims);
    auto* const values = x->Data<float>();
    std::size_t const count = runtime::ElementCount(c.dims), n = c.dims[c.dim - 1u];
    std::size_t inner = 1;
    for (std::size_t axis = c.dim; axis < c.dims.size(); ++axis) inner *= c.dims[axis];
    for (std::size_t i = 0; i < count; ++i) values[i] *= 20.0f;
    std::vector<float> want(count);
    for (std::size_t at = 0; at < count; ++at) {
      std::size_t const first = at / (n * inner) * n * inner + at % inner;
      double sum = 0.0;
      for (std::size_t k = 0; k < n; ++k) sum += static_cast<double>(Exp(values[first + k * inner]));
      want[at] = static_cast<float>(static_cast<double>(Exp(values[at])) / sum);
    }
    auto const outputs = Run(kernel, LayerWithDim<runtime::SoftmaxInfo>(c.dim), {x});
    EXPECT_EQ(c.dims, outputs.at(0)->shape.dims);
    test::ExpectSameBits(want, test::Values(*outputs[0]));
  }
  auto const large = test::FloatTensor(*context_, {2}, TensorShape::C, {1000.0f, 0.0f});
  auto const outputs = Run(kernel, LayerWithDim<runtime::SoftmaxInfo>(1), {large});
  test::ExpectSameBits({std::numeric_limits<float>::quiet_NaN(), 0.0f}, test::Values(*outputs.at(0)));
  for (unsigned short dim : {std::uint16_t{0}, std::uint16_t{3}})
    ExpectRefusal(kernel, LayerWithDim<runtime::SoftmaxInfo>(dim), {Random({2, 3})}, "dims [2, 3] needs 1 to 2");
}

}  // namespace
}  // namespace talvo
