#include "talvo/kernel/recurrent.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <utility>

#include "talvo/kernel/kernel_of_support.h"
#include "talvo/kernel/recurrent_support.h"
#include "talvo/serialization/layer_info_rnn.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::kernel {
namespace recurrent {

// The registered names stand in the order of the variants' numbers.
struct Rnn {
  using CellInfo = runtime::RNNCellInfo;
  using Info = runtime::RNNInfo;
  static constexpr Gates const& kGates = kRnn;
  static constexpr char const* kCells[] = {"RNNCell_Fallback_C_F32_M1", "RNNCell_SGEMM_C_F32_M1",
                                           "RNNCell_ARM_C_F32_M1", "RNNCell_Fused_C_F32_M1"};
  static constexpr char const* kSequences[] = {"RNN_Fallback_SC_F32_M1", "RNN_SGEMM_SC_F32_M1", "RNN_ARM_SC_F32_M1",
                                               "RNN_Fused_SC_F32_M1"};
};

struct Lstm {
  using CellInfo = runtime::LSTMCellInfo;
  using Info = runtime::LSTMInfo;
  static constexpr Gates const& kGates = kLstm;
  static constexpr char const* kCells[] = {"LSTMCell_Fallback_C_F32_M1", "LSTMCell_SGEMM_C_F32_M1",
                                           "LSTMCell_ARM_C_F32_M1", "LSTMCell_Fused_C_F32_M1"};
  static constexpr char const* kSequences[] = {"LSTM_Fallback_SC_F32_M1", "LSTM_SGEMM_SC_F32_M1", "LSTM_ARM_SC_F32_M1",
                                               "LSTM_Fused_SC_F32_M1"};
};

struct Gru {
  using CellInfo = runtime::GRUCellInfo;
  using Info = runtime::GRUInfo;
  static constexpr Gates const& kGates = kGru;
  static constexpr char const* kCells[] = {"GRUCell_Fallback_C_F32_M1", "GRUCell_SGEMM_C_F32_M1",
                                           "GRUCell_ARM_C_F32_M1", "GRUCell_Fused_C_F32_M1"};
  static constexpr char const* kSequences[] = {"GRU_Fallback_SC_F32_M1", "GRU_SGEMM_SC_F32_M1", "GRU_ARM_SC_F32_M1",
                                               "GRU_Fused_SC_F32_M1"};
};

struct GruResetBefore {
  using Info = runtime::GRUInfo;
  static constexpr Gates const& kGates = kGruResetBefore;
  static constexpr char const* kSequences[] = {"GRUResetBefore_Fallback_SC_F32_M1"};
};

struct Fallback {
  static constexpr std::size_t kNumber = 0;
  static constexpr Product const& kProduct = kOrdered;
};

#if TALVO_WITH_BLAS
struct Sgemm {
  static constexpr std::size_t kNumber = 1;
  static constexpr Product const& kProduct = kBlas;
};
#endif

struct Arm {
  static constexpr std::size_t kNumber = 2;
  static constexpr Product const& kProduct = kOrdered;
};

struct Fused {
  static constexpr std::size_t kNumber = 3;
  static constexpr Product const& kProduct = kFused;
};

namespace {

unsigned int ActivationOf(runtime::RNNCellInfo const& info) { return info.activation_type; }
unsigned int ActivationOf(runtime::RNNInfo const& info) { return info.activation_type; }
unsigned int ActivationOf(runtime::LayerInfo const&) { return kTanh; }

// The four arrays of one layer in one direction, in the order of the fields of Weights.
using Names = char const* const[4];
using Texts = std::string const* [4];  // base64; the biases are null without bias

constexpr Names kCellNames = {"weight_ih", "weight_hh", "bias_ih", "bias_hh"};
constexpr Names kStackNames[] = {{"weight_ih_forward", "weight_hh_forward", "bias_ih_forward", "bias_hh_forward"},
                                 {"weight_ih_reverse", "weight_hh_reverse", "bias_ih_reverse", "bias_hh_reverse"}};

// What kernels read of a cell's record, whatever its class; nothing of a layer that is no cell of the family.
struct CellRecord {
  std::string const& id;
  unsigned int in_size, hidden_size, activation;
  Texts texts;
};

template <class Info>
std::optional<CellRecord> ReadCell(runtime::LayerInfo const* layer) {
  auto const* const info = dynamic_cast<Info const*>(layer);
  if (info == nullptr) return std::nullopt;
  return CellRecord{info->id,
                    info->in_size,
                    info->hidden_size,
                    ActivationOf(*info),
                    {&info->weight_ih, &info->weight_hh, info->if_bias ? &info->bias_ih : nullptr,
                     info->if_bias ? &info->bias_hh : nullptr}};
}

// The same of a sequence's record; texts[direction][array] has an entry for each layer.
struct StackRecord {
  std::string const& id;
  unsigned int in_size, hidden_size, activation, num_layers, directions, complex_rnn_type;
  bool if_bias;
  std::vector<std::string> const* texts[2][4];
};

template <class Info>
std::optional<StackRecord> ReadStack(runtime::LayerInfo const* layer) {
  auto const* const info = dynamic_cast<Info const*>(layer);
  if (info == nullptr) return std::nullopt;
  return StackRecord{
      info->id,
      info->in_size,
      info->hidden_size,
      ActivationOf(*info),
      info->num_layers,
      info->bidirectional ? 2u : 1u,
      info->complex_rnn_type,
      info->if_bias,
      {{&info->weight_ih_forward, &info->weight_hh_forward, &info->bias_ih_forward, &info->bias_hh_forward},
       {&info->weight_ih_reverse, &info->weight_hh_reverse, &info->bias_ih_reverse, &info->bias_hh_reverse}}};
}

// The codes that cells and sequences share.
template <class Record>
int JudgeSizes(std::optional<Record> const& record, ParamPtr const& param) {
  if (param != nullptr) return -1;
  if (!record) return -2;
  if (record->in_size == 0) return -3;
  return record->hidden_size == 0 ? -4 : 0;
}

bool KnowsActivation(unsigned int activation) { return activation == kTanh || activation == kRelu; }

// What a kernel computes, and how it reads its record.
struct CellForm {
  Form form;
  std::optional<CellRecord> (*read)(runtime::LayerInfo const*);
};
struct SequenceForm {
  Form form;
  std::optional<StackRecord> (*read)(runtime::LayerInfo const*);
};

void Clear(TensorPtr const& tensor) {
  if (tensor != nullptr) std::memset(tensor->data, 0, runtime::ByteCount(tensor->shape));
}

// Hidden state and, for an LSTM, cell state; null until they are made.
struct State {
  TensorPtr h, c;
};

}  // namespace

// What cells and sequences have in common.
struct Operation : support::PlainOperation {
  explicit Operation(Form const& of) : form(of) {}

  bool Passes(int judgement) const override { return judgement == 0; }

  int ResetRNNState() const override {
    Clear(state.h);
    Clear(state.c);
    return 0;
  }

  void CheckInput(runtime::TensorCPU const& x, std::size_t elements) const {
    support::CheckTensor({form.name, layer_id}, "input 0", &x, {sizeof(float), support::kAnyRank, elements});
  }

  // `entry` is the place of the texts in their lists.
  Weights Decode(Names const& names, Texts const& texts, std::size_t entry, unsigned int width,
                 ContextPtr const& context) const {
    unsigned int const outputs = form.gates.count * hidden_size;
    std::vector<unsigned int> const dims[] = {{outputs, width}, {outputs, hidden_size}, {outputs}, {outputs}};
    TensorPtr tensors[4];
    for (std::size_t k = 0; k < 4; ++k) {
      if (texts[k] == nullptr) continue;
      tensors[k] = support::DecodeWeights(form.name, layer_id, names[k], *texts[k], dims[k], TensorShape::FLEXIABLE,
                                          context, entry);
      if (k < 2) tensors[k] = Keep(form.product, tensors[k], *context->device_cpu);
    }
    return {width, tensors[0], tensors[1], tensors[2], tensors[3]};
  }

  Form form;
  std::string layer_id;
  unsigned int hidden_size = 0;
  mutable State state;  // lives through every Config
};

struct CellOperation : Operation {
  explicit CellOperation(CellForm const& of) : Operation(of.form), read(of.read) {}

  int IsValidParam(LayerPtr const& layer, ParamPtr const& param) const override {
    auto const record = read(layer.get());
    int const judgement = JudgeSizes(record, param);
    return judgement != 0 || KnowsActivation(record->activation) ? judgement : -5;
  }

  bool Config(LayerPtr const& layer, ParamPtr const&, ContextPtr const& context) override {
    auto const record = read(layer.get());
    if (!record) support::RefuseRecord(form.name);
    Take(*record, context);
    return true;
  }

  static int Judge(Tensors const& tensors, unsigned int size) {
    return support::Judge(tensors, 1, [size](runtime::Tensor const& tensor) {
      return support::IsInMainMemory(tensor, TensorShape::FLOAT32, TensorShape::C) && !tensor.shape.dims.empty() &&
             tensor.shape.dims[0] == size;
    });
  }

  int IsValidInput(Tensors const& inputs) const override { return Judge(inputs, weights.in_size); }
  int IsValidOutput(Tensors const& outputs) const override { return Judge(outputs, hidden_size); }

  Shapes GetOutputShapes(Shapes const&) const override {
    return support::OneShape({hidden_size}, TensorShape::FLOAT32, TensorShape::C, TensorShape::MainMemory);
  }

  // The state of an LSTM is replaced at each step, so that a longer one serves; the others write into theirs.
  void CheckState(CellRecord const& record) const {
    if (state.h == nullptr) return;
    unsigned int const alive = state.h->shape.dims[0];
    if (form.gates.has_cell_state ? alive >= record.hidden_size : alive == record.hidden_size) return;
    Refuse("%s of layer %s: a state of %u elements is alive, hidden_size %u needs another", form.name,
           record.id.c_str(), alive, record.hidden_size);
  }

  void Take(CellRecord const& record, ContextPtr const& context) {
    CheckState(record);
    layer_id = record.id;
    hidden_size = record.hidden_size;
    activation = record.activation;
    weights = Decode(kCellNames, record.texts, support::kNoEntry, record.in_size, context);
    if (form.gates.has_cell_state || state.h != nullptr) return;
    state.h = support::Device(form.name, context).CreateZeroF32CMainMem(hidden_size);
  }

  int Forward(runtime::IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    support::NeedsConfig(kernel);
    auto const x = support::Input(kernel, inputs, 0);
    CheckInput(*x, weights.in_size);
    support::Device(kernel, context);
    bool const if_bias = weights.bias_ih != nullptr && weights.bias_hh != nullptr;
    auto const results =
        RunCell({form, {x, state.h, state.c}, weights, hidden_size, if_bias, activation, context->device_cpu});
    outputs.assign(1, results[0]);  // the last thing that may throw
    if (form.gates.has_cell_state) {
      state = {results[0], results[1]};
    } else {
      std::copy_n(results[0]->Data<float>(), hidden_size, state.h->Data<float>());
    }
    return 0;
  }

  decltype(CellForm::read) const read;
  unsigned int activation = kTanh;
  Weights weights;
};

struct SequenceOperation : Operation {
  explicit SequenceOperation(SequenceForm const& of) : Operation(of.form), read(of.read) {}

  int IsValidParam(LayerPtr const& layer, ParamPtr const& param) const override {
    auto const record = read(layer.get());
    int const judgement = JudgeSizes(record, param);
    if (judgement != 0) return judgement;
    return record->num_layers == 0 ? -5 : KnowsActivation(record->activation) ? 0 : -6;
  }

  bool Config(LayerPtr const& layer, ParamPtr const&, ContextPtr const& context) override {
    auto const record = read(layer.get());
    if (!record) support::RefuseRecord(form.name);
    Take(*record, context);
    return true;
  }

  static bool IsSequence(runtime::Tensor const& tensor, unsigned int width) {
    return support::IsInMainMemory(tensor, TensorShape::FLOAT32) && tensor.shape.dims.size() >= 2 &&
           tensor.shape.dims[1] == width;
  }

  int IsValidInput(Tensors const& inputs) const override {
    return support::Judge(inputs, 1, [this](auto const& tensor) { return IsSequence(tensor, in_size); });
  }

  int IsValidOutput(Tensors const& outputs) const override {
    return support::Judge(outputs, 1, [this](auto const& tensor) {
      return tensor.shape.layout == TensorShape::SC && IsSequence(tensor, directions * hidden_size);
    });
  }

  Shapes GetOutputShapes(Shapes const& input_shapes) const override {
    auto const& dims = support::ShapeAt({form.name, layer_id}, input_shapes, 0).dims;
    if (dims.empty()) Refuse("%s of layer %s: an input without dims has no steps", form.name, layer_id.c_str());
    return support::OneShape({dims[0], directions * hidden_size}, TensorShape::FLOAT32, TensorShape::SC,
                             TensorShape::MainMemory);
  }

  // Rows follow each other at the width that the state was made with: only a single one may be wider than needed.
  void CheckState(StackRecord const& record) const {
    if (state.h == nullptr) return;
    unsigned int const rows = state.h->shape.dims[0], width = state.h->shape.dims[1];
    unsigned int const needed = record.num_layers * record.directions;
    if (needed <= rows && (rows == 1 ? record.hidden_size <= width : record.hidden_size == width)) return;
    Refuse("%s of layer %s: a state of %u rows of %u is alive, needs %u rows of %u", form.name, record.id.c_str(), rows,
           width, needed, record.hidden_size);
  }

  // The texts of one layer in one direction.
  void Pick(StackRecord const& record, std::size_t direction, std::size_t layer, Texts& texts) const {
    for (std::size_t k = 0; k < (record.if_bias ? 4 : 2); ++k) {
      auto const& entries = *record.texts[direction][k];
      if (layer >= entries.size()) {
        Refuse("%s of layer %s: %s has %zu entries, %u layers need as many", form.name, record.id.c_str(),
               kStackNames[direction][k], entries.size(), record.num_layers);
      }
      texts[k] = &entries[layer];
    }
  }

  void Take(StackRecord const& record, ContextPtr const& context) {
    CheckState(record);
    layer_id = record.id;
    in_size = record.in_size;
    hidden_size = record.hidden_size;
    directions = record.directions;
    complex_rnn_type = record.complex_rnn_type;
    layers.clear();
    for (std::size_t row = 0; row < std::size_t{record.num_layers} * directions; ++row) {
      Texts texts = {};
      Pick(record, row % directions, row / directions, texts);
      unsigned int const above = complex_rnn_type != 0 ? hidden_size : directions * hidden_size;
      layers.push_back(
          Decode(kStackNames[row % directions], texts, row / directions, row < directions ? in_size : above, context));
    }
  }

  State NewState(runtime::DeviceCPU& device) const {
    std::vector<unsigned int> const dims = {static_cast<unsigned int>(layers.size()), hidden_size};
    return {device.CreateZeroF32FlexiableMainMem(dims),
            form.gates.has_cell_state ? device.CreateZeroF32FlexiableMainMem(dims) : nullptr};
  }

  // What a call computes in: the new state, h and behind it c, and the scratch of a pass. One block, since making a
  // tensor takes as long as a short step.
  struct Working {
    TensorPtr block;
    float *h, *c, *pass;
  };

  Working Begin(State const& kept, std::size_t steps, runtime::DeviceCPU& device) const {
    std::size_t const count = support::Count(*kept.h), needed = 2 * count + PassScratch(form, steps, hidden_size);
    auto const block = device.CreateF32CMainMemory(static_cast<unsigned int>(needed), nullptr);
    float *const h = block->Data<float>(), *const c = std::copy_n(kept.h->Data<float>(), count, h);
    if (kept.c != nullptr) std::copy_n(kept.c->Data<float>(), count, c);
    return {block, h, c, c + count};
  }

  int Forward(runtime::IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    support::NeedsConfig(kernel);
    if (directions == 2 && complex_rnn_type != 0) Refuse("Not Implemented.");
    auto const x = support::Input(kernel, inputs, 0);
    auto const y_shape = GetOutputShapes({x->shape})[0];
    CheckInput(*x, std::size_t{y_shape.dims[0]} * in_size);
    auto& device = support::Device(kernel, context);
    auto const y = device.CreateTensor(y_shape, nullptr);
    State const kept = state.h != nullptr ? state : NewState(device);
    Working const now = Begin(kept, y_shape.dims[0], device);
    TensorPtr below = x;
    for (std::size_t row = 0; row < layers.size(); row += directions) {
      TensorPtr const above = row + directions == layers.size() ? y : device.CreateTensor(y_shape, nullptr);
      RunLayer(row, *below, *above, now, device);
      below = above;
    }
    outputs.assign(1, y);  // the last thing that may throw
    std::copy(now.h, now.c, kept.h->Data<float>());
    if (kept.c != nullptr) std::copy(now.c, now.pass, kept.c->Data<float>());
    state = kept;
    return 0;
  }

  // Both directions of one layer, the first of which has this row of the state. The order of layers and steps changes
  // no value: a layer reads what the one below gave for the same step.
  void RunLayer(std::size_t first_row, runtime::TensorCPU const& below, runtime::TensorCPU const& above,
                Working const& now, runtime::DeviceCPU& device) const {
    for (std::size_t d = 0; d < directions; ++d) {
      std::size_t const row = first_row + d;
      Pass pass = {};
      pass.x = below.Data<float>();
      pass.steps = above.shape.dims[0];
      pass.reverse = d == 1;
      pass.y = above.Data<float>() + d * hidden_size;
      pass.y_stride = std::size_t{directions} * hidden_size;
      pass.h = now.h + row * hidden_size;
      pass.c = now.c + row * hidden_size;
      pass.hidden_size = hidden_size;
      pass.scratch = now.pass;
      RunPass(form, layers[row], pass, device);
    }
  }

  decltype(SequenceForm::read) const read;
  unsigned int in_size = 0, directions = 1, complex_rnn_type = 0;
  std::vector<Weights> layers;  // a row of the state each: for each layer the forward one, then the reverse one
};

template <class Family, class Variant>
struct Cell {
  using Body = CellOperation;
  static constexpr char const* kName = Family::kCells[Variant::kNumber];
  static constexpr CellForm kForm = {{kName, Family::kGates, Variant::kProduct}, ReadCell<typename Family::CellInfo>};
};

template <class Family, class Variant>
struct Sequence {
  using Body = SequenceOperation;
  static constexpr char const* kName = Family::kSequences[Variant::kNumber];
  static constexpr SequenceForm kForm = {{kName, Family::kGates, Variant::kProduct}, ReadStack<typename Family::Info>};
};

}  // namespace recurrent

template OperationPtr MakeOperation<recurrent::Sequence<recurrent::Rnn, recurrent::Fallback>>();
template OperationPtr MakeOperation<recurrent::Sequence<recurrent::Rnn, recurrent::Arm>>();
template OperationPtr MakeOperation<recurrent::Sequence<recurrent::Rnn, recurrent::Fused>>();
template OperationPtr MakeOperation<recurrent::Sequence<recurrent::Lstm, recurrent::Fallback>>();
template OperationPtr MakeOperation<recurrent::Sequence<recurrent::Lstm, recurrent::Arm>>();
template OperationPtr MakeOperation<recurrent::Sequence<recurrent::Lstm, recurrent::Fused>>();
template OperationPtr MakeOperation<recurrent::Sequence<recurrent::Gru, recurrent::Fallback>>();
template OperationPtr MakeOperation<recurrent::Sequence<recurrent::Gru, recurrent::Arm>>();
template OperationPtr MakeOperation<recurrent::Sequence<recurrent::Gru, recurrent::Fused>>();
template OperationPtr MakeOperation<recurrent::Sequence<recurrent::GruResetBefore, recurrent::Fallback>>();
template OperationPtr MakeOperation<recurrent::Cell<recurrent::Rnn, recurrent::Fallback>>();
template OperationPtr MakeOperation<recurrent::Cell<recurrent::Rnn, recurrent::Arm>>();
template OperationPtr MakeOperation<recurrent::Cell<recurrent::Rnn, recurrent::Fused>>();
template OperationPtr MakeOperation<recurrent::Cell<recurrent::Lstm, recurrent::Fallback>>();
template OperationPtr MakeOperation<recurrent::Cell<recurrent::Lstm, recurrent::Arm>>();
template OperationPtr MakeOperation<recurrent::Cell<recurrent::Lstm, recurrent::Fused>>();
template OperationPtr MakeOperation<recurrent::Cell<recurrent::Gru, recurrent::Fallback>>();
template OperationPtr MakeOperation<recurrent::Cell<recurrent::Gru, recurrent::Arm>>();
template OperationPtr MakeOperation<recurrent::Cell<recurrent::Gru, recurrent::Fused>>();
#if TALVO_WITH_BLAS
template OperationPtr MakeOperation<recurrent::Sequence<recurrent::Rnn, recurrent::Sgemm>>();
template OperationPtr MakeOperation<recurrent::Sequence<recurrent::Lstm, recurrent::Sgemm>>();
template OperationPtr MakeOperation<recurrent::Sequence<recurrent::Gru, recurrent::Sgemm>>();
template OperationPtr MakeOperation<recurrent::Cell<recurrent::Rnn, recurrent::Sgemm>>();
template OperationPtr MakeOperation<recurrent::Cell<recurrent::Lstm, recurrent::Sgemm>>();
template OperationPtr MakeOperation<recurrent::Cell<recurrent::Gru, recurrent::Sgemm>>();
#endif

}  // namespace talvo::kernel
