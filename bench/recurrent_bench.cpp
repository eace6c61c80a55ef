// Recurrent kernels beside the plain cell, written out below: LSTM and GRU over a sequence and for one step. Operations
// are the multiplications and additions of the matrix products; their share is that of the core's fused rate.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bench/blas_in_use.h"
#include "bench/yardsticks.h"
#include "talvo/entry/create_context.h"
#include "talvo/kernel/recurrent.h"
#include "talvo/kernel/rows/gates.h"
#include "talvo/kernel/rows/instruction_sets.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/serialization/layer_info_rnn.h"
#include "talvo/utility/base64.h"

namespace talvo::bench {
namespace {

namespace rows = kernel::rows;

constexpr unsigned int kIn = 128, kHidden = 256;

// Small weights, so that no gate saturates.
std::vector<float> Weights(std::size_t count, std::size_t seed) {
  std::vector<float> values(count);
  for (std::size_t i = 0; i < count; ++i) values[i] = static_cast<float>((i + seed) * 7919 % 1001) / 5005.0f - 0.1f;
  return values;
}

std::string WeightText(std::vector<float> const& values) {
  return runtime::Base64Encode(reinterpret_cast<unsigned char const*>(values.data()), values.size() * sizeof(float));
}

// Weights of one layer and direction, and a cell as plain as it can be written.
struct PlainCell {
  PlainCell(unsigned int gate_count, unsigned int width, std::size_t seed, bool before = false)
      : gates(gate_count),
        resets_before(before),
        in_size(width),
        ih(Weights(std::size_t{gates} * kHidden * width, seed)),
        hh(Weights(std::size_t{gates} * kHidden * kHidden, seed + 1)),
        bias_ih(Weights(std::size_t{gates} * kHidden, seed + 2)),
        bias_hh(Weights(std::size_t{gates} * kHidden, seed + 3)),
        a(bias_ih.size()),
        b(bias_hh.size()),
        h(kHidden),
        c(kHidden) {}

  static void Connect(float const* x, std::size_t count, std::vector<float> const& weight,
                      std::vector<float> const& bias, std::vector<float>& y) {
    for (std::size_t o = 0; o < y.size(); ++o) {
      y[o] = bias[o];
      for (std::size_t i = 0; i < count; ++i) y[o] += weight[o * count + i] * x[i];
    }
  }

  static float Sigmoid(float x) { return 1.0f / (std::exp(0.0f - x) + 1.0f); }

  float SumOf(std::size_t gate, std::size_t j) const { return a[gate * kHidden + j] + b[gate * kHidden + j]; }

  void Step(float const* x) {
    Connect(x, in_size, ih, bias_ih, a);
    Connect(h.data(), kHidden, hh, bias_hh, b);
    if (resets_before) ConnectReset();
    Gates();
  }

  // The last gate takes the product of r * h, not r times that of h.
  void ConnectReset() {
    std::vector<float> reset(kHidden), last(kHidden);
    for (std::size_t j = 0; j < kHidden; ++j) reset[j] = Sigmoid(SumOf(0, j)) * h[j];
    std::vector<float> const weight(hh.end() - kHidden * kHidden, hh.end()),
        bias(bias_hh.end() - kHidden, bias_hh.end());
    Connect(reset.data(), kHidden, weight, bias, last);
    std::copy(last.begin(), last.end(), b.end() - kHidden);
  }

  void Gates() {
    for (std::size_t j = 0; j < kHidden; ++j) {
      if (gates == 4) {
        float const i = Sigmoid(SumOf(0, j)), f = Sigmoid(SumOf(1, j)), g = std::tanh(SumOf(2, j));
        c[j] = c[j] * f + i * g;
        h[j] = std::tanh(c[j]) * Sigmoid(SumOf(3, j));
      } else {
        float const r = Sigmoid(SumOf(0, j)), z = Sigmoid(SumOf(1, j));
        float const n = std::tanh(a[2 * kHidden + j] + b[2 * kHidden + j] * (resets_before ? 1.0f : r));
        h[j] = n - z * (n - h[j]);
      }
    }
  }

  unsigned int gates;
  bool resets_before;
  unsigned int in_size;
  std::vector<float> ih, hh, bias_ih, bias_hh, a, b, h, c;
};

struct Shape {
  unsigned int gates;
  unsigned short num_layers;
  bool bidirectional;
  unsigned int steps;
  bool resets_before = false;

  unsigned int Directions() const { return bidirectional ? 2 : 1; }
  unsigned int Width(std::size_t layer) const { return layer == 0 ? kIn : Directions() * kHidden; }

  // Of a step.
  double Operations() const {
    double inputs = 0.0;
    for (std::size_t l = 0; l < num_layers; ++l) inputs += Width(l) + kHidden;
    return 2.0 * gates * kHidden * Directions() * inputs;
  }
};

// Entry layer * directions + direction.
std::vector<PlainCell> PlainStack(Shape const& shape) {
  std::vector<PlainCell> cells;
  for (std::size_t at = 0; at < std::size_t{shape.num_layers} * shape.Directions(); ++at) {
    cells.emplace_back(shape.gates, shape.Width(at / shape.Directions()), 10 * at, shape.resets_before);
  }
  return cells;
}

std::vector<float> RunPlain(Shape const& shape, std::vector<PlainCell>& cells, std::vector<float> below) {
  std::size_t const directions = shape.Directions(), steps = shape.steps;
  for (std::size_t l = 0; l < shape.num_layers; ++l) {
    std::vector<float> above(steps * directions * kHidden);
    for (std::size_t k = 0; k < directions * steps; ++k) {
      std::size_t const d = k / steps, t = d == 0 ? k : 2 * steps - 1 - k;
      PlainCell& cell = cells[l * directions + d];
      cell.Step(below.data() + t * shape.Width(l));
      std::copy(cell.h.begin(), cell.h.end(), &above[(t * directions + d) * kHidden]);
    }
    below = std::move(above);
  }
  return below;
}

template <class Info>
std::shared_ptr<Info> Record(Shape const& shape, std::vector<PlainCell> const& cells) {
  auto const info = std::make_shared<Info>();
  info->in_size = kIn;
  info->hidden_size = kHidden;
  info->if_bias = true;
  info->num_layers = shape.num_layers;
  info->bidirectional = shape.bidirectional;
  for (std::size_t at = 0; at < cells.size(); ++at) {
    bool const reverse = at % shape.Directions() == 1;
    (reverse ? info->weight_ih_reverse : info->weight_ih_forward).push_back(WeightText(cells[at].ih));
    (reverse ? info->weight_hh_reverse : info->weight_hh_forward).push_back(WeightText(cells[at].hh));
    (reverse ? info->bias_ih_reverse : info->bias_ih_forward).push_back(WeightText(cells[at].bias_ih));
    (reverse ? info->bias_hh_reverse : info->bias_hh_forward).push_back(WeightText(cells[at].bias_hh));
  }
  return info;
}

void PlainSequence(benchmark::State& state, Shape shape) {
  auto cells = PlainStack(shape);
  auto const x = Weights(std::size_t{shape.steps} * kIn, 5);
  for (auto _ : state) benchmark::DoNotOptimize(RunPlain(shape, cells, x));
  state.SetItemsProcessed(state.iterations() * shape.steps);
}

// `same_bits`: the first call gives the bits of the plain cells where the platform's expf and tanhf have those of ours;
// where it does not, the line says so.
template <class Kernel, class Info>
void Sequence(benchmark::State& state, Shape shape, bool same_bits) {
  std::shared_ptr<runtime::Context> context;
  utility::create_context(context, 64);
  auto cells = PlainStack(shape);
  auto const values = Weights(std::size_t{shape.steps} * kIn, 5);
  Kernel kernel;
  kernel.Config(Record<Info>(shape, cells), nullptr, context);
  auto const x = context->device_cpu->CreateF32FlexiableMainMemory({shape.steps, kIn}, values.data());
  std::vector<std::shared_ptr<runtime::Tensor>> outputs;
  kernel.Forward({x}, outputs, context);
  auto const want = RunPlain(shape, cells, values);
  if (same_bits && std::memcmp(want.data(), outputs[0]->data, want.size() * sizeof(float)) != 0) {
    state.SetLabel("other bits than the plain cell");
  }
  for (auto _ : state) kernel.Forward({x}, outputs, context);
  state.SetItemsProcessed(state.iterations() * shape.steps);
  ReportFusedOperations(state, shape.steps * shape.Operations());
}

void PlainStep(benchmark::State& state, unsigned int gates) {
  PlainCell cell(gates, kIn, 0);
  auto const x = Weights(kIn, 5);
  for (auto _ : state) {
    cell.Step(x.data());
    benchmark::ClobberMemory();
  }
}

// What follows the products alone, by elements of the hidden state; without a set the plain cell.
void GatesAlone(benchmark::State& state, unsigned int gates, std::optional<rows::InstructionSet> set) {
  rows::ScopedInstructionSet const use(set.value_or(rows::InstructionSet::kBaseline));
  PlainCell cell(gates, kIn, 0);
  cell.a = Weights(cell.a.size(), 1);
  cell.b = Weights(cell.b.size(), 2);
  for (auto _ : state) {
    if (!set) {
      cell.Gates();
    } else if (gates == 4) {
      rows::LstmGates(cell.a.data(), cell.b.data(), kHidden, cell.c.data(), cell.h.data());
    } else {
      rows::GruGates(cell.a.data(), cell.b.data(), cell.h.data(), kHidden, cell.h.data());
    }
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kHidden);
}

template <class Kernel, class Info>
void Step(benchmark::State& state, unsigned int gates) {
  std::shared_ptr<runtime::Context> context;
  utility::create_context(context, 64);
  PlainCell const cell(gates, kIn, 0);
  auto const info = std::make_shared<Info>();
  info->in_size = kIn;
  info->hidden_size = kHidden;
  info->if_bias = true;
  info->weight_ih = WeightText(cell.ih);
  info->weight_hh = WeightText(cell.hh);
  info->bias_ih = WeightText(cell.bias_ih);
  info->bias_hh = WeightText(cell.bias_hh);
  Kernel kernel;
  kernel.Config(info, nullptr, context);
  auto const x = context->device_cpu->CreateF32CMainMemory(kIn, Weights(kIn, 5).data());
  std::vector<std::shared_ptr<runtime::Tensor>> outputs;
  for (auto _ : state) kernel.Forward({x}, outputs, context);
  ReportFusedOperations(state, Shape{gates, 1, false, 1}.Operations());
}

template <class Info, class Fallback, class Arm, class Sgemm, class Fused>
void RegisterSequences(std::string const& family, unsigned int gates) {
  struct Case {
    char const* name;
    Shape shape;
  };
  for (auto const& [title, shape] : {Case{"/1_layer/", {gates, 1, false, 100}},
                                     {"/1_layer_of_8_steps/", {gates, 1, false, 8}},
                                     {"/2_layers_both_ways/", {gates, 2, true, 100}}}) {
    std::string const name = family + title;
    benchmark::RegisterBenchmark((name + "plain_cell").c_str(), PlainSequence, shape);
    benchmark::RegisterBenchmark((name + "Fallback").c_str(), Sequence<Fallback, Info>, shape, true);
    benchmark::RegisterBenchmark((name + "ARM").c_str(), Sequence<Arm, Info>, shape, true);
    benchmark::RegisterBenchmark((name + "SGEMM").c_str(), Sequence<Sgemm, Info>, shape, false);
    benchmark::RegisterBenchmark((name + "Fused").c_str(), Sequence<Fused, Info>, shape, false);
  }
}

template <class Info, class Fallback, class Arm, class Sgemm, class Fused>
void RegisterCells(std::string const& family, unsigned int gates) {
  benchmark::RegisterBenchmark((family + "/cell/plain_cell").c_str(), PlainStep, gates);
  benchmark::RegisterBenchmark((family + "/cell/Fallback").c_str(), Step<Fallback, Info>, gates);
  benchmark::RegisterBenchmark((family + "/cell/ARM").c_str(), Step<Arm, Info>, gates);
  benchmark::RegisterBenchmark((family + "/cell/SGEMM").c_str(), Step<Sgemm, Info>, gates);
  benchmark::RegisterBenchmark((family + "/cell/Fused").c_str(), Step<Fused, Info>, gates);
  benchmark::RegisterBenchmark((family + "/gates/plain_cell").c_str(), GatesAlone, gates, std::nullopt);
  for (auto const set : rows::RunnableSets()) {
    benchmark::RegisterBenchmark((family + "/gates/" + rows::NameOf(set)).c_str(), GatesAlone, gates, set);
  }
}

void RegisterResetBefore() {
  Shape const shape = {3, 1, false, 100, true};
  using Kernel = kernel::GRUResetBefore_Fallback_SC_F32_M1;
  benchmark::RegisterBenchmark("GRUResetBefore/1_layer/plain_cell", PlainSequence, shape);
  benchmark::RegisterBenchmark("GRUResetBefore/1_layer/Fallback", Sequence<Kernel, runtime::GRUInfo>, shape, true);
}

}  // namespace
}  // namespace talvo::bench

int main(int argc, char** argv) {
  using namespace talvo::kernel;
  using namespace talvo::runtime;
  talvo::bench::RegisterSequences<LSTMInfo, LSTM_Fallback_SC_F32_M1, LSTM_ARM_SC_F32_M1, LSTM_SGEMM_SC_F32_M1,
                                  LSTM_Fused_SC_F32_M1>("LSTM", 4);
  talvo::bench::RegisterSequences<GRUInfo, GRU_Fallback_SC_F32_M1, GRU_ARM_SC_F32_M1, GRU_SGEMM_SC_F32_M1,
                                  GRU_Fused_SC_F32_M1>("GRU", 3);
  talvo::bench::RegisterCells<LSTMCellInfo, LSTMCell_Fallback_C_F32_M1, LSTMCell_ARM_C_F32_M1, LSTMCell_SGEMM_C_F32_M1,
                              LSTMCell_Fused_C_F32_M1>("LSTM", 4);
  talvo::bench::RegisterCells<GRUCellInfo, GRUCell_Fallback_C_F32_M1, GRUCell_ARM_C_F32_M1, GRUCell_SGEMM_C_F32_M1,
                              GRUCell_Fused_C_F32_M1>("GRU", 3);
  talvo::bench::RegisterResetBefore();
  return talvo::bench::RunOnOneBlasThread(argc, argv);
}
