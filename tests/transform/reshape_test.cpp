#include "talvo/transform/reshape.h"

#include <gtest/gtest.h>

#include <cstring>

#include "talvo/serialization/inference_param.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "tests/support/bits.h"
#include "tests/support/guarded_context.h"
#include "tests/support/log_capture.h"

namespace talvo {
namespace {

using namespace kernel;  // NOLINT: the long names of seven kernels
using runtime::TensorReshapeInfo;
using runtime::TensorShape;
using Dims = std::vector<unsigned int>;
using Entries = std::vector<short>;
using Tensors = std::vector<std::shared_ptr<runtime::Tensor>>;

std::shared_ptr<TensorReshapeInfo> Layer(Entries const& entries) {
  auto layer = std::make_shared<TensorReshapeInfo>();
  layer->new_shape = entries;
  return layer;
}

template <class Kernel>
std::shared_ptr<Kernel> Configured(Entries const& entries) {
  auto kernel = std::make_shared<Kernel>();
  EXPECT_TRUE(kernel->Config(Layer(entries), nullptr, nullptr)) << testing::PrintToString(entries);
  return kernel;
}

class Reshape : public testing::Test {
 protected:
  // A tensor of random bytes with a step size.
  std::shared_ptr<runtime::TensorCPU> Random(Dims const& dims, unsigned int layout = TensorShape::CHW,
                                             unsigned int type = TensorShape::FLOAT32,
                                             unsigned int location = TensorShape::MainMemory) const {
    TensorShape shape(dims, type, layout, location, TensorShape::Extra());
    shape.extra.step_size = 9;
    return context_->device_cpu->CreateTensor(shape, test::Bytes(3, runtime::ByteCount(shape)).data());
  }

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

  std::string RefusalOf(runtime::IKernel const& kernel, std::shared_ptr<runtime::Tensor> const& input) const {
    return test::RefusalOf([&] {
      Tensors outputs;
      kernel.Forward({input}, outputs, context_);
    });
  }

  std::shared_ptr<runtime::Context> const context_ = test::GuardedContext();
};

TEST_F(Reshape, DropsTheBatchAxis) {
  struct Case {
    char const* why;
    std::shared_ptr<runtime::IKernel> kernel;
    unsigned int layout;
    Dims dims;
  };
  for (Case const& c : {
           Case{"C", Configured<Reshape_Fallback_To_C_M1>({1, -1}), TensorShape::C, {24}},
           {"C of three entries stays", Configured<Reshape_Fallback_To_C_M1>({2, 3, -1}), TensorShape::C, {2, 3, 4}},
           {"CHW", Configured<Reshape_Fallback_To_CHW_M1>({1, -1, 4, 2}), TensorShape::CHW, {3, 4, 2}},
           {"CHW of two entries stays", Configured<Reshape_Fallback_To_CHW_M1>({4, 6}), TensorShape::CHW, {4, 6}},
           {"SC, entry 0", Configured<Reshape_Fallback_To_SC_M1>({1, 4, 6}), TensorShape::SC, {4, 6}},
           {"SC, entry 1", Configured<Reshape_Fallback_To_SC_M1>({4, 1, 6}), TensorShape::SC, {4, 6}},
           {"SC, both", Configured<Reshape_Fallback_To_SC_M1>({1, 1, 24}), TensorShape::SC, {1, 24}},
           {"any, the entry that is not 1",
            Configured<Transform_MainMemory_Reshape_Fallback>({2, 3, 4}),
            TensorShape::FLEXIABLE,
            {3, 4}},
           {"any, shorter than the input",
            Configured<Transform_MainMemory_Reshape_Fallback>({1, 6}),
            TensorShape::FLEXIABLE,
            {6}},
       }) {
    SCOPED_TRACE(c.why);
    TensorShape const shape = Copied(*c.kernel, {2, 3, 4}, TensorShape::CHW, TensorShape::INT16);
    EXPECT_EQ(c.dims, shape.dims);
    EXPECT_EQ(c.layout, shape.layout);
    EXPECT_EQ(TensorShape::INT16, shape.data_type);
    EXPECT_EQ(0, shape.extra.step_size);
  }
}

TEST_F(Reshape, RefusesABatchThatIsNotOne) {
  auto const input = Random({2, 3, 4});
  EXPECT_EQ("[TLN]: ", RefusalOf(*Configured<Reshape_Fallback_To_C_M1>({2, 12}), input));
  EXPECT_EQ("[TLN]: ", RefusalOf(*Configured<Reshape_Fallback_To_CHW_M1>({2, 1, 3, 4}), input));
  EXPECT_EQ("[TLN]: [Reshape_Fallback_To_SC_M1] batch of new shape != 1\n",
            RefusalOf(*Configured<Reshape_Fallback_To_SC_M1>({2, 2, 6}), input));
}

TEST_F(Reshape, RefusesWhatDoesNotFit) {
  auto const input = Random({2, 3, 4});
  using Any = Transform_MainMemory_Reshape_Fallback;
  EXPECT_NE("", RefusalOf(*Configured<Any>({1, 0, -1}), input)) << "a product of 0 keeps Config";
  EXPECT_NE("", RefusalOf(*Configured<Any>({1, 25}), input)) << "longer than the input";
  EXPECT_NE("", RefusalOf(*Configured<Any>({}), input)) << "no batch axis";
  EXPECT_NE("", RefusalOf(*Configured<Any>({1, 24}), nullptr));
  EXPECT_NE("", RefusalOf(Reshape_Fallback_CnHWn_To_C_M1(), input)) << "not configured";
  EXPECT_NE("", RefusalOf(*Configured<Reshape_Fallback_CnHWn_To_C_M1>({1, 23}), input)) << "shorter";
  EXPECT_NE("", RefusalOf(*Configured<Reshape_Fallback_CL_To_CHW_M1>({1, 5, 5, 1}), input)) << "longer";
  auto const three_lanes = Random({2, 2, 2, 3}, TensorShape::C4HW4);
  EXPECT_NE("", RefusalOf(*Configured<Reshape_Fallback_CnHWn_To_C_M1>({1, -1}), three_lanes));
}

TEST_F(Reshape, UsesAGivenOutput) {
  auto const input = Random({2, 3, 4});
  for (std::shared_ptr<runtime::IKernel> const& kernel : std::vector<std::shared_ptr<runtime::IKernel>>{
           Configured<Reshape_Fallback_To_C_M1>({1, 6}), Configured<Reshape_Fallback_CL_To_CHW_M1>({1, 1, 1, 6})}) {
    Tensors outputs = {Random({5, 5}, TensorShape::HWC)};
    auto const* const given = outputs[0].get();
    EXPECT_EQ(0, kernel->Forward({input}, outputs, nullptr));
    EXPECT_EQ(given, outputs[0].get());
    EXPECT_EQ(0, std::memcmp(input->data, given->data, 24 * sizeof(float))) << "all of the input, whatever new_shape";
    Tensors small = {Random({23}, TensorShape::C)};
    EXPECT_NE("", test::RefusalOf([&] { kernel->Forward({input}, small, nullptr); }));
    Tensors empty = {nullptr};
    EXPECT_NE("", test::RefusalOf([&] { kernel->Forward({input}, empty, nullptr); }));
  }
}

TEST_F(Reshape, ConfiguresGeneralKernelsWithoutReadingMuch) {
  Reshape_Fallback_To_C_M1 kernel;
  EXPECT_TRUE(kernel.Config(Layer({1, -1}), nullptr, nullptr));
  EXPECT_FALSE(kernel.Config(Layer({-1, -1}), nullptr, nullptr)) << "two unknowns";
  EXPECT_FALSE(kernel.IsConfigured());
  EXPECT_EQ(0, kernel.IsValidParam(Layer({-1, -1}), nullptr));
  EXPECT_TRUE(kernel.Config(Layer({0, -3}), nullptr, nullptr));
  EXPECT_FALSE(kernel.Config(Layer({1, -1}), std::make_shared<runtime::InferenceParamActQuant>(), nullptr));
  EXPECT_FALSE(kernel.Config(std::make_shared<runtime::TensorTransposeInfo>(), nullptr, nullptr));
  EXPECT_FALSE(kernel.Config(nullptr, nullptr, nullptr));
}

TEST_F(Reshape, JudgesTheEntriesOfUnblockingKernels) {
  struct Case {
    Entries entries;
    int to_c, to_cl, to_chw;
  };
  for (Case const& c : {Case{{1, 8}, 0, -1, -1},
                        {{-1, -1}, 0, -1, -1},
                        {{2, 8}, -1, -1, -1},
                        {{1, 0}, -1, -1, -1},
                        {{1, -2}, -1, -1, -1},
                        {{1, -1, 8}, -1, 0, -1},
                        {{1, -1, -1}, -1, -1, -1},
                        {{-1, 2, 8}, -1, -1, -1},
                        {{1, 2, -1, 3}, -1, -1, 0},
                        {{1, -1, 2, -1}, -1, -1, -1},
                        {{0, 2, 2, 2}, -1, -1, -1},
                        {{1}, -1, -1, -1},
                        {{}, -1, -1, -1}}) {
    SCOPED_TRACE(testing::PrintToString(c.entries));
    EXPECT_EQ(c.to_c, Reshape_Fallback_CnHWn_To_C_M1().IsValidParam(Layer(c.entries), nullptr));
    EXPECT_EQ(c.to_cl, Reshape_Fallback_CnHWn_To_CL_M1().IsValidParam(Layer(c.entries), nullptr));
    EXPECT_EQ(c.to_chw, Reshape_Fallback_CL_To_CHW_M1().IsValidParam(Layer(c.entries), nullptr));
    EXPECT_EQ(c.to_chw == 0, Reshape_Fallback_CL_To_CHW_M1().Config(Layer(c.entries), nullptr, nullptr));
  }
  EXPECT_FALSE(Reshape_Fallback_CnHWn_To_C_M1().Config(nullptr, nullptr, nullptr));
}

TEST_F(Reshape, JudgesTensorLists) {
  constexpr unsigned int kHalf = TensorShape::FLOAT16, kFlexible = TensorShape::FLEXIABLE;
  struct Case {
    char const* why;
    std::shared_ptr<runtime::IKernel> kernel;
    Dims dims;
    unsigned int layout, type;
    int input, output;
  };
  for (Case const& c : {
           Case{"divided", Configured<Reshape_Fallback_To_C_M1>({1, 6, -1}), {24}, kFlexible, 7, 0, -2},
           {"not divided", Configured<Reshape_Fallback_To_C_M1>({1, 7}), {24}, kFlexible, 0, -2, 0},
           {"product of 0", Configured<Reshape_Fallback_To_C_M1>({0, -1}), {24}, 0, 0, -2, 0},
           {"too short", Configured<Reshape_Fallback_To_C_M1>({1, 24}), {3}, 0, 0, -2, 0},
           {"a scalar", Configured<Reshape_Fallback_To_C_M1>({1, 1}), {}, 0, 0, 0, -2},
           {"all axes", Configured<Reshape_Fallback_To_CHW_M1>({2, -1, 4}), {2, 3, 4}, 0, 0, 0, 0},
           {"all axes, one wrong", Configured<Reshape_Fallback_To_SC_M1>({3, -1, 4}), {2, 3, 4}, 0, 0, 0, -2},
           {"one axis fewer", Configured<Transform_MainMemory_Reshape_Fallback>({9, 2, -1}), {2, 9}, 0, 0, 0, 0},
           {"one wrong", Configured<Transform_MainMemory_Reshape_Fallback>({9, 2, -1}), {9, 2}, 0, 0, 0, -2},
           {"all axes", Configured<Transform_MainMemory_Reshape_Fallback>({9, 2}), {9, 2}, 0, 0, 0, -2},
           {"whole", Configured<Reshape_Fallback_CnHWn_To_C_M1>({1, 16}), {2, 1, 2, 4}, 2, kHalf, 0, -2},
           {"other count", Configured<Reshape_Fallback_CnHWn_To_C_M1>({1, 15}), {2, 1, 2, 4}, 2, kHalf, -2, -2},
           {"other layout", Configured<Reshape_Fallback_CnHWn_To_C_M1>({1, 16}), {16}, TensorShape::C, 3, -2, 0},
           {"other type", Configured<Reshape_Fallback_CnHWn_To_C_M1>({1, 16}), {2, 2, 4}, 0, 2, -2, -2},
           {"flexible", Configured<Reshape_Fallback_CnHWn_To_CL_M1>({1, 8, -1}), {2, 1, 2, 4}, kFlexible, 1, 0, -2},
           {"flexible of rank 2",
            Configured<Reshape_Fallback_CnHWn_To_CL_M1>({1, 8, -1}),
            {2, 8},
            kFlexible,
            0,
            -2,
            -2},
           {"not divided", Configured<Reshape_Fallback_CnHWn_To_CL_M1>({1, 3, -1}), {2, 2, 4}, 0, 0, -2, -2},
           {"CL", Configured<Reshape_Fallback_CnHWn_To_CL_M1>({1, 3, 5}), {3, 5}, TensorShape::CL, 3, -2, 0},
           {"any layout", Configured<Reshape_Fallback_CL_To_CHW_M1>({1, 2, -1, 4}), {24}, 30, 3, 0, -2},
           {"no halves", Configured<Reshape_Fallback_CL_To_CHW_M1>({1, 2, -1, 4}), {2, 3, 4}, 0, kHalf, -2, -2},
           {"CHW", Configured<Reshape_Fallback_CL_To_CHW_M1>({1, 2, 3, 4}), {2, 3, 4}, 0, 0, 0, 0},
       }) {
    SCOPED_TRACE(c.kernel->GetName() + ", " + c.why);
    auto const tensor = Random(c.dims, c.layout, c.type);
    EXPECT_EQ(c.input, c.kernel->IsValidInput({tensor}));
    EXPECT_EQ(c.output, c.kernel->IsValidOutput({tensor}));
    auto const elsewhere = Random(c.dims, c.layout, c.type, TensorShape::MetalBuffer);
    for (Tensors const& bad : {Tensors{}, {tensor, tensor}, {elsewhere}, {nullptr}}) {
      EXPECT_EQ(-2, c.kernel->IsValidInput(bad));
      EXPECT_EQ(-2, c.kernel->IsValidOutput(bad));
    }
  }
}

TEST_F(Reshape, TakesBlocksApart) {
  auto const to_c = Configured<Reshape_Fallback_CnHWn_To_C_M1>({1, -1});
  auto const to_cl = Configured<Reshape_Fallback_CnHWn_To_CL_M1>({1, -1, 15});
  struct Case {
    std::shared_ptr<runtime::IKernel> kernel;
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
  TensorShape const planes = Copied(*Configured<Reshape_Fallback_CL_To_CHW_M1>({1, 2, -1, 5}), {6, 5}, TensorShape::CL);
  EXPECT_EQ((Dims{2, 3, 5}), planes.dims);
  EXPECT_EQ(TensorShape::CHW, planes.layout);
  EXPECT_EQ(9, planes.extra.step_size);
}

TEST_F(Reshape, RefusesTypesAndLayoutsThatItCannotTakeApart) {
  auto const to_c = Configured<Reshape_Fallback_CnHWn_To_C_M1>({1, -1});
  auto const to_cl = Configured<Reshape_Fallback_CnHWn_To_CL_M1>({1, -1, 8});
  std::string const type = "[TLN]: Invalid input data type\n", layout = "[TLN]: Invalid input tensor layout\n";
  EXPECT_EQ(type, RefusalOf(*to_c, Random({1, 2, 4, 4}, TensorShape::C4HW4, TensorShape::INT32)));
  EXPECT_EQ(layout, RefusalOf(*to_c, Random({1, 2, 4, 4}, TensorShape::FLEXIABLE)));
  auto const halves = Random({1, 2, 4, 4}, TensorShape::C4HW4, TensorShape::FLOAT16);
  EXPECT_EQ(0, to_cl->IsValidInput({halves}));
  EXPECT_EQ(type, RefusalOf(*to_cl, halves));
  EXPECT_EQ(layout, RefusalOf(*to_cl, Random({4, 2, 4, 1}, TensorShape::FLEXIABLE)));
  EXPECT_EQ(layout, RefusalOf(*to_cl, Random({4, 8}, TensorShape::FLEXIABLE)));
}

TEST_F(Reshape, FreeFormMakesFlexibleTensors) {
  using kernel::functional::Transform_MainMemory_Reshape_Fallback;
  auto const input = Random({2, 3, 4});
  auto const device = test::GuardedContext()->device_cpu;  // not the input's
  auto const output = Transform_MainMemory_Reshape_Fallback(input, {0, 6}, device);
  EXPECT_EQ((Dims{4, 6}), output->shape.dims);
  EXPECT_EQ(TensorShape::FLEXIABLE, output->shape.layout);
  EXPECT_EQ(0, output->shape.extra.step_size);
  EXPECT_EQ(device.get(), output->device);
  EXPECT_EQ(0, std::memcmp(input->data, output->data, 96));
  EXPECT_EQ("[TLN]: ", test::RefusalOf([&] { Transform_MainMemory_Reshape_Fallback(input, {-1, -1}, device); }));
  EXPECT_NE("", test::RefusalOf([&] { Transform_MainMemory_Reshape_Fallback(nullptr, {1}, device); }));
  EXPECT_NE("", test::RefusalOf([&] { Transform_MainMemory_Reshape_Fallback(input, {24}, nullptr); }));
}

}  // namespace
}  // namespace talvo
