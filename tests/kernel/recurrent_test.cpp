#include "talvo/kernel/recurrent.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "talvo/kernel/rows/instruction_sets.h"
#include "talvo/talvo.h"
#include "tests/golden/recurrent_golden.h"
#include "tests/support/bits.h"
#include "tests/support/guarded_context.h"
#include "tests/support/log_capture.h"

namespace talvo::test {
namespace {

using runtime::TensorShape;
using Row = std::vector<float>;
using Weights = std::vector<Row>;  // weight_ih, weight_hh, bias_ih, bias_hh; no bias: empty
using Tensors = std::vector<std::shared_ptr<runtime::Tensor>>;
using CpuTensors = std::vector<std::shared_ptr<runtime::TensorCPU>>;
using Context = std::shared_ptr<runtime::Context>;

constexpr unsigned short kTanh = 5, kRelu = 2;
constexpr std::size_t kFallback = 0, kFused = 2;

template <class... Classes>
std::vector<std::shared_ptr<runtime::IKernel>> Make() {
  return {std::make_shared<Classes>()...};
}

// A family; kernels as Fallback, ARM, Fused and SGEMM, functions without Fused. SGEMM alone has a tolerance.
#if TALVO_WITH_BLAS
#define TALVO_TEST_SGEMM(what) , what
#else
#define TALVO_TEST_SGEMM(what)
#endif
#define TALVO_TEST_FAMILY(Name, gates)                                                                      \
  struct Name {                                                                                             \
    using Info = runtime::Name##Info;                                                                       \
    using CellInfo = runtime::Name##CellInfo;                                                               \
    static constexpr unsigned int kGates = gates;                                                           \
    static auto Sequences() {                                                                               \
      return Make<kernel::Name##_Fallback_SC_F32_M1, kernel::Name##_ARM_SC_F32_M1,                          \
                  kernel::Name##_Fused_SC_F32_M1 TALVO_TEST_SGEMM(kernel::Name##_SGEMM_SC_F32_M1)>();       \
    }                                                                                                       \
    static auto Cells() {                                                                                   \
      return Make<kernel::Name##Cell_Fallback_C_F32_M1, kernel::Name##Cell_ARM_C_F32_M1,                    \
                  kernel::Name##Cell_Fused_C_F32_M1 TALVO_TEST_SGEMM(kernel::Name##Cell_SGEMM_C_F32_M1)>(); \
    }                                                                                                       \
    static auto Functions() {                                                                               \
      return std::array{&kernel::functional::Name##Cell_Fallback_C_F32_M1,                                  \
                        &kernel::functional::Name##Cell_ARM_C_F32_M1 TALVO_TEST_SGEMM(                      \
                            &kernel::functional::Name##Cell_SGEMM_C_F32_M1)};                               \
    }                                                                                                       \
    static auto const& Golden() { return golden::k##Name##Case; }                                           \
  }
TALVO_TEST_FAMILY(RNN, 1);
TALVO_TEST_FAMILY(LSTM, 4);
TALVO_TEST_FAMILY(GRU, 3);
#undef TALVO_TEST_FAMILY
#undef TALVO_TEST_SGEMM

template <class Family>
class Recurrent : public testing::Test {};
using Families = testing::Types<RNN, LSTM, GRU>;
TYPED_TEST_SUITE(Recurrent, Families, );

// Gives `left` blocks, then none.
struct ShortPool : GuardedPool {
  void* Malloc(unsigned long size) override { return left-- == 0 ? nullptr : GuardedPool::Malloc(size); }
  unsigned long left = -1ul;
};

Context const context = GuardedContext();

unsigned int Size(Row const& x) { return static_cast<unsigned int>(x.size()); }

// `action` is refused with the kernel's name before `text`.
template <class Action>
void ExpectRefusal(runtime::IKernel const& kernel, std::string const& text, Action const& action) {
  auto const refusal = RefusalOf(action);
  EXPECT_NE(refusal.find(kernel.GetName() + text), std::string::npos) << refusal;
}

// A public row function on rows; the result replaces the first.
template <class Function, class... Rows>
Row Map(Function* function, Row x, Rows const&... others) {
  function(x.data(), others.data()..., Size(x), x.data());
  return x;
}

// The k-th of the parts of x, each of `size` elements.
Row Part(Row const& x, std::size_t size, std::size_t k) { return Row(&x[k * size], &x[k * size] + size); }

Row Connect(bool fused, Row const& x, Row const& weight, Row const& bias) {
  Row y(weight.size() / x.size());
  if (fused) {
    for (std::size_t o = 0; o < y.size(); ++o) {
      y[o] = bias.empty() ? 0.0f : bias[o];
      for (std::size_t i = 0; i < x.size(); ++i) y[o] = std::fmaf(weight[o * x.size() + i], x[i], y[o]);
    }
    return y;
  }
  kernel::functional::fullconnection_fallback_c_f32_m1(x.data(), Size(x), Size(y), weight.data(),
                                                       bias.empty() ? nullptr : bias.data(), y.data());
  return y;
}

enum class Form { kPlain, kChained, kResetBefore };  // the last is a GRU's

// One step by its definition in public row functions, whose own tests fix their bits. h and c are replaced.
void StepByDefinition(Form form, unsigned int gates, unsigned short activation, Row const& x, Weights const& w, Row& h,
                      Row& c) {
  using namespace kernel::functional;
  auto *const add = elementwise_add_f32_m1, *const sub = elementwise_sub_f32_m1, *const mul = elementwise_mul_f32_m1;
  bool const fused = form == Form::kChained;
  Row const a = Connect(fused, x, w[0], w[2]), b = Connect(fused, h, w[1], w[3]), sum = Map(add, a, b);
  auto const gate = [&](auto* function, std::size_t k) { return Map(function, Part(sum, h.size(), k)); };
  if (gates == RNN::kGates) {
    h = Map(activation == kRelu ? relu_f32 : tanh_f32, sum);
  } else if (gates == LSTM::kGates) {
    Row const i = gate(sigmoid_f32, 0), f = gate(sigmoid_f32, 1), g = gate(tanh_f32, 2), o = gate(sigmoid_f32, 3);
    c = Map(add, Map(mul, c, f), Map(mul, i, g));
    h = Map(mul, Map(tanh_f32, c), o);
  } else {
    Row const r = gate(sigmoid_f32, 0), z = gate(sigmoid_f32, 1);
    Row const reset = form == Form::kResetBefore ? Part(Connect(false, Map(mul, r, h), w[1], w[3]), h.size(), 2)
                                                 : Map(mul, Part(b, h.size(), 2), r);
    Row const n = Map(tanh_f32, Map(add, Part(a, h.size(), 2), reset));
    h = Map(sub, n, Map(mul, z, Map(sub, n, h)));
  }
}

struct Shape {
  unsigned short in_size, hidden_size, num_layers;
  bool if_bias, bidirectional;

  std::size_t Directions() const { return bidirectional ? 2 : 1; }
  std::size_t Width(std::size_t layer) const { return layer == 0 ? in_size : Directions() * hidden_size; }
};

// Layers with their state; entry layer * directions + direction. A cell is one layer.
struct Stack : Shape {
  Stack(unsigned int gate_count, Shape const& shape, std::uint32_t seed = 10) : Shape(shape), gates(gate_count) {
    h.assign(num_layers * Directions(), Row(hidden_size));
    c = h;
    std::size_t const outputs = gates * hidden_size, biases = if_bias ? outputs : 0;
    for (std::size_t at = 0; at < h.size(); ++at, seed += 4) {
      weights.push_back({Floats(seed, outputs * Width(at / Directions())), Floats(seed + 1, outputs * hidden_size),
                         Floats(seed + 2, biases), Floats(seed + 3, biases)});
    }
  }

  // The hidden states of the last layer, step by step; layer by layer and direction by direction.
  Row Run(Row below) {
    std::size_t const steps = below.size() / in_size, directions = Directions();
    for (std::size_t l = 0; l < num_layers; ++l) {
      Row above(steps * directions * hidden_size);
      for (std::size_t k = 0; k < directions * steps; ++k) {
        std::size_t const d = k / steps, t = d == 0 ? k : 2 * steps - 1 - k, at = directions * l + d;
        StepByDefinition(form, gates, activation, Part(below, Width(l), t), weights[at], h[at], c[at]);
        std::copy(h[at].begin(), h[at].end(), &above[(directions * t + d) * hidden_size]);
      }
      below = std::move(above);
    }
    return below;
  }

  unsigned int gates;
  Form form = Form::kPlain;
  unsigned short activation = kTanh;
  std::vector<Weights> weights;
  std::vector<Row> h, c;
};

template <class Info, bool kCell>
std::shared_ptr<Info> Record(Stack const& stack) {
  auto const info = std::make_shared<Info>();
  info->id = "stack";
  info->in_size = stack.in_size;
  info->hidden_size = stack.hidden_size;
  info->if_bias = stack.if_bias;
  if constexpr (std::is_same_v<Info, runtime::RNNInfo> || std::is_same_v<Info, runtime::RNNCellInfo>) {
    info->activation_type = stack.activation;
  }
  std::size_t const arrays = stack.if_bias ? 4 : 2;  // without bias the others stay empty: nobody may read them
  if constexpr (kCell) {
    std::string* const texts[] = {&info->weight_ih, &info->weight_hh, &info->bias_ih, &info->bias_hh};
    for (std::size_t k = 0; k < arrays; ++k) *texts[k] = WeightText(stack.weights[0][k]);
  } else {
    info->num_layers = stack.num_layers;
    info->bidirectional = stack.bidirectional;
    std::vector<std::string>* const lists[] = {
        &info->weight_ih_forward, &info->weight_hh_forward, &info->bias_ih_forward, &info->bias_hh_forward,
        &info->weight_ih_reverse, &info->weight_hh_reverse, &info->bias_ih_reverse, &info->bias_hh_reverse};
    for (std::size_t i = 0; i < stack.weights.size() * arrays; ++i) {
      std::size_t const at = i / arrays, k = i % arrays;
      lists[at % stack.Directions() * 4 + k]->push_back(WeightText(stack.weights[at][k]));
    }
  }
  return info;
}

bool Is(char const* part, runtime::IKernel const& kernel) { return kernel.GetName().find(part) != std::string::npos; }
Form FormOf(runtime::IKernel const& kernel) {
  return Is("_Fused_", kernel) ? Form::kChained : Is("ResetBefore_", kernel) ? Form::kResetBefore : Form::kPlain;
}
bool IsCell(runtime::IKernel const& kernel) { return Is("Cell_", kernel); }

template <class Family>
bool Configure(runtime::IKernel& kernel, Stack const& stack) {
  if (IsCell(kernel)) return kernel.Config(Record<typename Family::CellInfo, true>(stack), nullptr, context);
  return kernel.Config(Record<typename Family::Info, false>(stack), nullptr, context);
}

Tensors Forward(runtime::IKernel const& kernel, std::vector<unsigned int> const& dims, Row const& x) {
  Tensors const inputs = {FloatTensor(*context, dims, TensorShape::C, x)};
  Tensors outputs;
  EXPECT_EQ(kernel.IsValidInput(inputs), 0);
  EXPECT_EQ(kernel.Forward(inputs, outputs, context), 0);
  EXPECT_EQ(kernel.IsValidOutput(outputs), 0);
  return outputs;
}

// All steps of x, by one call of a sequence kernel or a call of a cell for each.
Row Run(runtime::IKernel const& kernel, Row const& x, unsigned int width) {
  unsigned int const steps = Size(x) / width;
  if (!IsCell(kernel)) return Values(*Forward(kernel, {steps, width}, x).at(0));
  Row all;
  for (unsigned int t = 0; t < steps; ++t) {
    Row const y = Values(*Forward(kernel, {width}, Part(x, width, t)).at(0));
    all.insert(all.end(), y.begin(), y.end());
  }
  return all;
}

// The next steps of a kernel have the bits of the stack's.
void ExpectSameRun(Stack& stack, runtime::IKernel const& kernel, std::size_t steps) {
  Row const x = Floats(static_cast<std::uint32_t>(steps), steps * stack.in_size);
  ExpectSameBits(stack.Run(x), Run(kernel, x, stack.in_size));
}

TYPED_TEST(Recurrent, GivesTheGoldenValues) {
  auto const& golden = TypeParam::Golden();
  Stack stack(TypeParam::kGates, {1, 2, 1, true, true});
  stack.weights = golden.weights;
  Row forward;  // what cells know
  for (std::size_t step = 0; step < 3; ++step)
    forward.insert(forward.end(), &golden.output[4 * step], &golden.output[4 * step] + 2);
  for (auto const& kernels : {TypeParam::Sequences(), TypeParam::Cells()}) {
    for (auto const& kernel : kernels) {
      SCOPED_TRACE(kernel->GetName());
      ASSERT_TRUE(Configure<TypeParam>(*kernel, stack));
      ExpectNearSum(IsCell(*kernel) ? forward : golden.output, Run(*kernel, golden.input, 1), 8, 1.0f);
    }
  }
}

TYPED_TEST(Recurrent, AllButSgemmGiveTheBitsOfTheDefinition) {
  struct Case {
    char const* why;
    Shape shape;
    unsigned int first, second;  // steps of two calls
  };
  Case const cases[] = {{"one of each", {1, 1, 1, true, false}, 1, 1},
                        {"weights are turned at each step", {5, 7, 1, true, false}, 3, 2},
                        {"weights are packed", {19, 33, 1, false, false}, 4, 9},
                        {"more cells than a block of gates", {2, 259, 1, true, false}, 1, 2},
                        {"more steps than are made together", {3, 18, 2, true, false}, 67, 130},
                        {"both ways", {6, 17, 1, true, true}, 5, 1},
                        {"layers both ways, over the steps made together", {4, 9, 3, false, true}, 70, 6},
                        {"no steps leave the state as it is", {4, 5, 2, true, true}, 3, 0}};
  for (auto const set : kernel::rows::RunnableSets()) {
    kernel::rows::ScopedInstructionSet const use(set);
    for (Case const& c : cases) {
      SCOPED_TRACE(std::string(c.why) + ", " + kernel::rows::NameOf(set));
      Stack const stack(TypeParam::kGates, c.shape);
      auto kernels = TypeParam::Sequences(), cells = TypeParam::Cells();
      kernels.resize(kernels.size() - TALVO_WITH_BLAS);  // SGEMM
      if (TypeParam::kGates == GRU::kGates) {
        kernels.push_back(std::make_shared<kernel::GRUResetBefore_Fallback_SC_F32_M1>());
      }
      if (stack.weights.size() == 1) kernels.insert(kernels.end(), cells.begin(), cells.end() - TALVO_WITH_BLAS);
      for (auto const& kernel : kernels) {
        SCOPED_TRACE(kernel->GetName());
        ASSERT_TRUE(Configure<TypeParam>(*kernel, stack));
        for (int run = 0; run < 2; ++run) {
          EXPECT_EQ(kernel->ResetRNNState(), 0);  // in the first run there is nothing to clear
          Stack reference = stack;
          reference.form = FormOf(*kernel);
          for (auto const steps : {c.first, c.second, c.first}) ExpectSameRun(reference, *kernel, steps);
        }
      }
    }
  }
}

TYPED_TEST(Recurrent, SpecialValuesPassEachGate) {
  Stack stack(TypeParam::kGates, {1, 25, 1, true, false});
  stack.activation = kRelu;
  Weights& w = stack.weights[0];
  Row const specials = SpecialFloats(1, 28);  // 25 and 28: each gate of a unit has another value
  for (std::size_t o = 0; o < w[0].size(); ++o) w[0][o] = w[2][o] = specials[o % 28];
  for (std::size_t const k : {1u, 3u}) w[k].assign(w[k].size(), -0.0f);  // adds nothing, and keeps -0
  for (std::size_t const form : {kFallback, kFused}) {
    auto const cell = TypeParam::Cells()[form];
    ASSERT_TRUE(Configure<TypeParam>(*cell, stack));
    Stack reference = stack;
    reference.form = FormOf(*cell);
    ExpectSameBits(reference.Run({1.0f}), Run(*cell, {1.0f}, 1));
  }
}

TYPED_TEST(Recurrent, ASecondConfigIsServedWhereTheStateFits) {
  constexpr bool kIsLstm = TypeParam::kGates == LSTM::kGates;
  struct Case {
    char const* why;
    Shape before, after;
    bool sequence, cell;  // whether it is served
  };
  Case const cases[] = {{"no bias, a wider input", {4, 5, 2, true, true}, {6, 5, 2, false, true}, true, false},
                        {"fewer rows", {4, 5, 2, true, true}, {4, 5, 3, true, false}, true, false},
                        {"more rows", {4, 5, 2, true, true}, {4, 5, 3, true, true}, false, false},
                        {"narrower rows", {4, 5, 2, true, false}, {4, 4, 1, true, false}, false, false},
                        {"a narrower row", {4, 5, 1, true, false}, {3, 4, 1, false, false}, true, kIsLstm},
                        {"a wider row", {4, 5, 1, true, false}, {4, 6, 1, true, false}, false, false},
                        {"a row of two halves", {4, 6, 1, true, false}, {4, 3, 2, true, false}, false, false},
                        {"a bias", {4, 5, 1, false, false}, {2, 5, 1, true, false}, true, true}};
  for (Case const& c : cases) {
    auto const check = [&](runtime::IKernel& kernel, bool served) {
      SCOPED_TRACE(kernel.GetName() + ": " + c.why);
      Stack before(TypeParam::kGates, c.before), after(TypeParam::kGates, c.after, 90);
      ASSERT_TRUE(Configure<TypeParam>(kernel, before));
      ExpectSameRun(before, kernel, 2);
      if (served) {
        for (std::size_t at = 0; at < after.h.size(); ++at) {  // the leading rows, and their leading elements
          after.h[at] = Part(before.h[at], after.hidden_size, 0);
          after.c[at] = Part(before.c[at], after.hidden_size, 0);
        }
        ASSERT_TRUE(Configure<TypeParam>(kernel, after));
      } else {
        ExpectRefusal(kernel, " of layer stack: a state of ", [&] { Configure<TypeParam>(kernel, after); });
        EXPECT_FALSE(kernel.IsConfigured());
        ASSERT_TRUE(Configure<TypeParam>(kernel, before));
      }
      ExpectSameRun(served ? after : before, kernel, 3);
    };
    check(*TypeParam::Sequences()[kFallback], c.sequence);
    if (c.before.num_layers * c.after.num_layers == 1) check(*TypeParam::Cells()[kFallback], c.cell);
  }
}

TYPED_TEST(Recurrent, TheStateAdvancesWithAWholeCallAlone) {
  LogCapture const quiet;
  auto const pool = std::make_shared<ShortPool>();
  auto const plenty = std::exchange(context->device_cpu->memory_pool, pool);
  Stack const longer(TypeParam::kGates, {4, 6, 1, true, false});
  for (auto const& kernel : {TypeParam::Sequences()[kFallback], TypeParam::Cells()[kFallback]}) {
    SCOPED_TRACE(kernel->GetName());
    Row const x = Floats(1, IsCell(*kernel) ? 4 : 20);  // five steps: weights are packed too
    Stack stack(TypeParam::kGates, {4, 5, static_cast<unsigned short>(IsCell(*kernel) ? 1 : 2), true, false});
    pool->left = -1ul;
    ASSERT_TRUE(Configure<TypeParam>(*kernel, stack));
    for (int call = 0; call < 2; ++call) {
      Row got;
      for (unsigned long blocks = 0; got.empty(); ++blocks) {
        pool->left = blocks;
        try {
          got = Run(*kernel, x, 4);
        } catch (std::runtime_error const&) {
          ASSERT_EQ(std::exchange(pool->left, 100), -1ul);
          if (call != 0 || IsCell(*kernel)) continue;
          ASSERT_TRUE(Configure<TypeParam>(*kernel, longer));  // there is no state yet
          ASSERT_TRUE(Configure<TypeParam>(*kernel, stack));
        }
      }
      ExpectSameBits(stack.Run(x), got);
    }
  }
  context->device_cpu->memory_pool = plenty;
}

TYPED_TEST(Recurrent, OutputsOfACellStayAsTheyAre) {
  Stack const stack(TypeParam::kGates, {4, 5, 1, true, false});
  for (auto const& cell : TypeParam::Cells()) {
    SCOPED_TRACE(cell->GetName());
    ASSERT_TRUE(Configure<TypeParam>(*cell, stack));
    auto const step = [&] { return Forward(*cell, {4}, Floats(1, 4)).at(0); };
    auto const first = step();
    Row const first_values = Values(*first);
    auto const second = step();
    Row const second_values = Values(*second);
    EXPECT_NE(first_values, second_values);
    cell->ResetRNNState();
    ExpectSameBits(first_values, Values(*first));
    ExpectSameBits(TypeParam::kGates == LSTM::kGates ? Row(5) : second_values, Values(*second));  // LSTM: the state
    ExpectSameBits(first_values, Values(*step()));
  }
}

TYPED_TEST(Recurrent, JudgesItsLayerInOrder) {
  constexpr bool kHasActivation = TypeParam::kGates == RNN::kGates;
  auto const sequence = TypeParam::Sequences()[kFallback], cell = TypeParam::Cells()[kFallback];
  for (int code = 3; code <= (kHasActivation ? 6 : 5); ++code) {
    Stack stack(TypeParam::kGates, {1, 1, 1, true, false});
    stack.activation = 0;
    auto const info = Record<typename TypeParam::Info, false>(stack);
    auto const cell_info = Record<typename TypeParam::CellInfo, true>(stack);
    if (code < 6) info->num_layers = 0;
    if (code < 5) info->hidden_size = cell_info->hidden_size = 0;
    if (code < 4) info->in_size = cell_info->in_size = 0;
    EXPECT_EQ(sequence->IsValidParam(info, nullptr), -code);
    EXPECT_FALSE(sequence->Config(info, nullptr, context));
    EXPECT_EQ(cell->IsValidParam(cell_info, nullptr), code < 5 ? -code : kHasActivation ? -5 : 0);
    EXPECT_EQ(sequence->IsValidParam(cell_info, nullptr), -2);
  }
}

TYPED_TEST(Recurrent, RefusesShortWeights) {
  Stack const stack(TypeParam::kGates, {4, 5, 2, true, true});
  using Info = typename TypeParam::Info;
  auto const expect = [&](std::string const& text, auto const& shorten) {
    auto const info = Record<Info, false>(stack);
    shorten(*info);
    auto const kernel = TypeParam::Sequences()[kFallback];
    ExpectRefusal(*kernel, " of layer stack: " + text, [&] { kernel->Config(info, nullptr, context); });
  };
  std::string const bytes = std::to_string(TypeParam::kGates * 100 - 4);
  expect("weight_hh_reverse[1] holds " + bytes + " bytes",
         [](Info& info) { info.weight_hh_reverse[1] = WeightText(Floats(1, TypeParam::kGates * 25 - 1)); });
  expect("bias_hh_forward[0] holds 0 bytes", [](Info& info) { info.bias_hh_forward[0].clear(); });
  expect("weight_ih_forward[0] holds", [](Info& info) { info.in_size = info.hidden_size = 65535; });  // over 32 bits
  expect("bias_ih_forward has 1 entries, 2", [](Info& info) { info.bias_ih_forward.pop_back(); });
}

TYPED_TEST(Recurrent, ReadsNoMoreThanItsInputHolds) {
  auto const sequence = TypeParam::Sequences()[kFallback], cell = TypeParam::Cells()[kFallback];
  Stack stack(TypeParam::kGates, {4, 5, 1, true, false});
  ASSERT_TRUE(Configure<TypeParam>(*sequence, stack) && Configure<TypeParam>(*cell, stack));
  Tensors outputs;
  auto const forward = [&](runtime::IKernel const& kernel, std::vector<unsigned int> const& dims) {
    kernel.Forward({FloatTensor(*context, dims, TensorShape::SC, Floats(1, runtime::ElementCount(dims)))}, outputs,
                   context);
  };
  for (auto const& dims : {std::vector<unsigned int>{2, 3}, {8}, {2, 4, 0}}) {
    ExpectRefusal(*sequence, " of layer stack: input 0 has dims", [&] { forward(*sequence, dims); });
  }
  ExpectRefusal(*cell, " of layer stack: input 0 has dims [3]", [&] { forward(*cell, {3}); });
  forward(*sequence, {2, 6});  // wider than the layer: its steps follow each other all the same
  ExpectSameBits(stack.Run(Floats(1, 8)), Values(*outputs.at(0)));
  auto const info = Record<typename TypeParam::Info, false>(Stack(TypeParam::kGates, {4, 5, 2, false, false}));
  info->bidirectional = true;
  info->complex_rnn_type = 1;  // later layers read one hidden state
  info->weight_ih_reverse = info->weight_ih_forward;
  info->weight_hh_reverse = info->weight_hh_forward;
  auto const complex = TypeParam::Sequences()[kFallback];
  ASSERT_TRUE(complex->Config(info, nullptr, context));
  EXPECT_EQ(RefusalOf([&] { forward(*complex, {2, 3}); }), "[TLN]: Not Implemented.\n");
}

TYPED_TEST(Recurrent, FunctionsAreTheStepsOfTheirKernels) {
  auto const& device = context->device_cpu;
  Stack const stack(TypeParam::kGates, {3, 2, 1, true, false});
  CpuTensors w;
  for (Row const& row : stack.weights[0]) w.push_back(device->CreateF32CMainMemory(Size(row), row.data()));
  auto kernels = TypeParam::Cells();
  kernels.erase(kernels.begin() + kFused);
  for (std::size_t form = 0; form < kernels.size(); ++form) {
    auto const& kernel = kernels[form];
    SCOPED_TRACE(kernel->GetName());
    ASSERT_TRUE(Configure<TypeParam>(*kernel, stack));
    CpuTensors inputs = {device->CreateF32CMainMemory(3, Floats(1, 3).data()), nullptr, nullptr};  // null: zeros
    auto const call = [&](unsigned int if_bias, auto const&... weights) -> CpuTensors {
      auto* const function = TypeParam::Functions()[form];
      if constexpr (TypeParam::kGates == RNN::kGates) {  // without bias here with an activation that is none
        return {function(inputs, 3, 2, if_bias, if_bias != 0 ? kTanh : 3, weights..., device)};
      } else {
        return {function(inputs, 3, 2, if_bias, weights..., device)};
      }
    };
    for (int step = 0; step < 2; ++step) {
      auto const results = call(1, w[0], w[1], w[2], w[3]);
      ExpectSameBits(Run(*kernel, Floats(1, 3), 3), Values(*results[0]));
      std::copy(results.begin(), results.end(), inputs.begin() + 1);
    }
    ExpectRefusal(*kernel, ": weight_ih has dims", [&] { call(1, w[1], w[1], w[2], w[3]); });
    auto const no_bias = [&] { call(0, w[0], w[1], nullptr, nullptr); };
    if (TypeParam::kGates == RNN::kGates) {
      EXPECT_EQ(RefusalOf(no_bias), "[TLN]: Not Implemented.\n");
    } else {
      no_bias();
    }
  }
}

TEST(NativeLstm, RunsTheStackOnBareMemory) {
  constexpr unsigned int kSteps = 5;
  Stack stack(LSTM::kGates, {3, 6, 2, true, false});
  Row x = Floats(1, 3 * kSteps), h(12), c(12), y(6 * kSteps, -9.0f);
  auto weights = stack.weights;
  std::vector<float*> pointers[4];
  for (Weights& w : weights) {
    for (std::size_t k = 0; k < 4; ++k) pointers[k].push_back(w[k].data());
  }
  auto const run = [&](unsigned int directions, bool bidirectional) {
    kernel::native::lstm_arm_sc_f32_m1(x.data(), h.data(), c.data(), y.data(), kSteps, 3, 6, bidirectional ? 1 : 2,
                                       directions, !bidirectional, bidirectional, pointers[0], pointers[1], pointers[2],
                                       pointers[3]);
  };
  run(1, false);
  ExpectSameBits(stack.Run(x), y);
  ExpectSameBits(stack.c[1].data(), c.data() + 6, 6);
  pointers[3].pop_back();
  EXPECT_NE(RefusalOf([&] { run(1, false); }).find("bias_hh has 1 entries, 2"), std::string::npos);
  EXPECT_DEATH(run(2, true), "no support bidirectional rnns.*lstm_arm_sc_f32_m1");
}

}  // namespace
}  // namespace talvo::test
