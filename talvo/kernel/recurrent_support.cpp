#include "talvo/kernel/recurrent_support.h"

#include <algorithm>
#include <climits>

#include "talvo/kernel/functional/gemm.h"
#include "talvo/kernel/kernel_support.h"
#include "talvo/kernel/rows/fused_product.h"
#include "talvo/kernel/rows/gates.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::kernel::recurrent {
namespace {

using utility::Refuse;

constexpr std::size_t kStepsAtOnce = 64;  // steps whose input products are made together

void RunRnn(Step const& step) {
  if (step.activation != kTanh && step.activation != kRelu) Refuse("Not Implemented.");
  rows::RnnGates(step.a, step.b, step.activation == kRelu, step.size, step.h_new);
}

void RunLstm(Step const& step) { rows::LstmGates(step.a, step.b, step.size, step.c, step.h_new); }

void RunGru(Step const& step) { rows::GruGates(step.a, step.b, step.h, step.size, step.h_new); }

void CheckCall(CellCall const& call) {
  std::size_t const inputs = call.form.gates.has_cell_state ? 3 : 2;
  unsigned int const most = INT_MAX / call.form.gates.count;
  if (call.device == nullptr || call.inputs.size() < inputs || call.hidden_size > most) {
    Refuse("%s: %zu inputs, hidden size %u, %s device; needs %zu inputs, a size of at most %u and a device",
           call.form.name, call.inputs.size(), call.hidden_size, call.device == nullptr ? "no" : "a", inputs, most);
  }
}

float const* Floats(CellCall const& call, char const* what, TensorPtr const& tensor, std::size_t needed) {
  support::CheckTensor(call.form.name, what, tensor.get(), {sizeof(float), support::kAnyRank, needed});
  return tensor->Data<float>();
}

TensorPtr StateOrZeros(CellCall const& call, std::size_t index) {
  return call.inputs[index] != nullptr ? call.inputs[index] : call.device->CreateZeroF32CMainMem(call.hidden_size);
}

// One of the two products of a step, and the names of its operands.
struct Operands {
  char const* in_name;
  TensorPtr const& in;
  unsigned int in_count;
  char const* weight_name;
  TensorPtr const& weight;
  char const* bias_name;
  TensorPtr const& bias;
};

TensorPtr Multiply(CellCall const& call, Operands const& of) {
  unsigned int const outputs = call.form.gates.count * call.hidden_size;
  auto out = call.device->CreateF32CMainMemory(outputs, nullptr);
  call.form.product.connect(Floats(call, of.in_name, of.in, of.in_count), of.in_count, outputs,
                            Floats(call, of.weight_name, of.weight, std::size_t{outputs} * of.in_count),
                            call.if_bias ? Floats(call, of.bias_name, of.bias, outputs) : nullptr, out->Data<float>());
  return out;
}

void ConnectFused(float const* in, unsigned int const& in_count, unsigned int const& out_count, float const* weight,
                  float const* bias, float* out) {
  rows::FusedProduct({weight, in, bias, 1, out_count, in_count, out, out_count, false});
}

// Rows from which it pays to pack the weights of a block of outputs, multiply all rows and go on to the next block.
constexpr std::size_t kBlocksFrom = 3;

// The same of weights that are packed whole for rows that come one by one: the larger they are, the less of them is
// still in a cache when the next row comes, and the less packing saves.
std::size_t PackFrom(std::size_t weights) {
  constexpr std::size_t kLeast = 3, kBytesToARow = std::size_t{1} << 19;
  return kLeast + weights * sizeof(float) / kBytesToARow;
}

TensorPtr PackedRoom(runtime::DeviceCPU& device, std::size_t outputs, std::size_t inputs) {
  return device.CreateF32CMainMemory(static_cast<unsigned int>(rows::FusedFloats(outputs, inputs)), nullptr);
}

// W and the bias of y = W x + bias, as `product` keeps them.
struct Matrix {
  Matrix(Product const& of, TensorPtr const& w, TensorPtr const& b, std::size_t rows, std::size_t columns)
      : product(of),
        outputs(static_cast<unsigned int>(rows)),
        inputs(static_cast<unsigned int>(columns)),
        weight(w->Data<float>()),
        bias(b != nullptr ? b->Data<float>() : nullptr) {}

  // Some of the outputs; for weights that are kept as they are.
  Matrix Part(std::size_t first, std::size_t count) const {
    Matrix part = *this;
    part.outputs = static_cast<unsigned int>(count);
    part.weight += first * inputs;
    if (bias != nullptr) part.bias += first;
    return part;
  }

  void MultiplyRow(float const* x, float* y) const { product.connect(x, inputs, outputs, weight, bias, y); }

  // `count` outputs from `first` on, whose packed weights are these; y [rows, outputs].
  void MultiplyPacked(float const* packed, float const* x, std::size_t rows, std::size_t first, std::size_t count,
                      bool backwards, float* y) const {
    (*product.multiply)(
        {packed, x, bias != nullptr ? bias + first : nullptr, rows, count, inputs, y + first, outputs, backwards});
  }

  Product const& product;
  unsigned int outputs, inputs;
  float const *weight, *bias;
};

// W_ih x + b_ih of many rows at a time.
class InputProduct {
 public:
  InputProduct(Matrix const& matrix, std::size_t rows, runtime::DeviceCPU& device) : matrix_(matrix) {
    if (matrix.product.packing != Packing::kInPasses || rows < kBlocksFrom) return;
    block_ = PackedRoom(device, std::min<std::size_t>(rows::kFusedBlock, matrix.outputs), matrix.inputs);
  }

  void Run(float const* x, std::size_t rows, float* y) const {
    if (matrix_.product.packing == Packing::kAtOnce) {
      matrix_.MultiplyPacked(matrix_.weight, x, rows, 0, matrix_.outputs, false, y);
    } else if (block_ != nullptr && rows >= kBlocksFrom) {
      RunBlocks(x, rows, y);
    } else {
      for (std::size_t r = 0; r < rows; ++r) matrix_.MultiplyRow(x + r * matrix_.inputs, y + r * matrix_.outputs);
    }
  }

 private:
  void RunBlocks(float const* x, std::size_t rows, float* y) const {
    float* const packed = block_->Data<float>();
    for (std::size_t o = 0; o < matrix_.outputs; o += rows::kFusedBlock) {
      std::size_t const count = std::min(rows::kFusedBlock, matrix_.outputs - o);
      rows::PackFused(matrix_.weight + o * matrix_.inputs, count, matrix_.inputs, packed);
      matrix_.MultiplyPacked(packed, x, rows, o, count, false, y);
    }
  }

  Matrix matrix_;
  TensorPtr block_;
};

// W_hh h + b_hh for a row at each of many steps.
class HiddenProduct {
 public:
  HiddenProduct(Matrix const& matrix, std::size_t steps, runtime::DeviceCPU& device) : matrix_(matrix) {
    std::size_t const weights = std::size_t{matrix.outputs} * matrix.inputs;
    if (matrix.product.packing != Packing::kInPasses || weights == 0 || steps < PackFrom(weights)) return;
    packed_ = PackedRoom(device, matrix.outputs, matrix.inputs);
    rows::PackFused(matrix.weight, matrix.outputs, matrix.inputs, packed_->Data<float>());
  }

  // `backwards`: see PackedProductRun.
  void Run(float const* h, bool backwards, float* y) const {
    bool const kept = matrix_.product.packing == Packing::kAtOnce;
    if (!kept && packed_ == nullptr) return matrix_.MultiplyRow(h, y);
    matrix_.MultiplyPacked(kept ? matrix_.weight : packed_->Data<float>(), h, 1, 0, matrix_.outputs, backwards, y);
  }

 private:
  Matrix matrix_;
  TensorPtr packed_;
};

}  // namespace

Gates const kRnn = {1, false, RunRnn};
Gates const kLstm = {4, true, RunLstm};
Gates const kGru = {3, false, RunGru};
Gates const kGruResetBefore = {3, false, nullptr};
Product const kOrdered = {Packing::kInPasses, functional::fullconnection_fallback_c_f32_m1, &rows::PackedProduct};
Product const kFused = {Packing::kAtOnce, ConnectFused, &rows::FusedProduct};
#if TALVO_WITH_BLAS
Product const kBlas = {Packing::kNever, functional::fullconnection_sgemm_c_f32_m1, nullptr};
#endif

TensorPtr Keep(Product const& product, TensorPtr const& weight, runtime::DeviceCPU& device) {
  if (product.packing != Packing::kAtOnce) return weight;
  std::size_t const outputs = weight->shape.dims[0], inputs = weight->shape.dims[1];
  auto packed = device.CreateF32CMainMemory(static_cast<unsigned int>(rows::FusedFloats(outputs, inputs)), nullptr);
  rows::PackFused(weight->Data<float>(), outputs, inputs, packed->Data<float>());
  return packed;
}

std::vector<TensorPtr> RunCell(CellCall const& call) {
  CheckCall(call);
  unsigned int const size = call.hidden_size;
  Weights const& w = call.weights;
  TensorPtr const h = StateOrZeros(call, 1);
  auto const a = Multiply(call, {"x", call.inputs[0], w.in_size, "weight_ih", w.weight_ih, "bias_ih", w.bias_ih});
  auto const b = Multiply(call, {"h", h, size, "weight_hh", w.weight_hh, "bias_hh", w.bias_hh});
  std::vector<TensorPtr> results = {call.device->CreateF32CMainMemory(size, nullptr)};
  if (call.form.gates.has_cell_state) {
    results.push_back(call.device->CreateF32CMainMemory(size, Floats(call, "c", StateOrZeros(call, 2), size)));
  }
  call.form.gates.run({a->Data<float>(), b->Data<float>(), h->Data<float>(), results.back()->Data<float>(),
                       results[0]->Data<float>(), size, call.activation});
  return results;
}

std::size_t PassScratch(Form const& form, std::size_t steps, std::size_t hidden_size) {
  return (std::min(steps, kStepsAtOnce) + 1) * form.gates.count * hidden_size;
}

namespace {

// One step behind the product a = W_ih x + b_ih: h to h_new, with b [gates * size] as scratch, at an odd or even step.
class HiddenStep {
 public:
  HiddenStep(Form const& form, Weights const& weights, Pass const& pass, runtime::DeviceCPU& device)
      : form_(form),
        size_(pass.hidden_size),
        resets_before_(form.gates.run == nullptr),
        all_(form.product, weights.weight_hh, weights.bias_hh, form.gates.count * size_, size_),
        gates_(resets_before_ ? all_.Part(0, 2 * size_) : all_, pass.steps, device),
        candidates_(resets_before_ ? all_.Part(2 * size_, size_) : all_.Part(0, 0), pass.steps, device) {}

  void Run(float const* a, float const* h, bool odd, float* b, float* c, float* h_new) const {
    gates_.Run(h, odd, b);
    if (!resets_before_) return form_.gates.run({a, b, h, c, h_new, size_, kTanh});
    rows::GruResets(a, b, h, size_, h_new);
    candidates_.Run(h_new, odd, b + 2 * size_);
    rows::GruUpdates(a + 2 * size_, b + 2 * size_, b + size_, h, size_, h_new);
  }

 private:
  Form const& form_;
  std::size_t size_;
  bool resets_before_;
  Matrix all_;
  HiddenProduct gates_, candidates_;
};

}  // namespace

// A step reads its hidden state where the one before wrote it, in y.
void RunPass(Form const& form, Weights const& weights, Pass const& pass, runtime::DeviceCPU& device) {
  std::size_t const steps = pass.steps, size = pass.hidden_size, outputs = form.gates.count * size;
  InputProduct const from_x({form.product, weights.weight_ih, weights.bias_ih, outputs, weights.in_size},
                            std::min(steps, kStepsAtOnce), device);
  HiddenStep const step(form, weights, pass, device);
  float *const b = pass.scratch, *const a = b + outputs;
  float const* h = pass.h;
  for (std::size_t done = 0; done < steps; done += kStepsAtOnce) {
    std::size_t const rows = std::min(kStepsAtOnce, steps - done);
    std::size_t const first = pass.reverse ? steps - done - rows : done;
    from_x.Run(pass.x + first * weights.in_size, rows, a);
    for (std::size_t r = 0; r < rows; ++r) {
      std::size_t const row = pass.reverse ? rows - 1 - r : r;
      float* const h_new = pass.y + (first + row) * pass.y_stride;
      step.Run(a + row * outputs, h, r % 2 == 1, b, pass.c, h_new);
      h = h_new;
    }
  }
  if (h != pass.h) std::copy_n(h, size, pass.h);
}

}  // namespace talvo::kernel::recurrent
