#include <algorithm>
#include <cctype>

#include "tools/convert_onnx/translators.h"

namespace convert_onnx {
namespace {

using Values = std::vector<Value>;
using namespace talvo::runtime;

constexpr long long kMostSteps = 64;  // of a sequence that is laid out step by step

enum Kind : std::size_t { kRnn, kLstm, kGru };

// Gates of the standard, in the order of the records: of LSTM i, o, f, c to i, f, c, o; of GRU z, r, h to r, z, h.
std::vector<std::size_t> const kOrder[] = {{0}, {0, 2, 3, 1}, {1, 0, 2}};
std::vector<std::string> const kUsual[] = {{"tanh"}, {"sigmoid", "tanh", "tanh"}, {"sigmoid", "tanh"}};

// One direction; arrays as the standard has them, its gates one after the other.
struct Direction {
  Floats w, r, wb, rb;  // [gates * hidden, inputs], [gates * hidden, hidden], biases [gates * hidden]
  Floats peepholes;     // [3 * hidden] i, o, f, or none
  bool backwards;
  std::vector<std::string> activations;
};

struct Recurrent {
  Kind kind;
  long long steps, batch, inputs, hidden;
  bool batch_first, resets_after;
  std::vector<Direction> directions;
  Value h, c;                // initial states [directions, batch, hidden]; absent: 0
  std::vector<bool> wanted;  // Y, Y_h, Y_c

  std::size_t Gates() const { return kOrder[kind].size(); }
};

Floats Part(Floats const& list, std::size_t part, std::size_t parts) {
  auto const each = static_cast<std::ptrdiff_t>(list.size() / parts);
  auto const begin = list.begin() + static_cast<std::ptrdiff_t>(part) * each;
  return Floats(begin, begin + each);
}

// Input `index` of this shape as floats; none where it is left out.
Floats Weights(Node const& node, std::size_t index, Shape const& shape) {
  if (!node.Given(index)) return {};
  Array const& array = node.ConstantInput(index);
  if (array.shape != shape)
    throw Refusal("input " + std::to_string(index) + " is " + Text(array.shape) + ", needs " + Text(shape));
  return array.Floats();
}

std::vector<std::string> Activations(Node const& node, Kind kind, std::size_t directions) {
  auto words = node.Words("activations");
  for (std::string& word : words) {
    for (char& c : word) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (word != "sigmoid" && word != "tanh" && word != "relu") throw Refusal("attribute activations holds " + word);
  }
  for (std::size_t d = 0; words.size() < directions * kUsual[kind].size() && d < directions; ++d)
    words.insert(words.end(), kUsual[kind].begin(), kUsual[kind].end());
  if (words.size() != directions * kUsual[kind].size())
    throw Refusal("attribute activations has " + std::to_string(words.size()) + " entries");
  return words;
}

void AddDirections(Node const& node, Recurrent& r) {
  std::string const word = node.Word("direction", "forward");
  if (word != "forward" && word != "reverse" && word != "bidirectional") throw Refusal("attribute direction = " + word);
  std::size_t const count = word == "bidirectional" ? 2 : 1;
  auto const d = static_cast<long long>(count), outputs = static_cast<long long>(r.Gates()) * r.hidden;
  Floats const w = Weights(node, 1, {d, outputs, r.inputs}), h = Weights(node, 2, {d, outputs, r.hidden});
  Floats const peepholes = r.kind == kLstm ? Weights(node, 7, {d, 3 * r.hidden}) : Floats();
  Floats b = Weights(node, 3, {d, 2 * outputs});
  if (w.empty() || h.empty()) throw Refusal("inputs W and R are missing");
  if (b.empty()) b.assign(static_cast<std::size_t>(2 * d * outputs), 0.0f);
  auto const words = Activations(node, r.kind, count);
  for (std::size_t k = 0; k < count; ++k) {
    Direction one = {Part(w, k, count),
                     Part(h, k, count),
                     Part(b, 2 * k, 2 * count),
                     Part(b, 2 * k + 1, 2 * count),
                     Part(peepholes, k, count),
                     word == "reverse" || k == 1,
                     {}};
    auto const first = words.begin() + static_cast<std::ptrdiff_t>(k * kUsual[r.kind].size());
    one.activations.assign(first, first + static_cast<std::ptrdiff_t>(kUsual[r.kind].size()));
    r.directions.push_back(std::move(one));
  }
}

Value State(Node const& node, std::size_t index, Recurrent const& r, Builder& b) {
  if (!node.Given(index)) return {};
  Value const& given = node.Input(index);
  if (given.IsConstant()) {
    auto const& values = given.constant->values;
    if (std::all_of(values.begin(), values.end(), [](double v) { return v == 0; })) return {};
  }
  auto const d = static_cast<long long>(r.directions.size());
  Shape const shape = r.batch_first ? Shape{r.batch, d, r.hidden} : Shape{d, r.batch, r.hidden};
  if (given.shape != shape)
    throw Refusal("input " + std::to_string(index) + " is " + Text(given.shape) + ", needs " + Text(shape));
  Value const state = b.Tensor(given);
  return r.batch_first ? b.Permute(state, {1, 0, 2}) : state;
}

Recurrent Read(Node const& node, Kind kind, Builder& b) {
  Shape const& x = node.TensorInput(0).shape;
  if (x.size() != 3) throw Refusal("an input of shape " + Text(x) + ", needs 3 axes");
  if (node.Has("clip") || node.Int("input_forget", 0) != 0) throw Refusal("attribute clip or input_forget");
  bool const first = node.Int("layout", 0) != 0;
  Recurrent r = {kind,
                 x[first ? 1 : 0],
                 x[first ? 0 : 1],
                 x[2],
                 node.Int("hidden_size", 0),
                 first,
                 node.Int("linear_before_reset", 0) != 0,
                 {},
                 {},
                 {},
                 node.wanted};
  if (r.hidden < 1 || r.hidden > 65535) throw Refusal("attribute hidden_size = " + std::to_string(r.hidden));
  AddDirections(node, r);
  r.h = State(node, 5, r, b);
  if (kind == kLstm) r.c = State(node, 6, r, b);
  if (node.Given(4)) {
    for (long long const length : node.ConstantInput(4).Integers()) {
      if (length != r.steps)
        throw Refusal("input sequence_lens holds " + std::to_string(length) + " of " + std::to_string(r.steps));
    }
  }
  r.wanted.resize(3);
  return r;
}

// One kernel does it: usual activations, states of 0, and no cell state to hand out.
bool IsPlain(Recurrent const& r) {
  for (Direction const& d : r.directions) {
    if (d.activations != kUsual[r.kind] || !d.peepholes.empty()) return false;
  }
  return r.h.IsAbsent() && r.c.IsAbsent() && !r.wanted[2];
}

// Rows by gate in the order of the records.
Floats Ordered(Floats const& list, Kind kind) {
  Floats result;
  for (std::size_t const gate : kOrder[kind]) {
    Floats const part = Part(list, gate, kOrder[kind].size());
    result.insert(result.end(), part.begin(), part.end());
  }
  return result;
}

template <class Info>
std::shared_ptr<LayerInfo> Record(Recurrent const& r, bool both) {
  auto const record = std::make_shared<Info>();
  record->in_size = Field(r.inputs, "in_size");
  record->hidden_size = Field(r.hidden, "hidden_size");
  record->if_bias = true;
  record->num_layers = 1;
  record->bidirectional = both;
  if constexpr (std::is_same_v<Info, RNNInfo>) record->activation_type = 5;
  return record;
}

// x [steps, inputs] to [steps, directions, hidden]. A lone reverse direction gets a forward one of weights 0 beside it.
Value Stack(Value const& x, Recurrent const& r, Builder& b) {
  bool const alone = r.directions.size() == 1 && r.directions[0].backwards, both = alone || r.directions.size() == 2;
  std::shared_ptr<LayerInfo> const records[] = {r.kind == kRnn    ? Record<RNNInfo>(r, both)
                                                : r.kind == kLstm ? Record<LSTMInfo>(r, both)
                                                                  : Record<GRUInfo>(r, both)};
  char const* const kernels[] = {"RNN_Fallback_SC_F32_M1", "LSTM_Fallback_SC_F32_M1",
                                 r.resets_after ? "GRU_Fallback_SC_F32_M1" : "GRUResetBefore_Fallback_SC_F32_M1"};
  long long const width = both ? 2 : 1;
  Value const y = b.Emit(records[0], kernels[r.kind], {b.Flat(x, {r.steps, r.inputs})}, {r.steps, width * r.hidden},
                         TensorShape::SC, {r.steps, width, r.hidden});
  auto& arrays = b.layers.back().recurrent;
  for (Direction const& d : r.directions) {
    for (Floats const* const list : {&d.w, &d.r, &d.wb, &d.rb}) {
      if (alone) arrays.emplace_back(list->size(), 0.0f);
    }
    for (Floats const* const list : {&d.w, &d.r, &d.wb, &d.rb}) arrays.push_back(Ordered(*list, r.kind));
  }
  return alone ? b.Slice(y, 1, 1, 1, 1) : y;
}

Value Activated(Value const& x, std::string const& name, Builder& b) {
  if (name == "relu") return b.Relu(x);
  return name == "tanh" ? b.Unary(x, "TanH_Fallback_Float_M1", 5) : b.Unary(x, "Sigmoid_Fallback_Float_M1");
}

// The steps of one sample in one direction, one after the other.
struct Steps {
  Steps(Recurrent const& r, Direction const& d, Value hidden, Value cell, Builder& b)
      : h(std::move(hidden)), c(std::move(cell)), r_(r), d_(d), b_(b) {}

  // x [inputs].
  void Take(Value const& x) {
    Value const a = Connect(x, d_.w, d_.wb);
    if (r_.kind == kGru) return TakeGru(a);
    Value const sum = b_.Combine(kAdd, a, Connect(h, d_.r, d_.rb));
    if (r_.kind == kLstm) return TakeLstm(sum);
    h = Activated(sum, d_.activations[0], b_);
  }

  Value h, c;

 private:
  Value Connect(Value const& x, Floats const& weight, Floats const& bias) {
    return b_.Dense(x, weight, bias, static_cast<long long>(bias.size()));
  }
  Value Gate(Value const& gates, long long k) { return b_.Slice(gates, 0, k * r_.hidden, r_.hidden, 1); }
  Value Peep(Value const& gate, std::size_t k) {
    if (d_.peepholes.empty()) return gate;
    Array const factors{{r_.hidden}, onnx::TensorProto::FLOAT, {}};
    Array scale = factors;
    for (float const v : Part(d_.peepholes, k, 3)) scale.values.push_back(static_cast<double>(v));
    return b_.Combine(kAdd, gate, b_.Affine(c, scale, Scalar(0)));
  }

  void TakeLstm(Value const& gates) {
    Value const i = Activated(Peep(Gate(gates, 0), 0), d_.activations[0], b_);
    Value const f = Activated(Peep(Gate(gates, 2), 2), d_.activations[0], b_);
    Value const g = Activated(Gate(gates, 3), d_.activations[1], b_);
    c = b_.Combine(kAdd, b_.Combine(kMul, f, c), b_.Combine(kMul, i, g));
    Value const o = Activated(Peep(Gate(gates, 1), 1), d_.activations[0], b_);
    h = b_.Combine(kMul, o, Activated(c, d_.activations[2], b_));
  }

  // h = n + z (h - n).
  void TakeGru(Value const& a) {
    Floats zr = Part(d_.r, 0, 3), zr_bias = Part(d_.rb, 0, 3);
    for (auto const& [all, list] : {std::pair(&d_.r, &zr), {&d_.rb, &zr_bias}}) {
      Floats const second = Part(*all, 1, 3);
      list->insert(list->end(), second.begin(), second.end());
    }
    Floats const candidate = Part(d_.r, 2, 3), bias = Part(d_.rb, 2, 3);
    Value const hidden = Connect(h, zr, zr_bias);
    Value const z = Activated(b_.Combine(kAdd, Gate(a, 0), Gate(hidden, 0)), d_.activations[0], b_);
    Value const reset = Activated(b_.Combine(kAdd, Gate(a, 1), Gate(hidden, 1)), d_.activations[0], b_);
    Value const second = r_.resets_after ? b_.Combine(kMul, reset, Connect(h, candidate, bias))
                                         : Connect(b_.Combine(kMul, reset, h), candidate, bias);
    Value const n = Activated(b_.Combine(kAdd, Gate(a, 2), second), d_.activations[1], b_);
    h = b_.Combine(kAdd, n, b_.Combine(kMul, z, b_.Combine(kSub, h, n)));
  }

  Recurrent const& r_;
  Direction const& d_;
  Builder& b_;
};

struct Sample {
  Value y, h, c;  // [steps, directions, 1, hidden] and [directions, 1, hidden]
};

Sample RunPlain(Value const& x, Recurrent const& r, Builder& b) {
  auto const d = static_cast<long long>(r.directions.size());
  Value const y = Stack(x, r, b);
  Values last;
  for (long long k = 0; k < d && r.wanted[1]; ++k) {
    bool const backwards = r.directions[static_cast<std::size_t>(k)].backwards;
    last.push_back(b.Slice(b.Slice(y, 1, k, 1, 1), 0, backwards ? 0 : r.steps - 1, 1, 1));
  }
  Sample sample = {Builder::As(y, {r.steps, d, 1, r.hidden}), {}, {}};
  if (r.wanted[1]) sample.h = Builder::As(b.Join(last, 1), {d, 1, r.hidden});
  return sample;
}

Value InitialState(Value const& states, std::size_t direction, long long sample, Recurrent const& r, Builder& b) {
  if (states.IsAbsent()) return b.Filled({r.hidden}, 0);
  Value const one = b.Slice(states, 0, static_cast<long long>(direction), 1, 1);
  return Builder::As(b.Slice(one, 1, sample, 1, 1), {r.hidden});
}

Sample RunSteps(Value const& x, long long sample, Recurrent const& r, Builder& b) {
  if (r.steps > kMostSteps) {
    throw Refusal("initial states, peepholes, other activations and the cell's last state need steps one by one; " +
                  std::to_string(r.steps) + " of at most " + std::to_string(kMostSteps));
  }
  Values ys, hs, cs;
  for (std::size_t d = 0; d < r.directions.size(); ++d) {
    Value const c = r.kind == kLstm ? InitialState(r.c, d, sample, r, b) : Value();
    Steps steps(r, r.directions[d], InitialState(r.h, d, sample, r, b), c, b);
    Values made(static_cast<std::size_t>(r.steps));
    for (long long i = 0; i < r.steps; ++i) {
      long long const t = r.directions[d].backwards ? r.steps - 1 - i : i;
      steps.Take(Builder::As(b.Slice(x, 0, t, 1, 1), {r.inputs}));
      made[static_cast<std::size_t>(t)] = Builder::As(steps.h, {1, 1, 1, r.hidden});
    }
    ys.push_back(b.Join(made, 0));
    hs.push_back(Builder::As(steps.h, {1, 1, r.hidden}));
    if (r.kind == kLstm) cs.push_back(Builder::As(steps.c, {1, 1, r.hidden}));
  }
  return {b.Join(ys, 1), b.Join(hs, 0), r.kind == kLstm ? b.Join(cs, 0) : Value()};
}

template <Kind kind>
Values Translate(Node const& node, Builder& b) {
  Recurrent const r = Read(node, kind, b);
  bool const plain = IsPlain(r);
  Values ys, hs, cs;
  for (long long n = 0; n < r.batch; ++n) {
    Value const x = Builder::As(b.Slice(node.TensorInput(0), r.batch_first ? 0 : 1, n, 1, 1), {r.steps, r.inputs});
    Sample const sample = plain ? RunPlain(x, r, b) : RunSteps(x, n, r, b);
    ys.push_back(sample.y), hs.push_back(sample.h), cs.push_back(sample.c);
  }
  Values outputs(3);
  if (r.wanted[0]) outputs[0] = b.Join(ys, 2);
  if (r.wanted[1]) outputs[1] = b.Join(hs, 1);
  if (r.wanted[2]) outputs[2] = b.Join(cs, 1);
  if (!r.batch_first) return outputs;
  if (r.wanted[0]) outputs[0] = b.Permute(outputs[0], {2, 0, 1, 3});
  for (std::size_t k : {1u, 2u}) {
    if (r.wanted[k]) outputs[k] = b.Permute(outputs[k], {1, 0, 2});
  }
  return outputs;
}

}  // namespace

void AddRecurrent(Translators& table) {
  table.insert({{"GRU", Translate<kGru>}, {"LSTM", Translate<kLstm>}, {"RNN", Translate<kRnn>}});
}

}  // namespace convert_onnx
