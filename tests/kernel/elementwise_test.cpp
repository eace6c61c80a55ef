#include "talvo/kernel/elementwise.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <limits>
#include <random>
#include <string>

#include "talvo/kernel/functional/elementwise.h"
#include "talvo/kernel/rows/instruction_sets.h"
#include "talvo/serialization/inference_param.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "tests/support/bits.h"
#include "tests/support/guarded_context.h"
#include "tests/support/log_capture.h"

namespace talvo {
namespace {

using runtime::Tensor;
using runtime::TensorShape;

using Dims = std::vector<unsigned int>;
using Floats = std::vector<float>;
using Shorts = std::vector<short>;
using Tensors = std::vector<std::shared_ptr<Tensor>>;

// The operations by number, called for one element at a time.
std::function<float(float, float)> const kOperations[] = {
    [](float a, float b) { return a + b; },         [](float a, float b) { return a - b; },
    [](float a, float b) { return a * b; },         [](float a, float b) { return a / b; },
    [](float a, float b) { return a > b ? a : b; }, [](float a, float b) { return a < b ? a : b; },
};

template <class Info>
std::shared_ptr<Info> LayerWithType(unsigned short op_type) {
  auto layer = std::make_shared<Info>();
  layer->op_type = op_type;
  return layer;
}

std::shared_ptr<runtime::TensorArithmeticInfo> ReductionLayer(Shorts dim, unsigned short arith_type) {
  auto layer = std::make_shared<runtime::TensorArithmeticInfo>();
  layer->dim = std::move(dim), layer->arith_type = arith_type;
  return layer;
}

std::size_t Count(Dims const& dims) { return runtime::ElementCount(dims); }

class ElementwiseKernels : public ::testing::Test {
 protected:
  std::shared_ptr<runtime::TensorCPU> Make(Dims const& dims, Floats const& values) const {
    return test::FloatTensor(*context_, dims, TensorShape::CHW, values);
  }
  std::shared_ptr<runtime::TensorCPU> Zeros(Dims const& dims) const { return Make(dims, Floats(Count(dims))); }

  std::shared_ptr<Tensor> Run(runtime::IKernel& kernel, std::shared_ptr<runtime::LayerInfo> const& layer,
                              Tensors const& inputs) const {
    EXPECT_TRUE(kernel.Config(layer, nullptr, context_));
    Tensors outputs(2);
    EXPECT_EQ(0, kernel.Forward(inputs, outputs, context_));
    EXPECT_EQ(1u, outputs.size());
    return outputs[0];
  }

  void ExpectRefusal(runtime::IKernel const& kernel, Tensors const& inputs, std::string const& text) const {
    Tensors outputs;
    auto const refusal = test::RefusalOf([&] { kernel.Forward(inputs, outputs, context_); });
    EXPECT_NE(std::string::npos, refusal.find(text)) << refusal;
  }

  std::shared_ptr<runtime::Context> context_ = test::GuardedContext();
};

TEST_F(ElementwiseKernels, CombineEqualElements) {
  kernel::Elementwise_Fallback_Float_M1 kernel;
  for (unsigned short op_type = 0; op_type < 4; ++op_type) {
    for (unsigned int count : {0u, 1u, 7u, 8u, 61u}) {
      auto const a = test::SpecialFloats(1, count), b = test::Floats(2, count + 3);
      Floats want;
      for (std::size_t i = 0; i < count; ++i) want.push_back(kOperations[op_type](a[i], b[i]));
      auto const y = Run(kernel, LayerWithType<runtime::ElementWiseOperatorInfo>(op_type),
                         {Make({count, 1}, a), Make({count + 3}, b)});
      EXPECT_EQ((Dims{count, 1}), y->shape.dims);
      test::ExpectSameBits(want, test::Values(*y));
    }
  }
  auto const one = Zeros({});
  EXPECT_EQ(Dims{}, Run(kernel, LayerWithType<runtime::ElementWiseOperatorInfo>(0), {one, one})->shape.dims);
  ExpectRefusal(kernel, {Zeros({4}), Zeros({3})}, "the first operand has 4 elements, the second 3");
  ExpectRefusal(kernel, {Zeros({4})}, "input 1 is no CPU tensor");
  ExpectRefusal(kernel, {Zeros({1, 1, 4}), context_->device_cpu->CreateU8CHWMainMem({1, 1, 4}, nullptr)},
                "data type 7");
  EXPECT_EQ("[TLN]: Invalid element wise type\n", test::RefusalOf([&] {
              kernel.Config(LayerWithType<runtime::ElementWiseOperatorInfo>(4), nullptr, context_);
            }));
  EXPECT_FALSE(kernel.IsConfigured());
}

TEST_F(ElementwiseKernels, FreeFormsEqualTheAscendingLoopForAnyOverlap) {
  using FreeForm = void (*)(float const*, float const*, unsigned int const&, float*);
  FreeForm const forms[] = {kernel::functional::elementwise_add_f32_m1, kernel::functional::elementwise_sub_f32_m1,
                            kernel::functional::elementwise_mul_f32_m1};
  for (auto const set : kernel::rows::RunnableSets()) {
    for (std::size_t op = 0; op < 3; ++op) {
      kernel::rows::ScopedInstructionSet const use(set);
      for (std::size_t output : {0u, 20u, 23u, 27u, 40u, 41u, 200u}) {
        auto want = test::SpecialFloats(4, 300), got = want;
        for (std::size_t i = 0; i < 90; ++i) want[output + i] = kOperations[op](want[20 + i], want[40 + i]);
        forms[op](got.data() + 20, got.data() + 40, 90, got.data() + output);
        test::ExpectSameBits(want, got);
      }
    }
  }
}

// Element by element, with indices from divisions of the flat index.
Floats BroadcastByDefinition(Dims a_dims, Dims b_dims, Floats const& a, Floats const& b, unsigned short op_type) {
  std::size_t const rank = std::max(a_dims.size(), b_dims.size());
  a_dims.insert(a_dims.begin(), rank - a_dims.size(), 1u);
  b_dims.insert(b_dims.begin(), rank - b_dims.size(), 1u);
  Dims dims(rank);
  for (std::size_t i = 0; i < rank; ++i) dims[i] = std::max(a_dims[i], b_dims[i]);
  Floats y(Count(dims));
  for (std::size_t n = 0; n < y.size(); ++n) {
    std::size_t rest = n, a_at = 0, b_at = 0, a_stride = 1, b_stride = 1;
    for (std::size_t i = rank; i-- > 0; rest /= dims[i], a_stride *= a_dims[i], b_stride *= b_dims[i]) {
      if (a_dims[i] == dims[i]) a_at += rest % dims[i] * a_stride;
      if (b_dims[i] == dims[i]) b_at += rest % dims[i] * b_stride;
    }
    y[n] = kOperations[op_type](a[a_at], b[b_at]);
  }
  return y;
}

TEST_F(ElementwiseKernels, BroadcastEqualsTheDefinition) {
  kernel::BroadcastOperator_Fallback_Float_M1 kernel;
  std::vector<std::pair<Dims, Dims>> pairs = {
      {{2, 1, 3}, {4, 3}},
      {{}, {}},
      {{}, {5}},
      {{37}, {1}},
      {{5, 9}, {6, 1, 9}},
      {{2, 3}, {4, 3}},
      {{700, 4}, {4}},
      {{700, 4}, {700, 1}},
      {{90, 7, 9}, {7, 1}},
      {{2, 70}, {3, 1, 70}},
  };
  std::mt19937 engine(3);
  auto const random = [&] { return static_cast<unsigned int>(engine()); };
  while (pairs.size() < 80) {
    auto& [a, b] = pairs.emplace_back();
    for (unsigned rank = 1 + random() % 5; rank > 0; --rank) {
      unsigned const extent = 1 + random() % (rank == 1 ? 20 : 5), repeats = random() % 4;
      a.push_back(repeats == 0 ? 1 : extent), b.push_back(repeats == 1 ? 1 : extent);
    }
  }
  for (auto const& [a_dims, b_dims] : pairs) {
    SCOPED_TRACE(::testing::PrintToString(a_dims) + " " + ::testing::PrintToString(b_dims));
    // NaN and zeros of both signs meet in the first elements: the second operand wins.
    auto const a = test::SpecialFloats(1, Count(a_dims));
    auto b = Count(b_dims) > 8 ? test::SpecialFloats(2, Count(b_dims)) : test::Floats(2, Count(b_dims));
    std::rotate(b.begin(), b.begin() + static_cast<std::ptrdiff_t>(b.size() / 3), b.end());
    for (unsigned short op_type = 0; op_type < 6; ++op_type) {
      auto const y =
          Run(kernel, LayerWithType<runtime::BroadcastOperatorInfo>(op_type), {Make(a_dims, a), Make(b_dims, b)});
      test::ExpectSameBits(BroadcastByDefinition(a_dims, b_dims, a, b, op_type), test::Values(*y));
    }
  }
}

TEST_F(ElementwiseKernels, BroadcastJudgesAndRefuses) {
  kernel::BroadcastOperator_Fallback_Float_M1 kernel;
  ExpectRefusal(kernel, {Zeros({1}), Zeros({1})}, "BroadcastOperator_Fallback_Float_M1: no operation is configured");
  auto const add = LayerWithType<runtime::BroadcastOperatorInfo>(0);
  auto const unknown = LayerWithType<runtime::BroadcastOperatorInfo>(6);
  unknown->id = "u";
  auto const param = std::make_shared<runtime::InferenceParamActQuant>();
  ASSERT_TRUE(kernel.Config(add, nullptr, context_));
  ExpectRefusal(kernel, {Zeros({1, 3}), Zeros({0, 3})}, "dims [1, 3] and [0, 3], one has no elements");
  EXPECT_EQ(-1, kernel.IsValidParam(unknown, param));
  Tensors const ones = {Zeros({2}), Zeros({1})}, none = {Zeros({0}), Zeros({0})};
  Tensors outputs;
  EXPECT_EQ(0, kernel.Forward(ones, outputs, context_)) << "a parameter leaves the stored layer alone";
  EXPECT_EQ(0, kernel.IsValidParam(unknown, nullptr));
  try {
    kernel.Forward(ones, outputs, context_);
    ADD_FAILURE() << "a layer is stored";
  } catch (std::bad_function_call const& refusal) {
    EXPECT_STREQ("BroadcastOperator_Fallback_Float_M1 of layer u: there is no operation 6", refusal.what());
  }
  EXPECT_EQ(0, kernel.Forward(none, outputs, context_)) << "nothing to apply it to";
  EXPECT_FALSE(kernel.Config(ReductionLayer({0}, 0), nullptr, context_));
  ExpectRefusal(kernel, ones, "no operation is configured");
  auto const judged = [&](Dims const& a, Dims const& b) { return kernel.IsValidInput({Zeros(a), Zeros(b)}); };
  EXPECT_EQ(0, judged({2, 1}, {1, 3}));
  EXPECT_EQ(0, judged({4, 2, 3}, {2, 1}));
  EXPECT_EQ(0, judged({}, {5}));
  EXPECT_EQ(-2, judged({2, 3}, {2, 2}));
  EXPECT_EQ(-2, judged({4, 2, 3}, {3, 3}));
  EXPECT_EQ(-2, judged({0}, {2}));
  auto const stepped = Zeros({2});
  stepped->shape.extra.step_size = 3;
  EXPECT_EQ(-2, kernel.IsValidInput({Zeros({2}), stepped}));
}

TEST_F(ElementwiseKernels, ReductionsFollowTheAxesOfTheModel) {
  struct Case {
    char const* why;
    Dims dims;
    Shorts dim;
    Dims left;
    unsigned int layout;
    Shorts axes;  // of the tensor, ascending
  };
  auto const C = TensorShape::C, SC = TensorShape::SC, CHW = TensorShape::CHW, FLEXIABLE = TensorShape::FLEXIABLE;
  for (auto const set : kernel::rows::RunnableSets()) {
    kernel::rows::ScopedInstructionSet const use(set);
    for (Case const& c : {Case{"channels", {5, 3, 7}, {1}, {3, 7}, SC, {0}},
                          {"axis 0 is the tensor's too", {5, 3, 7}, {0}, {3, 7}, SC, {0}},
                          {"the last axis", {19, 3, 7}, {-1}, {19, 3}, SC, {2}},
                          {"both image axes", {5, 3, 7}, {3, 2}, {5}, C, {1, 2}},
                          {"first and last", {5, 3, 7}, {-1, 1}, {3}, C, {0, 2}},
                          {"all", {5, 3, 7}, {1, 2, 3}, {1}, C, {0, 1, 2}},
                          {"rank 4", {2, 3, 4, 5}, {2}, {2, 4, 5}, CHW, {1}},
                          {"rank 5", {2, 3, 4, 1, 2}, {4}, {2, 3, 4, 2}, FLEXIABLE, {3}},
                          {"rows of vectors and a tail", {37, 70}, {2}, {37}, C, {1}},
                          {"nothing to sum but zeros", {0, 3}, {1}, {3}, C, {0}}}) {
      SCOPED_TRACE(c.why);
      auto const x = test::Floats(3, Count(c.dims));
      Floats want = x;
      Dims dims = c.dims;
      float divisor = 1.0f;
      for (std::size_t pass = c.axes.size(); pass-- > 0;) {
        auto const axis = static_cast<std::size_t>(c.axes[pass]);
        std::size_t inner = 1, n = dims[axis];
        for (std::size_t i = axis + 1; i < dims.size(); ++i) inner *= dims[i];
        divisor *= static_cast<float>(n);
        dims.erase(dims.begin() + c.axes[pass]);
        Floats sums(Count(dims), 0.0f);
        for (std::size_t i = 0; i < want.size(); ++i) sums[i / inner / n * inner + i % inner] += want[i];
        want = sums;
      }
      kernel::TensorArithmetic_Fallback_M1 kernel;
      auto y = Run(kernel, ReductionLayer(c.dim, 0), {Make(c.dims, x)});
      EXPECT_EQ(c.left, y->shape.dims);
      EXPECT_EQ(c.layout, y->shape.layout);
      test::ExpectSameBits(want, test::Values(*y));
      ASSERT_TRUE(kernel.Config(ReductionLayer(c.dim, 1), nullptr, context_));
      if (Count(c.dims) == 0) {
        ExpectRefusal(kernel, {Make(c.dims, x)}, "the mean over axis 0 of dims [0, 3]");
        continue;
      }
      for (float& value : want) value /= divisor;
      y = Run(kernel, ReductionLayer(c.dim, 1), {Make(c.dims, x)});
      test::ExpectSameBits(want, test::Values(*y));
      // The free forms take the tensor's axes and empty them; the output may be the input.
      Floats in_place = x;
      Shorts axes = c.axes;
      kernel::functional::Function_TensorTensorArithmetic_Mean_Fallback_Float_M1(in_place.data(), in_place.data(),
                                                                                 c.dims, axes);
      EXPECT_TRUE(axes.empty());
      EXPECT_TRUE(std::equal(want.begin(), want.end(), in_place.begin()));
      kernel::functional::Function_TensorTensorArithmetic_Sum_Fallback_Float_M1(x.data(), in_place.data(), c.dims,
                                                                                axes = c.axes);
      EXPECT_TRUE(axes.empty());
      test::ExpectSameBits(test::Values(*Run(kernel, ReductionLayer(c.dim, 0), {Make(c.dims, x)})),
                           {in_place.begin(), in_place.begin() + static_cast<std::ptrdiff_t>(want.size())});
    }
  }
}

TEST_F(ElementwiseKernels, ReductionsServeARepeatedAxisAndRefuseAForeignOne) {
  kernel::TensorArithmetic_Fallback_M1 kernel;
  auto const shape = [](Dims dims) { return TensorShape(std::move(dims), 0, 0, TensorShape::MainMemory, {}); };
  // Axis 0 goes and then the axis that has taken its place; the output keeps that one, for which there are no sums.
  auto const y = Run(kernel, ReductionLayer({1, 0}, 0), {Make({2, 2, 2}, {1, 2, 3, 4, 5, 6, 7, 8})});
  EXPECT_EQ((Dims{2, 2}), y->shape.dims);
  EXPECT_EQ((Floats{16.0f, 20.0f, 0.0f, 0.0f}), test::Values(*y));
  // The last axis goes with its mark: the shape stands, the second pass has no such axis.
  ASSERT_TRUE(kernel.Config(ReductionLayer({3, -1}, 0), nullptr, context_));
  EXPECT_EQ((Dims{2, 3}), kernel.GetOutputShapes({shape({2, 3, 4})})[0].dims);
  ExpectRefusal(kernel, {Zeros({2, 3, 4})}, "axis 2 of an array of dims [2, 3]");

  for (auto const& [dim, text] : {std::pair(Shorts{4}, "axis 4"), {Shorts{-2}, "axis -2"}, {Shorts{-1, 3}, "axis 3"}}) {
    ASSERT_TRUE(kernel.Config(ReductionLayer(dim, 0), nullptr, context_));
    ExpectRefusal(kernel, {Zeros({2, 3, 4})}, std::string(text) + " of dims [2, 3, 4]");
  }
  ASSERT_TRUE(kernel.Config(ReductionLayer({1, 1}, 0), nullptr, context_));
  EXPECT_EQ("[TLN]: ", test::RefusalOf([&] { kernel.GetOutputShapes({shape({2})}); }));
  ExpectRefusal(kernel, {Zeros({2, 0, 3})}, "dims [2, 0, 3] are reduced to [3], the output has [0, 3]");
  auto const words = context_->device_cpu->CreateS16CHWMainMem({1, 1, 1}, nullptr);
  EXPECT_EQ(0, kernel.IsValidInput({words}));
  ExpectRefusal(kernel, {words}, "input 0 has dims [1, 1, 1], data type 3");
  EXPECT_FALSE(kernel.Config(ReductionLayer({-1, 1, -1}, 0), nullptr, context_));
  EXPECT_FALSE(kernel.Config(ReductionLayer({}, 0), nullptr, context_));
  EXPECT_EQ("[TLN]: Invalid arithmetic type\n",
            test::RefusalOf([&] { kernel.IsValidParam(ReductionLayer({}, 2), nullptr); }));
}

}  // namespace
}  // namespace talvo
