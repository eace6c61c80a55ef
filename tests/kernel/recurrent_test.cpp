#include "talvo/kernel/recurrent.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "talvo/kernel/functional/recurrent.h"
#include "talvo/kernel/native/recurrent.h"
#include "talvo/kernel/rows/instruction_sets.h"
#include "talvo/serialization/layer_info_rnn.h"
#include "tests/golden/recurrent_golden.h"
#include "tests/support/bits.h"
#include "tests/support/guarded_context.h"
#include "tests/support/log_capture.h"

namespace talvo::test {
namespace {

using runtime::TensorShape;
using Arrays = std::vector<std::vector<float>>;
using Tensors = std::vector<std::shared_ptr<runtime::Tensor>>;

constexpr unsigned short kTanh = 5, kRelu = 2;

// A kernel in its three forms; the first two give the bits of the plain cell.
template <class FallbackKernel, class ArmKernel, class SgemmKernel>
struct Forms {
  using Kernels = std::vector<std::shared_ptr<runtime::IKernel>>;
  using Fallback = FallbackKernel;
  using Sgemm = SgemmKernel;
  static Kernels Exact() { return {std::make_shared<FallbackKernel>(), std::make_shared<ArmKernel>()}; }
  static Kernels All() {
    return {std::make_shared<FallbackKernel>(), std::make_shared<ArmKernel>(), std::make_shared<SgemmKernel>()};
  }
};

template <unsigned int Gates, class InfoType, class CellInfoType, class SequenceForms, class CellForms>
struct Family {
  using Info = InfoType;
  using CellInfo = CellInfoType;
  using Sequence = SequenceForms;
  using Cell = CellForms;
  static constexpr unsigned int kGates = Gates;
};
struct Rnn
    : Family<1, runtime::RNNInfo, runtime::RNNCellInfo,
             Forms<kernel::RNN_Fallback_SC_F32_M1, kernel::RNN_ARM_SC_F32_M1, kernel::RNN_SGEMM_SC_F32_M1>,
             Forms<kernel::RNNCell_Fallback_C_F32_M1, kernel::RNNCell_ARM_C_F32_M1, kernel::RNNCell_SGEMM_C_F32_M1>> {};
struct Lstm
    : Family<
          4, runtime::LSTMInfo, runtime::LSTMCellInfo,
          Forms<kernel::LSTM_Fallback_SC_F32_M1, kernel::LSTM_ARM_SC_F32_M1, kernel::LSTM_SGEMM_SC_F32_M1>,
          Forms<kernel::LSTMCell_Fallback_C_F32_M1, kernel::LSTMCell_ARM_C_F32_M1, kernel::LSTMCell_SGEMM_C_F32_M1>> {};
struct Gru
    : Family<3, runtime::GRUInfo, runtime::GRUCellInfo,
             Forms<kernel::GRU_Fallback_SC_F32_M1, kernel::GRU_ARM_SC_F32_M1, kernel::GRU_SGEMM_SC_F32_M1>,
             Forms<kernel::GRUCell_Fallback_C_F32_M1, kernel::GRUCell_ARM_C_F32_M1, kernel::GRUCell_SGEMM_C_F32_M1>> {};

// Of an RNN, an LSTM or a GRU, by the number of gates.
template <class Golden>
Golden const& Choose(unsigned int gates, Golden const& rnn, Golden const& lstm, Golden const& gru) {
  return gates == 1 ? rnn : gates == 4 ? lstm : gru;
}

// Only an RNN has a choice.
template <class Kind, class Record>
void SetActivation([[maybe_unused]] Record& info, [[maybe_unused]] unsigned short type) {
  if constexpr (Kind::kGates == 1) info.activation_type = type;
}

template <class Kind>
class Recurrent : public testing::Test {};
using Families = testing::Types<Rnn, Lstm, Gru>;
TYPED_TEST_SUITE(Recurrent, Families, );

// The plain cell. h and c are replaced; 1 gate is an RNN, 3 a GRU, 4 an LSTM; an empty bias counts as zeros.
struct Weights {
  std::vector<float> ih, hh, bias_ih, bias_hh;
};

std::vector<float> Connect(float const* in, std::size_t in_count, std::vector<float> const& weight,
                           std::vector<float> const& bias) {
  std::vector<float> out(weight.size() / in_count);
  for (std::size_t o = 0; o < out.size(); ++o) {
    out[o] = bias.empty() ? 0.0f : bias[o];
    for (std::size_t i = 0; i < in_count; ++i) out[o] += weight[o * in_count + i] * in[i];
  }
  return out;
}

float Sigmoid(float x) { return 1.0f / (std::exp(0.0f - x) + 1.0f); }

void PlainStep(unsigned int gates, unsigned short activation, float const* x, std::size_t in_size, Weights const& w,
               std::vector<float>& h, std::vector<float>& c) {
  std::size_t const size = h.size();
  auto const a = Connect(x, in_size, w.ih, w.bias_ih);
  auto b = Connect(h.data(), size, w.hh, w.bias_hh);
  for (std::size_t j = 0; j < size; ++j) {
    if (gates == 1) {
      float const y = a[j] + b[j];
      h[j] = activation == kRelu ? (0.0f > y ? 0.0f : y) : std::tanh(y);
    } else if (gates == 4) {
      float const i = Sigmoid(a[j] + b[j]), f = Sigmoid(a[size + j] + b[size + j]);
      float const g = std::tanh(a[2 * size + j] + b[2 * size + j]), o = Sigmoid(a[3 * size + j] + b[3 * size + j]);
      c[j] = c[j] * f + i * g;
      h[j] = std::tanh(c[j]) * o;
    } else {
      float const r = Sigmoid(a[j] + b[j]), z = Sigmoid(a[size + j] + b[size + j]);
      float const n = std::tanh(a[2 * size + j] + b[2 * size + j] * r);
      h[j] = n - z * (n - h[j]);
    }
  }
}

// A stack with its state; entry layer * directions + direction.
struct Stack {
  unsigned int gates;
  unsigned short in_size, hidden_size, num_layers;
  bool if_bias, bidirectional;
  std::vector<Weights> weights;
  Arrays h, c;

  std::size_t Directions() const { return bidirectional ? 2 : 1; }

  // The hidden states of the last layer, step by step; layer by layer and direction by direction.
  std::vector<float> Run(std::vector<float> below) {
    std::size_t const steps = below.size() / in_size, directions = Directions();
    std::size_t width = in_size;
    for (std::size_t l = 0; l < num_layers; ++l) {
      std::vector<float> above(steps * directions * hidden_size);
      for (std::size_t k = 0; k < directions * steps; ++k) {
        std::size_t const d = k / steps, t = d == 0 ? k : 2 * steps - 1 - k, at = directions * l + d;
        PlainStep(gates, kTanh, below.data() + t * width, width, weights[at], h[at], c[at]);
        std::copy(h[at].begin(), h[at].end(), &above[(directions * t + d) * hidden_size]);
      }
      below = std::move(above);
      width = directions * hidden_size;
    }
    return below;
  }
};

Stack RandomStack(unsigned int gates, unsigned short in_size, unsigned short hidden_size, unsigned short num_layers,
                  bool if_bias, bool bidirectional) {
  Stack stack = {gates, in_size, hidden_size, num_layers, if_bias, bidirectional, {}, {}, {}};
  std::size_t const outputs = gates * hidden_size, directions = stack.Directions();
  for (std::uint32_t seed = 0; seed < num_layers * directions; ++seed) {
    std::size_t const width = seed < directions ? in_size : directions * hidden_size;
    stack.weights.push_back({Floats(10 + seed, outputs * width), Floats(20 + seed, outputs * hidden_size),
                             Floats(30 + seed, if_bias ? outputs : 0), Floats(40 + seed, if_bias ? outputs : 0)});
  }
  stack.h.assign(num_layers * directions, std::vector<float>(hidden_size));
  stack.c = stack.h;
  return stack;
}

template <class Kind>
std::shared_ptr<typename Kind::Info> Record(Stack const& stack) {
  auto const info = std::make_shared<typename Kind::Info>();
  info->id = "stack";
  info->in_size = stack.in_size;
  info->hidden_size = stack.hidden_size;
  info->num_layers = stack.num_layers;
  info->if_bias = stack.if_bias;
  info->bidirectional = stack.bidirectional;
  SetActivation<Kind>(*info, kTanh);
  for (std::size_t at = 0; at < stack.weights.size(); ++at) {
    Weights const& w = stack.weights[at];
    bool const reverse = at % stack.Directions() == 1;
    (reverse ? info->weight_ih_reverse : info->weight_ih_forward).push_back(WeightText(w.ih));
    (reverse ? info->weight_hh_reverse : info->weight_hh_forward).push_back(WeightText(w.hh));
    if (!stack.if_bias) continue;  // bias vectors stay empty: nobody may read them
    (reverse ? info->bias_ih_reverse : info->bias_ih_forward).push_back(WeightText(w.bias_ih));
    (reverse ? info->bias_hh_reverse : info->bias_hh_forward).push_back(WeightText(w.bias_hh));
  }
  return info;
}

using ContextPointer = std::shared_ptr<runtime::Context>;

std::vector<float> Forward(runtime::IKernel const& kernel, std::vector<unsigned int> const& dims, unsigned int layout,
                           std::vector<float> const& x, ContextPointer const& context) {
  Tensors const inputs = {FloatTensor(*context, dims, layout, x)};
  Tensors outputs;
  EXPECT_EQ(kernel.IsValidInput(inputs), 0);
  EXPECT_EQ(kernel.Forward(inputs, outputs, context), 0);
  EXPECT_EQ(kernel.IsValidOutput(outputs), 0);
  return Values(*outputs.at(0));
}

// All steps of `x` through a sequence kernel.
std::vector<float> Sequence(runtime::IKernel const& kernel, std::vector<float> const& x, unsigned int width,
                            ContextPointer const& context) {
  return Forward(kernel, {static_cast<unsigned int>(x.size()) / width, width}, TensorShape::SC, x, context);
}

// Step `t` alone.
std::vector<float> Step(std::vector<float> const& x, std::size_t width, std::size_t t) {
  auto const start = x.begin() + static_cast<std::ptrdiff_t>(t * width);
  return std::vector<float>(start, start + static_cast<std::ptrdiff_t>(width));
}

Stack GoldenStack(golden::RecurrentCase const& c) {
  Stack stack = {0, c.in_size, c.hidden_size, c.num_layers, c.if_bias, c.bidirectional, {}, {}, {}};
  for (std::size_t l = 0; l < c.num_layers; ++l) {
    stack.weights.push_back(
        {c.weight_ih_forward[l], c.weight_hh_forward[l], c.bias_ih_forward[l], c.bias_hh_forward[l]});
    if (!c.bidirectional) continue;
    stack.weights.push_back(
        {c.weight_ih_reverse[l], c.weight_hh_reverse[l], c.bias_ih_reverse[l], c.bias_hh_reverse[l]});
  }
  return stack;
}

TYPED_TEST(Recurrent, SequencesGiveTheGoldenValuesWholeAndInChunks) {
  for (auto const& c : Choose(TypeParam::kGates, golden::kRNNCases, golden::kLSTMCases, golden::kGRUCases)) {
    SCOPED_TRACE(c.why);
    auto const context = GuardedContext();
    auto const info = Record<TypeParam>(GoldenStack(c));
    for (auto const& kernel : TypeParam::Sequence::All()) {
      SCOPED_TRACE(kernel->GetName());
      for (unsigned short const activation : {kTanh, kRelu}) {  // a sequence computes tanh for both
        SetActivation<TypeParam>(*info, activation);
        ASSERT_TRUE(kernel->Config(info, nullptr, context));
        ExpectNearSum(c.output, Sequence(*kernel, c.input, c.in_size, context), 8, 1.0f);
        EXPECT_EQ(kernel->ResetRNNState(), 0);
      }
      if (c.bidirectional) continue;
      std::vector<float> chunks;
      for (unsigned int t = 0; t < c.steps; ++t) {
        auto const y = Sequence(*kernel, Step(c.input, c.in_size, t), c.in_size, context);
        chunks.insert(chunks.end(), y.begin(), y.end());
      }
      ExpectNearSum(c.output, chunks, 8, 1.0f);
    }
  }
}

TYPED_TEST(Recurrent, FallbackAndArmGiveTheBitsOfThePlainCell) {
  struct Case {
    char const* why;
    unsigned short in_size, hidden_size, num_layers;
    bool if_bias, bidirectional;
    unsigned int first, second;  // steps of two calls
  };
  Case const cases[] = {{"one of each", 1, 1, 1, true, false, 1, 1},
                        {"weights are turned at each step", 5, 7, 1, true, false, 3, 2},
                        {"weights are packed", 19, 33, 1, false, false, 4, 9},
                        {"more steps than are made together", 3, 18, 2, true, false, 67, 130},
                        {"both ways", 6, 17, 1, true, true, 5, 1},
                        {"layers both ways, over the steps made together", 4, 9, 3, false, true, 70, 6}};
  for (auto const set : kernel::rows::RunnableSets()) {
    kernel::rows::ScopedInstructionSet const use(set);
    for (Case const& c : cases) {
      SCOPED_TRACE(std::string(c.why) + ", " + kernel::rows::NameOf(set));
      auto const context = GuardedContext();
      auto stack = RandomStack(TypeParam::kGates, c.in_size, c.hidden_size, c.num_layers, c.if_bias, c.bidirectional);
      auto const info = Record<TypeParam>(stack);
      auto const x = Floats(1, std::size_t{c.in_size} * c.first), more = Floats(2, std::size_t{c.in_size} * c.second);
      auto const want = stack.Run(x), want_more = stack.Run(more);
      for (auto const& kernel : TypeParam::Sequence::Exact()) {
        ASSERT_TRUE(kernel->Config(info, nullptr, context));
        ExpectSameBits(want, Sequence(*kernel, x, c.in_size, context));
        ExpectSameBits(want_more, Sequence(*kernel, more, c.in_size, context));
      }
    }
  }
}

TYPED_TEST(Recurrent, SgemmStaysNearThePlainCell) {
  auto const context = GuardedContext();
  auto stack = RandomStack(TypeParam::kGates, 20, 30, 2, true, true);
  auto const x = Floats(1, 20 * 6);
  typename TypeParam::Sequence::Sgemm kernel;
  ASSERT_TRUE(kernel.Config(Record<TypeParam>(stack), nullptr, context));
  ExpectNearSum(stack.Run(x), Sequence(kernel, x, 20, context), 60, 1.0f);
}

TYPED_TEST(Recurrent, StateLivesUntilItIsReset) {
  auto const context = GuardedContext();
  auto stack = RandomStack(TypeParam::kGates, 4, 5, 2, true, false);
  auto const info = Record<TypeParam>(stack);
  auto const x = Floats(1, 4 * 3);
  typename TypeParam::Sequence::Fallback kernel;
  EXPECT_EQ(kernel.ResetRNNState(), 0);  // there is no state yet
  ASSERT_TRUE(kernel.Config(info, nullptr, context));
  auto const first = Sequence(kernel, x, 4, context);
  ExpectSameBits(stack.Run(x), first);
  ASSERT_TRUE(kernel.Config(info, nullptr, context));  // keeps the state
  EXPECT_TRUE(Sequence(kernel, {}, 4, context).empty());
  ExpectSameBits(stack.Run(x), Sequence(kernel, x, 4, context));
  EXPECT_EQ(kernel.ResetRNNState(), 0);
  ExpectSameBits(first, Sequence(kernel, x, 4, context));
}

template <class Info>
std::shared_ptr<Info> CellRecord(unsigned short in_size, unsigned short hidden_size, Weights const& w) {
  auto const info = std::make_shared<Info>();
  info->id = "cell";
  info->in_size = in_size;
  info->hidden_size = hidden_size;
  info->if_bias = !w.bias_ih.empty();
  info->weight_ih = WeightText(w.ih);
  info->weight_hh = WeightText(w.hh);
  info->bias_ih = WeightText(w.bias_ih);
  info->bias_hh = WeightText(w.bias_hh);
  return info;
}

TYPED_TEST(Recurrent, CellsGiveTheGoldenValuesStepByStep) {
  for (auto const& c :
       Choose(TypeParam::kGates, golden::kRNNCellCases, golden::kLSTMCellCases, golden::kGRUCellCases)) {
    SCOPED_TRACE(c.why);
    auto const context = GuardedContext();
    auto const info = CellRecord<typename TypeParam::CellInfo>(c.in_size, c.hidden_size,
                                                               {c.weight_ih, c.weight_hh, c.bias_ih, c.bias_hh});
    SetActivation<TypeParam>(*info, c.activation_type);
    for (auto const& kernel : TypeParam::Cell::All()) {
      SCOPED_TRACE(kernel->GetName());
      ASSERT_TRUE(kernel->Config(info, nullptr, context));
      for (int run = 0; run < 2; ++run) {
        std::vector<float> got;
        for (std::size_t t = 0; t < c.steps; ++t) {
          auto const h = Forward(*kernel, {c.in_size}, TensorShape::C, Step(c.input, c.in_size, t), context);
          got.insert(got.end(), h.begin(), h.end());
        }
        ExpectNearSum(c.output, got, 8, 1.0f);
        EXPECT_EQ(kernel->ResetRNNState(), 0);  // the second run starts afresh
      }
    }
  }
}

TYPED_TEST(Recurrent, CellsGiveTheBitsOfThePlainCell) {
  auto const context = GuardedContext();
  auto stack = RandomStack(TypeParam::kGates, 21, 35, 1, true, false);
  auto const info = CellRecord<typename TypeParam::CellInfo>(21, 35, stack.weights[0]);
  for (unsigned short const activation : {kTanh, kRelu}) {
    if (activation == kRelu && TypeParam::kGates != 1) continue;
    SetActivation<TypeParam>(*info, activation);
    for (auto const& kernel : TypeParam::Cell::Exact()) {
      ASSERT_TRUE(kernel->Config(info, nullptr, context));
      std::vector<float> h(35), c(35);
      for (std::uint32_t t = 0; t < 3; ++t) {
        auto const x = t == 2 ? SpecialFloats(t, 21) : Floats(t, 21);
        PlainStep(TypeParam::kGates, activation, x.data(), 21, stack.weights[0], h, c);
        ExpectSameBits(h, Forward(*kernel, {21}, TensorShape::C, x, context));
      }
    }
  }
}

TYPED_TEST(Recurrent, JudgesItsLayerInOrder) {
  typename TypeParam::Sequence::Fallback sequence;
  typename TypeParam::Cell::Fallback cell;
  auto const info = std::make_shared<typename TypeParam::Info>();
  auto const cell_info = std::make_shared<typename TypeParam::CellInfo>();
  auto const expect = [&](int of_sequence, int of_cell) {
    EXPECT_EQ(sequence.IsValidParam(info, nullptr), of_sequence);
    EXPECT_EQ(cell.IsValidParam(cell_info, nullptr), of_cell);
  };
  constexpr bool kHasActivation = TypeParam::kGates == 1;
  EXPECT_EQ(sequence.IsValidParam(nullptr, nullptr), -2);
  EXPECT_EQ(sequence.IsValidParam(cell_info, nullptr), -2);
  EXPECT_EQ(cell.IsValidParam(info, nullptr), -2);
  expect(-3, -3);
  info->in_size = cell_info->in_size = 1;
  expect(-4, -4);
  info->hidden_size = cell_info->hidden_size = 1;
  expect(-5, kHasActivation ? -5 : 0);
  info->num_layers = 1;
  expect(kHasActivation ? -6 : 0, kHasActivation ? -5 : 0);
}

TYPED_TEST(Recurrent, RefusesShortWeightsAndChangedSizes) {
  auto const context = GuardedContext();
  auto const info = Record<TypeParam>(RandomStack(TypeParam::kGates, 4, 5, 2, true, true));
  typename TypeParam::Sequence::Fallback kernel;
  auto const refusal = [&] { return RefusalOf([&] { kernel.Config(info, nullptr, context); }); };
  auto const good = *info;
  info->weight_hh_reverse[1] = WeightText(Floats(1, TypeParam::kGates * 25 - 1));
  EXPECT_NE(refusal().find("of layer stack: reverse 1: weight_hh holds"), std::string::npos);
  *info = good;
  info->in_size = info->hidden_size = 65535;  // bytes beyond 32 bits
  EXPECT_NE(refusal().find("of layer stack: forward 0: weight_ih holds"), std::string::npos);
  *info = good;
  info->bias_ih_forward.pop_back();
  EXPECT_NE(refusal().find("bias_ih_forward has 1 entries, 2"), std::string::npos);
  EXPECT_FALSE(kernel.IsConfigured());
  *info = good;
  ASSERT_TRUE(kernel.Config(info, nullptr, context));
  Sequence(kernel, Floats(1, 8), 4, context);
  for (auto const change : {+[](typename TypeParam::Info& layer) { layer.in_size = 3; },
                            +[](typename TypeParam::Info& layer) { layer.hidden_size = 4; },
                            +[](typename TypeParam::Info& layer) { layer.num_layers = 1; },
                            +[](typename TypeParam::Info& layer) { layer.bidirectional = false; }}) {
    *info = good;
    change(*info);
    EXPECT_NE(refusal().find("is alive"), std::string::npos);
  }
}

TYPED_TEST(Recurrent, RefusesInputsThatDoNotFit) {
  auto const context = GuardedContext();
  auto const stack = RandomStack(TypeParam::kGates, 4, 5, 1, true, true);
  typename TypeParam::Sequence::Fallback sequence;
  typename TypeParam::Cell::Fallback cell;
  auto const cell_info = CellRecord<typename TypeParam::CellInfo>(4, 5, stack.weights[0]);
  SetActivation<TypeParam>(*cell_info, kTanh);
  auto const info = Record<TypeParam>(stack);
  Tensors outputs;
  auto const refusal = [&](runtime::IKernel const& kernel, std::vector<unsigned int> const& dims) {
    Tensors const inputs = {FloatTensor(*context, dims, TensorShape::SC, Floats(1, runtime::ElementCount(dims)))};
    return RefusalOf([&] { kernel.Forward(inputs, outputs, context); });
  };
  ASSERT_TRUE(sequence.Config(info, nullptr, context) && cell.Config(cell_info, nullptr, context));
  for (auto const& dims : {std::vector<unsigned int>{2, 3}, {8}, {2, 4, 0}}) {
    EXPECT_NE(refusal(sequence, dims).find("of layer stack: input has dims"), std::string::npos);
  }
  EXPECT_NE(refusal(cell, {3}).find("of layer cell: input has dims [3]"), std::string::npos);
  info->complex_rnn_type = 1;
  ASSERT_TRUE(sequence.Config(info, nullptr, context));
  EXPECT_EQ(refusal(sequence, {2, 4}), "[TLN]: Not Implemented.\n");
}

TEST(RecurrentCellFunctions, TakeZerosForAMissingStateAndCheckTheirTensors) {
  auto const context = GuardedContext();
  auto const& device = context->device_cpu;
  auto const stack = RandomStack(4, 3, 2, 1, true, false);
  Weights const& w = stack.weights[0];
  auto const x = device->CreateF32CMainMemory(3, Floats(1, 3).data());
  auto const weight_ih = device->CreateF32FlexiableMainMemory({8, 3}, w.ih.data());
  auto const weight_hh = device->CreateF32FlexiableMainMemory({8, 2}, w.hh.data());
  auto const bias_ih = device->CreateF32CMainMemory(8, w.bias_ih.data());
  auto const bias_hh = device->CreateF32CMainMemory(8, w.bias_hh.data());
  std::vector<float> h(2), c(2);
  PlainStep(4, kTanh, Floats(1, 3).data(), 3, w, h, c);
  auto const results = kernel::functional::LSTMCell_ARM_C_F32_M1({x, nullptr, nullptr}, 3, 2, 1, weight_ih, weight_hh,
                                                                 bias_ih, bias_hh, device);
  ExpectSameBits(h, Values(*results.at(0)));
  ExpectSameBits(c, Values(*results.at(1)));
  auto const zeros = device->CreateZeroF32CMainMem(2);
  std::string refusal = RefusalOf([&] {
    kernel::functional::GRUCell_SGEMM_C_F32_M1({x, zeros}, 3, 3, 0, weight_ih, weight_hh, nullptr, nullptr, device);
  });
  EXPECT_NE(refusal.find("GRUCell_SGEMM_C_F32_M1: weight_ih has dims [8, 3]"), std::string::npos);
  refusal = RefusalOf([&] {
    kernel::functional::RNNCell_Fallback_C_F32_M1({x, zeros}, 3, 2, 0, 3, weight_ih, weight_hh, nullptr, nullptr,
                                                  device);
  });
  EXPECT_EQ(refusal, "[TLN]: Not Implemented.\n");
}

TEST(NativeLstm, RunsTheStackOnBareMemory) {
  constexpr unsigned int kSteps = 5;
  auto stack = RandomStack(4, 3, 6, 2, true, false);
  auto x = Floats(1, 3 * kSteps);
  std::vector<float> h(12), c(12), y(6 * kSteps, -9.0f);
  std::vector<float*> ih, hh, bias_ih, bias_hh;
  auto weights = stack.weights;
  for (Weights& w : weights) {
    ih.push_back(w.ih.data());
    hh.push_back(w.hh.data());
    bias_ih.push_back(w.bias_ih.data());
    bias_hh.push_back(w.bias_hh.data());
  }
  auto const run = [&](unsigned int directions, bool bidirectional) {
    kernel::native::lstm_arm_sc_f32_m1(x.data(), h.data(), c.data(), y.data(), kSteps, 3, 6, bidirectional ? 1 : 2,
                                       directions, !bidirectional, bidirectional, ih, hh, bias_ih, bias_hh);
  };
  run(1, false);
  ExpectSameBits(stack.Run(x), y);
  ExpectSameBits(stack.c[1].data(), c.data() + 6, 6);
  bias_hh.pop_back();
  EXPECT_NE(RefusalOf([&] { run(1, false); }).find("bias_hh has 1 entries, 2"), std::string::npos);
  EXPECT_DEATH(run(2, true), "no support bidirectional rnns.*lstm_arm_sc_f32_m1");
}

}  // namespace
}  // namespace talvo::test
