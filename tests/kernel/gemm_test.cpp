#include "talvo/kernel/gemm.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "talvo/kernel/functional/gemm.h"
#include "talvo/kernel/rows/instruction_sets.h"
#include "talvo/kernel/sgemm.h"
#include "talvo/serialization/layer_info_conv.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "tests/support/bits.h"
#include "tests/support/guarded_context.h"
#include "tests/support/log_capture.h"

namespace talvo::test {
namespace {

using kernel::functional::fullconnection_fallback_c_f32_m1;

// out[o] = bias[o], then the products in the order of the inputs.
std::vector<float> Connect(std::vector<float> const& in, std::vector<float> const& weight,
                           std::vector<float> const* bias, std::size_t out_count) {
  std::vector<float> out(out_count);
  for (std::size_t o = 0; o < out_count; ++o) {
    out[o] = bias != nullptr ? (*bias)[o] : 0.0f;
    for (std::size_t i = 0; i < in.size(); ++i) out[o] += weight[o * in.size() + i] * in[i];
  }
  return out;
}

struct Size {
  char const* why;
  unsigned int in, out;
};
constexpr Size kSizes[] = {{"one weight", 1, 1},
                           {"fewer outputs than the narrowest vector", 37, 3},
                           {"between vector widths", 21, 5},
                           {"one short of a wide vector", 16, 15},
                           {"whole vectors", 32, 64},
                           {"the last rows reach back", 33, 17},
                           {"blocks and a ragged tail", 71, 203},
                           {"nothing to sum", 0, 20}};

TEST(FullConnection, SumsInInputOrderFromTheBias) {
  for (auto const set : kernel::rows::RunnableSets()) {
    kernel::rows::ScopedInstructionSet const use(set);
    for (Size const& c : kSizes) {
      SCOPED_TRACE(std::string(c.why) + ", " + kernel::rows::NameOf(set));
      auto const plain_in = Floats(2, c.in), plain_weight = Floats(1, c.out * c.in), some = Floats(3, c.out);
      std::vector<float> const zeros(c.out, -0.0f);
      for (auto const* const bias : {static_cast<std::vector<float> const*>(nullptr), &zeros, &some}) {
        float const* const preset = bias != nullptr ? bias->data() : nullptr;
        for (auto const& [in, weight] : {std::pair(plain_in, plain_weight),
                                         {SpecialFloats(2, c.in), plain_weight},
                                         {plain_in, SpecialFloats(1, c.out * c.in)}}) {
          std::vector<float> got(c.out, -9.0f);
          fullconnection_fallback_c_f32_m1(in.data(), c.in, c.out, weight.data(), preset, got.data());
          ExpectSameBits(Connect(in, weight, bias, c.out), got);
        }
#if TALVO_WITH_BLAS
        std::vector<float> got(c.out, std::numeric_limits<float>::quiet_NaN());
        kernel::functional::fullconnection_sgemm_c_f32_m1(plain_in.data(), c.in, c.out, plain_weight.data(), preset,
                                                          got.data());
        ExpectNearSum(Connect(plain_in, plain_weight, bias, c.out), got, c.in + 1, 1.0f);
#endif
      }
    }
  }
}

#if TALVO_WITH_BLAS
TEST(Sgemm, ScalesTheProductAndWhatStoodInTheResult) {
  std::vector<float> const a = {1, 2, 3, 4, 5, 6}, b = {1, 0, 2, 0, 1, 1, 1, 1, 1, 0, 0, 2};  // [2, 3] and [3, 4]
  std::vector<float> c = {1, 1, 1, 1, 2, 2, 2, 2};
  kernel::Sgemm(2, 3, 4, 2.0f, a.data(), b.data(), -1.0f, c.data());
  ExpectSameBits({11, 3, 7, 15, 28, 8, 24, 32}, c);
  kernel::Sgemm(2, 0, 4, 2.0f, a.data(), b.data(), 0.5f, c.data());
  ExpectSameBits({5.5f, 1.5f, 3.5f, 7.5f, 14, 4, 12, 16}, c);
  kernel::Sgemm(2, 3, 0, 2.0f, a.data(), b.data(), 0.5f, nullptr);
  EXPECT_NE(RefusalOf([&] { kernel::Sgemm(2, -3, 4, 1.0f, a.data(), b.data(), 0.0f, c.data()); }).find("k -3"),
            std::string::npos);
}
#endif

using runtime::TensorShape;

std::shared_ptr<runtime::FullConnectionInfo> Dense(unsigned short in, unsigned short out,
                                                   std::vector<float> const& weight, std::vector<float> const& bias) {
  auto const layer = std::make_shared<runtime::FullConnectionInfo>();
  layer->id = "dense", layer->in_features = in, layer->out_features = out, layer->if_bias = !bias.empty();
  layer->weight = WeightText(weight), layer->bias = WeightText(bias);
  return layer;
}

std::shared_ptr<runtime::Context> const context = GuardedContext();

std::vector<float> Compute(runtime::IKernel const& kernel, std::vector<unsigned int> const& dims, unsigned int layout,
                           std::vector<float> const& values) {
  std::vector<std::shared_ptr<runtime::Tensor>> outputs;
  EXPECT_EQ(kernel.Forward({FloatTensor(*context, dims, layout, values)}, outputs, context), 0);
  return Values(*outputs.at(0));
}

// Config, or Forward of an input, refuses with the kernel's name before `text`.
void ExpectRefusal(runtime::IKernel& kernel, std::string const& text, std::shared_ptr<runtime::LayerInfo> const& layer,
                   std::shared_ptr<runtime::Tensor> const& input) {
  std::vector<std::shared_ptr<runtime::Tensor>> outputs;
  std::string const refusal = RefusalOf(
      [&] { layer != nullptr ? kernel.Config(layer, nullptr, context) : kernel.Forward({input}, outputs, context); });
  EXPECT_NE(refusal.find(kernel.GetName() + text), std::string::npos) << refusal;
}

std::shared_ptr<runtime::TensorCPU> Ones(std::vector<unsigned int> const& dims) {
  return FloatTensor(*context, dims, TensorShape::CHW, std::vector<float>(runtime::ElementCount(dims), 1.0f));
}

template <class Kernel>
void ExpectFullConnection() {
  Kernel kernel;
  auto const layer = Dense(3, 2, {1, 10, 100, 1000, 0.5f, 2}, {7, 8});
  ASSERT_TRUE(kernel.Config(layer, nullptr, context));
  EXPECT_EQ((std::vector<float>{328, 1015}), Compute(kernel, {4}, TensorShape::C, {1, 2, 3, 9}));
  layer->if_bias = false;
  ASSERT_TRUE(kernel.Config(layer, nullptr, context));
  EXPECT_EQ((std::vector<float>{321, 1007}), Compute(kernel, {3}, TensorShape::C, {1, 2, 3}));
  ExpectRefusal(kernel, " of layer dense: input 0 has dims [2], data type 0; needs 3 elements", nullptr, Ones({2}));
  layer->weight = WeightText(Floats(1, 5));
  ExpectRefusal(kernel, " of layer dense: weight holds 20 bytes, shape [2, 3] needs 24", layer, nullptr);
  ExpectRefusal(kernel, ": Forward before Config", nullptr, Ones({3}));
  for (auto const field : {&runtime::FullConnectionInfo::in_features, &runtime::FullConnectionInfo::out_features}) {
    auto const zero = Dense(3, 2, Floats(1, 6), {});
    (*zero).*field = 0;
    EXPECT_FALSE(kernel.Config(zero, nullptr, context));
  }
}

TEST(FullConnection, KernelsForgetABiasAndRefuseWhatWouldReadBeyondMemory) {
  ExpectFullConnection<kernel::FullConnection_Fallback_C_Float_M1>();
  ExpectFullConnection<kernel::FullConnection_Fused_C_Float_M1>();
#if TALVO_WITH_BLAS
  ExpectFullConnection<kernel::FullConnection_SGEMM_C_Float_M1>();
#endif
}

TEST(FullConnection, RowsHaveTheBitsOfTheirOwnProducts) {
  kernel::FullConnection_Fallback_SC_Float_M1 rows;
  kernel::FullConnection_Fallback_C_Float_M1 row;
  for (auto const set : kernel::rows::RunnableSets()) {
    kernel::rows::ScopedInstructionSet const use(set);
    for (Size const& c : kSizes) {
      if (c.in == 0) continue;
      SCOPED_TRACE(std::string(c.why) + ", " + kernel::rows::NameOf(set));
      for (auto const& bias : {Floats(3, c.out), std::vector<float>()}) {
        auto const layer =
            Dense(static_cast<unsigned short>(c.in), static_cast<unsigned short>(c.out), Floats(1, c.out * c.in), bias);
        ASSERT_TRUE(rows.Config(layer, nullptr, context) && row.Config(layer, nullptr, context));
        for (unsigned int const count : {0u, 1u, 7u}) {
          auto const x = SpecialFloats(count, count * c.in);
          std::vector<float> want;
          for (std::size_t r = 0; r < count; ++r) {
            std::vector<float> const one(&x[r * c.in], &x[r * c.in] + c.in);
            auto const y = Compute(row, {c.in}, TensorShape::C, one);
            want.insert(want.end(), y.begin(), y.end());
          }
          ExpectSameBits(want, Compute(rows, {count, c.in}, TensorShape::SC, x));
        }
      }
    }
  }
  ExpectRefusal(rows, " of layer dense: input 0 has dims [4, 2], data type 0; needs rank 2, 284 elements", nullptr,
                Ones({4, 2}));
  ExpectRefusal(rows, " of layer dense: input 0 has dims [71], data type 0; needs rank 2", nullptr, Ones({71}));
}

// op(A) op(B), summed in order.
std::vector<float> Product(std::vector<float> const& a, bool turned_a, std::vector<float> const& b, bool turned_b,
                           std::size_t m, std::size_t k, std::size_t n, float alpha) {
  std::vector<float> y(m * n);
  for (std::size_t i = 0; i < m * n; ++i) {
    for (std::size_t p = 0; p < k; ++p) {
      y[i] += a[turned_a ? p * m + i / n : i / n * k + p] * b[turned_b ? i % n * k + p : p * n + i % n];
    }
    y[i] *= alpha;
  }
  return y;
}

TEST(MatMul, SumsEachProductOfEachPairInOrder) {
  kernel::MatMul_Fallback_Float_M1 kernel;
  auto const layer = std::make_shared<runtime::GemmInfo>();
  struct Case {
    char const* why;
    unsigned int batch_a, batch_b, m, k, n;  // 0: a single matrix
  };
  for (auto const set : kernel::rows::RunnableSets()) {
    kernel::rows::ScopedInstructionSet const use(set);
    for (Case const& c : {Case{"one element", 0, 0, 1, 1, 1},
                          {"ragged", 0, 0, 5, 37, 67},
                          {"a vector", 0, 0, 1, 70, 64},
                          {"pairs", 6, 6, 3, 9, 17},
                          {"one left matrix", 0, 4, 9, 5, 3},
                          {"one right matrix", 4, 0, 2, 8, 130},
                          {"nothing to sum", 2, 2, 3, 0, 5},
                          {"no columns", 0, 3, 4, 2, 0}}) {
      for (int turned = 0; turned < 4; ++turned) {
        SCOPED_TRACE(std::string(c.why) + ", " + kernel::rows::NameOf(set) + ", " + std::to_string(turned));
        layer->trans_a = turned % 2 != 0, layer->trans_b = turned > 1, layer->alpha = turned == 3 ? 0.3f : 1.0f;
        ASSERT_TRUE(kernel.Config(layer, nullptr, context));
        std::vector<unsigned int> a_dims = {c.m, c.k}, b_dims = {c.k, c.n};
        if (layer->trans_a) std::swap(a_dims[0], a_dims[1]);
        if (layer->trans_b) std::swap(b_dims[0], b_dims[1]);
        if (c.batch_a != 0) a_dims.insert(a_dims.begin(), {c.batch_a / 2, 2});
        if (c.batch_b != 0)
          b_dims.insert(b_dims.begin(), c.batch_a == 0 ? std::initializer_list<unsigned int>{c.batch_b}
                                                       : std::initializer_list<unsigned int>{c.batch_b / 2, 2});
        auto const a = SpecialFloats(1, runtime::ElementCount(a_dims)), b = Floats(2, runtime::ElementCount(b_dims));
        std::vector<float> want;
        for (std::size_t i = 0; i < std::max({c.batch_a, c.batch_b, 1u}); ++i) {
          auto const part = [&](std::vector<float> const& from, bool one, std::size_t size) {
            return std::vector<float>(from.data() + (one ? 0 : i * size), from.data() + (one ? 1 : i + 1) * size);
          };
          auto const y = Product(part(a, c.batch_a == 0, c.m * c.k), layer->trans_a, part(b, c.batch_b == 0, c.k * c.n),
                                 layer->trans_b, c.m, c.k, c.n, layer->alpha);
          want.insert(want.end(), y.begin(), y.end());
        }
        std::vector<std::shared_ptr<runtime::Tensor>> const inputs = {
            FloatTensor(*context, a_dims, TensorShape::CHW, a), FloatTensor(*context, b_dims, TensorShape::SC, b)};
        std::vector<std::shared_ptr<runtime::Tensor>> outputs;
        EXPECT_EQ(0, kernel.IsValidInput(inputs));
        ASSERT_EQ(0, kernel.Forward(inputs, outputs, context));
        ExpectSameBits(want, Values(*outputs.at(0)));
      }
    }
  }
}

TEST(MatMul, TakesARecordThatFilesHold) {
  kernel::MatMul_Fallback_Float_M1 kernel;
  auto const turned = std::make_shared<runtime::GemmInfo>();
  turned->trans_a = true, turned->alpha = 9.0f;
  ASSERT_TRUE(kernel.Config(turned, nullptr, context));
  ASSERT_TRUE(kernel.Config(std::make_shared<runtime::BroadcastOperatorInfo>(), nullptr, context));
  std::vector<std::shared_ptr<runtime::Tensor>> outputs;
  ASSERT_EQ(0, kernel.Forward({Ones({2, 3}), Ones({3, 1})}, outputs, context));
  ExpectSameBits({3, 3}, Values(*outputs.at(0)));
}

TEST(MatMul, RefusesOperandsThatDoNotMultiply) {
  kernel::MatMul_Fallback_Float_M1 kernel;
  auto const layer = std::make_shared<runtime::GemmInfo>();
  layer->id = "product", layer->trans_b = true;
  ASSERT_TRUE(kernel.Config(layer, nullptr, context));
  using Dims = std::vector<unsigned int>;
  for (auto const& [a, b, text] : {std::tuple<Dims, Dims, char const*>{{2, 3}, {3, 2}, "[2, 3] and [3, 2] turned"},
                                   {{2, 2, 3}, {3, 5, 3}, "[2, 2, 3] and [3, 5, 3] turned"},
                                   {{1, 2, 3}, {1, 1, 5, 3}, "[1, 2, 3] and [1, 1, 5, 3] turned"},
                                   {{3}, {5, 3}, "[3] and [5, 3] turned"}}) {
    std::vector<std::shared_ptr<runtime::Tensor>> outputs;
    auto const refusal = RefusalOf([&, left = a, right = b] {
      kernel.Forward({Ones(left), Ones(right)}, outputs, context);
    });
    EXPECT_NE(refusal.find(std::string("MatMul_Fallback_Float_M1 of layer product: ") + text), std::string::npos)
        << refusal;
  }
}

#if TALVO_WITH_BLAS
std::shared_ptr<runtime::Conv2dInfo> Pointwise(unsigned short in, unsigned short out, bool if_bias) {
  auto const layer = std::make_shared<runtime::Conv2dInfo>();
  layer->id = "pointwise", layer->in_channels = in, layer->out_channels = out;
  layer->kernel_x = layer->kernel_y = 1, layer->if_bias = if_bias;
  layer->weight = WeightText(Floats(1, std::size_t{in} * out)), layer->bias = WeightText(Floats(2, out));
  return layer;
}

TEST(PointwiseConvolution, MultipliesChannelsByPixelsAndThenAddsTheBias) {
  struct Case {
    char const* why;
    unsigned short in, out, groups;
    unsigned int channels, height, width;
    bool if_bias;
    bool grouped = false;  // the text holds as many weights as a grouped convolution
  };
  kernel::Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1 kernel;
  for (Case const& c :
       {Case{"one pixel", 5, 3, 1, 5, 1, 1, true},
        {"no bias, where one stood", 4, 8, 1, 4, 3, 2, false},
        {"odd extents", 17, 9, 1, 17, 5, 7, true},
        {"groups do not split the product", 6, 4, 2, 6, 2, 3, true},
        {"rows of the weights are as long as the input has channels", 6, 4, 1, 5, 2, 3, true},
        {"a grouped convolution's weights", 6, 4, 2, 3, 2, 3, true, true},
        {"fewer channels than groups: no weights, an input without channels", 1, 4, 2, 0, 2, 1, true, true},
        {"no rows", 3, 2, 1, 3, 0, 4, true}}) {
    SCOPED_TRACE(c.why);
    auto const layer = Pointwise(c.in, c.out, c.if_bias);
    layer->groups = c.groups;
    if (c.grouped) layer->weight = WeightText(Floats(1, std::size_t(c.in / c.groups * c.out)));
    ASSERT_TRUE(kernel.Config(layer, nullptr, context));
    std::size_t const pixels = c.height * c.width;
    auto const x = Floats(3, c.channels * pixels), weight = Floats(1, std::size_t{c.in} * c.out),
               bias = Floats(2, c.out);
    std::vector<float> want(c.out * pixels);
    for (std::size_t i = 0; i < want.size(); ++i) {
      std::size_t const o = i / pixels, p = i % pixels;
      want[i] = c.if_bias ? bias[o] : 0.0f;
      for (std::size_t k = 0; k < c.channels; ++k) want[i] += weight[o * c.channels + k] * x[k * pixels + p];
    }
    auto const got = Compute(kernel, {c.channels, c.height, c.width}, TensorShape::CHW, x);
    ExpectNearSum(want, got, c.in + 1u, 1.0f);
  }
}

TEST(PointwiseConvolution, RefusesOtherShapesAndShortWeights) {
  kernel::Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1 kernel;
  auto const layer = Pointwise(4, 6, true);
  using I = runtime::Conv2dInfo;
  for (unsigned short I::*field :
       {&I::kernel_x, &I::kernel_y, &I::stride_x, &I::stride_y, &I::dilation_x, &I::dilation_y, &I::padding_l,
        &I::padding_r, &I::padding_t, &I::padding_b, &I::in_channels, &I::out_channels, &I::groups}) {
    unsigned short const good = layer.get()->*field;
    layer.get()->*field = good == 0 ? 1 : good == 1 && field != &I::groups ? 3 : 0;
    EXPECT_FALSE(kernel.Config(layer, nullptr, context));
    layer.get()->*field = good;
  }
  std::string const who = " of layer pointwise: ";
  ASSERT_TRUE(kernel.Config(layer, nullptr, context));
  ExpectRefusal(kernel, who + "input 0 has dims [5, 2, 2], 6 output channels need 30 weights, 24 are there", nullptr,
                Ones({5, 2, 2}));
  EXPECT_TRUE(Compute(kernel, {5, 2, 0}, TensorShape::CHW, {}).empty());  // nothing is read
  ExpectRefusal(kernel, who + "input 0 has dims [4, 2], data type 0; needs rank 3", nullptr, Ones({4, 2}));
  auto const half = context->device_cpu->CreateTensor(
      {{4, 2, 2}, TensorShape::FLOAT16, TensorShape::CHW, TensorShape::MainMemory, {}}, nullptr);
  ExpectRefusal(kernel, who + "input 0 has dims [4, 2, 2], data type 1; needs rank 3, 4 bytes", nullptr, half);
  layer->groups = 4;
  ASSERT_TRUE(kernel.Config(layer, nullptr, context));
  ExpectRefusal(kernel, who + "the bias has 4 values, needs 6", nullptr, Ones({4, 2, 2}));
  layer->groups = 2;
  layer->weight = WeightText(Floats(1, 12));  // as a grouped convolution holds them
  ASSERT_TRUE(kernel.Config(layer, nullptr, context));
  ExpectRefusal(kernel, who + "input 0 has dims [3, 2, 2], 6 output channels need 18 weights, 12 are there", nullptr,
                Ones({3, 2, 2}));
  layer->weight = WeightText(Floats(1, 11));
  ExpectRefusal(kernel, who + "weight holds 44 bytes, shape [2, 3, 2, 1, 1] needs 48", layer, nullptr);
  ExpectRefusal(kernel, ": Forward before Config", nullptr, half);
}

TEST(PointwiseConvolution, TheFreeProductRefusesNothingButWhatLiesBeyondMemory) {
  using Dims = std::vector<unsigned int>;
  auto const run = [](Dims const& x_dims, Dims const& y_dims, Dims const& w_dims) {
    auto const y = Ones(y_dims);
    kernel::Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1_Convolution(Ones(x_dims), y, Ones(w_dims));
    return Values(*y);
  };
  EXPECT_EQ(std::vector<float>(8, 3.0f), run({3, 2, 2}, {2, 1, 4}, {6}));
  EXPECT_EQ(std::vector<float>(4, 3.0f), run({3, 2, 2}, {2, 1, 2}, {1, 9}));
  EXPECT_EQ(std::vector<float>(), run({3, 2, 2}, {2, 9, 0}, {1}));
  struct {
    Dims x, y, w;
    char const* text;
  } const rows[] = {{{3, 2, 2},
                     {2, 1, 5},
                     {6},
                     "input [3, 2, 2], output [2, 1, 5] and weight [6] of data types 0, 0 and "
                     "0 do not hold a product of 2 x 3 x 5"},
                    {{3, 2, 2}, {2, 1, 4}, {5}, "do not hold a product of 2 x 3 x 4"},
                    {{3, 4}, {2, 1, 4}, {6}, "input has dims [3, 4], data type 0; needs rank 3"},
                    {{3, 2, 2}, {8}, {6}, "output has dims [8], data type 0; needs rank 3"}};
  for (auto const& row : rows) {
    std::string const refusal = RefusalOf([&] { run(row.x, row.y, row.w); });
    EXPECT_NE(refusal.find("CHW_FLOAT_M1_Convolution: "), std::string::npos);
    EXPECT_NE(refusal.find(row.text), std::string::npos) << refusal;
  }
}
#endif

}  // namespace
}  // namespace talvo::test
