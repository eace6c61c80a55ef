#include "talvo/transform/reshape.h"

#include "talvo/serialization/inference_param.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "tests/transform/transform_test_support.h"

namespace talvo::test {
namespace {

using Entries = std::vector<short>;
using KernelPtr = std::shared_ptr<runtime::IKernel>;
using Any = kernel::Transform_MainMemory_Reshape_Fallback;
using ToC = kernel::Reshape_Fallback_To_C_M1;
using ToCHW = kernel::Reshape_Fallback_To_CHW_M1;
using ToSC = kernel::Reshape_Fallback_To_SC_M1;
using BlocksToC = kernel::Reshape_Fallback_CnHWn_To_C_M1;
using BlocksToCL = kernel::Reshape_Fallback_CnHWn_To_CL_M1;
using CLToCHW = kernel::Reshape_Fallback_CL_To_CHW_M1;

std::shared_ptr<runtime::TensorReshapeInfo> Layer(Entries const& entries) {
  auto layer = std::make_shared<runtime::TensorReshapeInfo>();
  layer->new_shape = entries;
  layer->id = "shaped";
  return layer;
}

template <class Kernel>
std::shared_ptr<Kernel> Configured(Entries const& entries) {
  auto kernel = std::make_shared<Kernel>();
  EXPECT_TRUE(kernel->Config(Layer(entries), nullptr, nullptr)) << testing::PrintToString(entries);
  return kernel;
}

class Reshape : public TransformTest {
 protected:
  // The output for a tensor of these dims, whose bytes are compared with the input's leading ones.
  TensorShape Copied(runtime::IKernel const& kernel, Dims const& dims, unsigned int layout = TensorShape::CHW,
                     unsigned int type = TensorShape::FLOAT32) const {
    auto const input = Random(dims, layout, type);
    Tensors outputs;
    EXPECT_EQ(0, kernel.Forward({input}, outputs, context_));
    EXPECT_EQ(1u, outputs.size());
    EXPECT_EQ(0, std::memcmp(input->data, outputs[0]->data, runtime::ByteCount(outputs[0]->shape)));
    return outputs[0]->shape;
  }
};

TEST_F(Reshape, DropsTheBatchAxis) {
  struct Case {
    char const* why;
    KernelPtr kernel;
    unsigned int layout;
    Dims dims;
  };
  for (Case const& c : {Case{"C", Configured<ToC>({1, -1}), TensorShape::C, {24}},
                        {"C of three entries stays", Configured<ToC>({2, 3, -1}), TensorShape::C, {2, 3, 4}},
                        {"CHW", Configured<ToCHW>({1, -1, 4, 2}), TensorShape::CHW, {3, 4, 2}},
                        {"CHW of two entries stays", Configured<ToCHW>({4, 6}), TensorShape::CHW, {4, 6}},
                        {"SC, entry 0", Configured<ToSC>({1, 4, 6}), TensorShape::SC, {4, 6}},
                        {"SC, entry 1", Configured<ToSC>({4, 1, 6}), TensorShape::SC, {4, 6}},
                        {"SC, both", Configured<ToSC>({1, 1, 24}), TensorShape::SC, {1, 24}},
                        {"any, the entry that is not 1", Configured<Any>({2, 3, 4}), TensorShape::FLEXIABLE, {3, 4}},
                        {"any, shorter than the input", Configured<Any>({1, 6}), TensorShape::FLEXIABLE, {6}}}) {
    SCOPED_TRACE(c.why);
    TensorShape const shape = Copied(*c.kernel, {2, 3, 4}, TensorShape::CHW, TensorShape::INT16);
    EXPECT_EQ(c.dims, shape.dims);
    EXPECT_EQ(c.layout, shape.layout);
    EXPECT_EQ(TensorShape::INT16, shape.data_type);
    EXPECT_EQ(0, shape.extra.step_size);
  }
}

// A refusal takes no memory and leaves nothing in the outputs; told texts come before those of sizes.
TEST_F(Reshape, Refuses) {
  auto const input = Random({2, 3, 4}), halves = Random({1, 2, 4, 4}, TensorShape::C4HW4, TensorShape::FLOAT16);
  constexpr unsigned int kFlexible = TensorShape::FLEXIABLE;
  constexpr char const* kType = "[TLN]: Invalid input data type\n";
  constexpr char const* kLayout = "[TLN]: Invalid input tensor layout\n";
  KernelPtr const to_c = Configured<BlocksToC>({1, -1}), to_cl = Configured<BlocksToCL>({1, -1, 8});
  KernelPtr const short_c = Configured<BlocksToC>({1, 23});
  struct Case {
    char const* why;
    KernelPtr kernel;
    TensorPtr input;
    std::string text;  // behind the names of kernel and layer, unless it is told
  };
  for (Case const& c :
       {Case{"batch of C", Configured<ToC>({2, 12}), input, "[TLN]: "},
        {"batch of CHW", Configured<ToCHW>({2, 1, 3, 4}), input, "[TLN]: "},
        {"batch of SC", Configured<ToSC>({2, 2, 6}), input,
         "[TLN]: [Reshape_Fallback_To_SC_M1] batch of new shape != 1\n"},
        {"a product of 0", Configured<Any>({1, 0, -1}), input, "3 entries of new_shape have a product of 0"},
        {"longer than the input", Configured<Any>({1, 25}), input, "dims [2, 3, 4] do not fill dims [25]"},
        {"4 GiB", Configured<Any>({1, 32767, 32767}), input, "do not fill dims [32767, 32767]"},
        {"no batch axis", Configured<Any>({}), input, "new_shape is empty"},
        {"shorter", short_c, input, "do not fill dims [23]"},
        {"shorter, and another layout", short_c, Random({1, 2, 4, 4}, kFlexible), kLayout},
        {"longer", Configured<CLToCHW>({1, 5, 5, 1}), input, "do not fill dims [5, 5, 1]"},
        {"three lanes", to_c, Random({2, 2, 2, 3}, TensorShape::C4HW4), "needs rank 4 and 4 lanes"},
        {"type", to_c, Random({1, 2, 4, 4}, TensorShape::C4HW4, TensorShape::INT32), kType},
        {"halves, which the judge takes", to_cl, halves, kType},
        {"one lane", to_cl, Random({4, 2, 4, 1}, kFlexible), kLayout},
        {"rank 2", to_cl, Random({4, 8}, kFlexible), kLayout}}) {
    SCOPED_TRACE(c.why);
    Tensors outputs;
    for (int pass = 0; pass < 2; ++pass) {  // the second meets what the first left
      std::string const text = RefusalOf([&] { c.kernel->Forward({c.input}, outputs, context_); });
      if (c.text[0] == '[') {
        EXPECT_EQ(c.text, text);
      } else {
        EXPECT_NE(std::string::npos, text.find(c.kernel->GetName() + " of layer shaped: ")) << text;
        EXPECT_NE(std::string::npos, text.find(c.text)) << text;
      }
      EXPECT_TRUE(outputs.empty());
    }
  }
  EXPECT_EQ(0, to_cl->IsValidInput({halves}));
}

TEST_F(Reshape, UsesAGivenOutput) {
  auto const input = Random({2, 3, 4});
  for (KernelPtr const& kernel : {KernelPtr(Configured<ToC>({1, 6})), KernelPtr(Configured<CLToCHW>({1, 1, 1, 6}))}) {
    Tensors outputs = {Random({5, 5}, TensorShape::HWC)};
    auto const* const given = outputs[0].get();
    EXPECT_EQ(0, kernel->Forward({input}, outputs, nullptr));
    EXPECT_EQ(given, outputs[0].get());
    EXPECT_EQ(0, std::memcmp(input->data, given->data, 24 * sizeof(float))) << "all of the input, whatever new_shape";
    for (auto const& [bad, text] : {std::pair<TensorPtr, char const*>{Random({23}), "holds 92 bytes, needs 96"},
                                    {nullptr, "is no CPU tensor and holds 0 bytes, needs 96"}}) {
      EXPECT_NE(std::string::npos, Refusal(*kernel, {input}, {bad}, nullptr).find(text));
    }
  }
}

TEST_F(Reshape, ConfiguresGeneralKernelsWithoutReadingMuch) {
  ToC kernel;
  EXPECT_TRUE(kernel.Config(Layer({0, -3}), nullptr, nullptr));
  EXPECT_FALSE(kernel.Config(Layer({-1, -1}), nullptr, nullptr)) << "two unknowns";
  EXPECT_FALSE(kernel.IsConfigured());
  EXPECT_EQ(0, kernel.IsValidParam(Layer({-1, -1}), nullptr));
  EXPECT_FALSE(kernel.Config(Layer({1, 6}), std::make_shared<runtime::InferenceParamActQuant>(), nullptr));
  EXPECT_EQ((Dims{6}), kernel.GetOutputShapes({Random({6})->shape})[0].dims) << "but the entries are read";
}

TEST_F(Reshape, JudgesTheEntriesOfUnblockingKernels) {
  struct Case {
    Entries entries;
    int to_c, to_cl, to_chw;
  };
  std::vector<Case> cases = {
      {{1, 8}, 0, -1, -1}, {{-1, -1}, 0, -1, -1}, {{1, -1, 8}, -1, 0, -1}, {{1, 2, -1, 3}, -1, -1, 0}};
  for (Entries const& none :
       {Entries{2, 8}, {1, 0}, {1, -2}, {1, -1, -1}, {-1, 2, 8}, {1, -1, 2, -1}, {0, 2, 2, 2}, {1}, {}}) {
    cases.push_back({none, -1, -1, -1});
  }
  for (Case const& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.entries));
    EXPECT_EQ(c.to_c, BlocksToC().IsValidParam(Layer(c.entries), nullptr));
    EXPECT_EQ(c.to_cl, BlocksToCL().IsValidParam(Layer(c.entries), nullptr));
    EXPECT_EQ(c.to_chw, CLToCHW().IsValidParam(Layer(c.entries), nullptr));
    EXPECT_EQ(c.to_chw == 0, CLToCHW().Config(Layer(c.entries), nullptr, nullptr));
  }
}

TEST_F(Reshape, JudgesTensorLists) {
  constexpr unsigned int kHalf = TensorShape::FLOAT16, kFlexible = TensorShape::FLEXIABLE;
  struct Case {
    char const* why;
    KernelPtr kernel;
    Dims dims;
    unsigned int layout, type;
    int input, output;
  };
  for (Case const& c : {Case{"divided", Configured<ToC>({1, 6, -1}), {24}, kFlexible, 7, 0, -2},
                        {"not divided", Configured<ToC>({1, 7}), {24}, kFlexible, 0, -2, 0},
                        {"product of 0", Configured<ToC>({0, -1}), {24}, 0, 0, -2, 0},
                        {"a scalar", Configured<ToC>({1, 1}), {}, 0, 0, 0, -2},
                        {"all axes", Configured<ToCHW>({2, -1, 4}), {2, 3, 4}, 0, 0, 0, 0},
                        {"all axes, one wrong", Configured<ToSC>({3, -1, 4}), {2, 3, 4}, 0, 0, 0, -2},
                        {"one axis fewer", Configured<Any>({9, 2, -1}), {2, 9}, 0, 0, 0, 0},
                        {"one wrong", Configured<Any>({9, 2, -1}), {9, 2}, 0, 0, 0, -2},
                        {"whole", Configured<BlocksToC>({1, 16}), {2, 1, 2, 4}, 2, kHalf, 0, -2},
                        {"other layout", Configured<BlocksToC>({1, 16}), {16}, TensorShape::C, 3, -2, 0},
                        {"flexible", Configured<BlocksToCL>({1, 8, -1}), {2, 1, 2, 4}, kFlexible, 1, 0, -2},
                        {"not divided", Configured<BlocksToCL>({1, 3, -1}), {2, 2, 4}, 0, 0, -2, -2},
                        {"CL", Configured<BlocksToCL>({1, 3, 5}), {3, 5}, TensorShape::CL, 3, -2, 0},
                        {"any layout", Configured<CLToCHW>({1, 2, -1, 4}), {24}, 30, 3, 0, -2},
                        {"no halves", Configured<CLToCHW>({1, 2, -1, 4}), {2, 3, 4}, 0, kHalf, -2, -2},
                        {"CHW", Configured<CLToCHW>({1, 2, 3, 4}), {2, 3, 4}, 0, 0, 0, 0}}) {
    SCOPED_TRACE(c.kernel->GetName() + ", " + c.why);
    auto const tensor = Random(c.dims, c.layout, c.type);
    EXPECT_EQ(c.input, c.kernel->IsValidInput({tensor}));
    EXPECT_EQ(c.output, c.kernel->IsValidOutput({tensor}));
  }
}

TEST_F(Reshape, TakesBlocksApart) {
  KernelPtr const to_c = Configured<BlocksToC>({1, -1}), to_cl = Configured<BlocksToCL>({1, -1, 15});
  struct Case {
    KernelPtr kernel;
    unsigned int layout, lanes, type;
    Dims dims;
  };
  constexpr unsigned int kFlexible = TensorShape::FLEXIABLE;
  for (Case const& c : {Case{to_c, TensorShape::C4HW4, 4, TensorShape::FLOAT32, {120}},
                        {to_c, TensorShape::C4HW4, 4, TensorShape::FLOAT16, {120}},
                        {to_c, TensorShape::C8HW8, 8, TensorShape::INT16, {240}},
                        {to_cl, TensorShape::C4HW4, 4, TensorShape::INT16, {8, 15}},
                        {to_cl, TensorShape::C8HW8, 8, TensorShape::FLOAT32, {16, 15}},
                        {to_cl, kFlexible, 4, TensorShape::FLOAT32, {8, 15}},
                        {to_cl, kFlexible, 8, TensorShape::INT16, {16, 15}}}) {
    SCOPED_TRACE(c.kernel->GetName() + ", layout " + std::to_string(c.layout));
    auto const input = Random({2, 3, 5, c.lanes}, c.layout, c.type);
    Tensors outputs;
    c.kernel->Forward({input}, outputs, context_);
    EXPECT_EQ(c.dims, outputs[0]->shape.dims);
    EXPECT_EQ(9, outputs[0]->shape.extra.step_size);
    unsigned int const bytes = runtime::ElementSize(c.type);
    for (unsigned int i = 0; i < 2 * c.lanes * 15; ++i) {
      void const* const want = input->Locate4D(i / 15 / c.lanes, i / 5 % 3, i % 5, i / 15 % c.lanes);
      ASSERT_EQ(0, std::memcmp(want, static_cast<char const*>(outputs[0]->data) + i * bytes, bytes)) << i;
    }
  }
  EXPECT_EQ((Dims{24}), Copied(*to_c, {2, 3, 4}, TensorShape::CHW, TensorShape::UINT8).dims);
  EXPECT_EQ((Dims{2, 15}), Copied(*to_cl, {2, 3, 5}).dims);
  EXPECT_EQ((Dims{2, 15}), Copied(*to_cl, {2, 3, 5}, kFlexible, TensorShape::INT16).dims);
  TensorShape const planes = Copied(*Configured<CLToCHW>({1, 2, -1, 5}), {6, 5}, TensorShape::CL);
  EXPECT_EQ((Dims{2, 3, 5}), planes.dims);
  EXPECT_EQ(TensorShape::CHW, planes.layout);
  EXPECT_EQ(9, planes.extra.step_size);
}

TEST_F(Reshape, FreeFormMakesFlexibleTensors) {
  using kernel::functional::Transform_MainMemory_Reshape_Fallback;
  auto const input = Random({2, 3, 4});
  auto const device = GuardedContext()->device_cpu;  // not the input's
  auto const output = Transform_MainMemory_Reshape_Fallback(input, {0, 6}, device);
  EXPECT_EQ((Dims{4, 6}), output->shape.dims);
  EXPECT_EQ(TensorShape::FLEXIABLE, output->shape.layout);
  EXPECT_EQ(0, output->shape.extra.step_size);
  EXPECT_EQ(device.get(), output->device);
  EXPECT_EQ(0, std::memcmp(input->data, output->data, 96));
  EXPECT_EQ("[TLN]: ", Refusal(Transform_MainMemory_Reshape_Fallback, input, {-1, -1}, device));
}

}  // namespace
}  // namespace talvo::test
