#include "talvo/kernel/gemm.h"

#include <algorithm>
#include <vector>

#include "talvo/kernel/functional/gemm.h"
#include "talvo/kernel/kernel_of_support.h"
#include "talvo/kernel/rows/elementwise_rows.h"
#include "talvo/kernel/rows/fused_product.h"
#include "talvo/kernel/rows/matrix_product.h"
#include "talvo/kernel/rows/transpose.h"
#include "talvo/serialization/layer_info_conv.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::kernel {

using runtime::TensorCPU;

namespace {

// What a full connection of vectors or of rows computes.
struct ConnectionForm {
  bool packs;  // the weights, for fused steps
  bool rows;   // the input has two axes, [count, in_features], otherwise one
  void (*run)(float const* x, std::size_t count, std::size_t inputs, std::size_t outputs, float const* weight,
              float const* bias, float* y);
};

struct FullConnection : support::Strict<runtime::FullConnectionInfo> {
  explicit FullConnection(ConnectionForm const& of) : form(of) {}

  int IsValidParam(LayerPtr const& layer, ParamPtr const& param) const override {
    auto const* const info = dynamic_cast<runtime::FullConnectionInfo const*>(layer.get());
    return param == nullptr && info != nullptr && info->in_features != 0 && info->out_features != 0 ? 0 : -1;
  }

  bool Config(LayerPtr const& layer, ParamPtr const&, ContextPtr const& context) override {
    auto const& info = support::As<runtime::FullConnectionInfo>(CName(), layer);
    layer_id = info.id;
    in_features = info.in_features, out_features = info.out_features;
    weight = support::DecodeWeights(CName(), layer_id, "weight", info.weight, {out_features, in_features},
                                    TensorShape::FLEXIABLE, context);
    if (form.packs) weight = Packed(*context->device_cpu);
    bias = nullptr;
    if (info.if_bias) {
      bias =
          support::DecodeWeights(CName(), layer_id, "bias", info.bias, {out_features}, TensorShape::FLEXIABLE, context);
    }
    return true;
  }

  support::TensorPtr Packed(runtime::DeviceCPU& device) const {
    auto packed =
        device.CreateF32CMainMemory(static_cast<unsigned int>(rows::FusedFloats(out_features, in_features)), nullptr);
    rows::PackFused(weight->Data<float>(), out_features, in_features, packed->Data<float>());
    return packed;
  }

  Shapes GetOutputShapes(Shapes const& input_shapes) const override {
    if (form.rows) {
      TensorShape const& input = support::ShapeAt(Self(), input_shapes, 0, 2);
      return support::OneShape({input.dims[0], out_features}, input.data_type, TensorShape::SC, input.location);
    }
    TensorShape const& input = support::ShapeAt(CName(), input_shapes, 0);
    return support::OneShape({out_features}, input.data_type, TensorShape::C, input.location);
  }

  int Judge(Tensors const& tensors, unsigned int features) const {
    return support::Judge(tensors, 1, [rows = form.rows, features](runtime::Tensor const& tensor) {
      auto const& dims = tensor.shape.dims;
      if (!support::IsInMainMemory(tensor, TensorShape::FLOAT32, rows ? TensorShape::SC : TensorShape::C)) return false;
      return rows ? dims.size() == 2 && dims[1] == features : !dims.empty() && dims[0] == features;
    });
  }
  int IsValidInput(Tensors const& inputs) const override { return Judge(inputs, in_features); }
  int IsValidOutput(Tensors const& outputs) const override { return Judge(outputs, out_features); }

  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    support::NeedsConfig(kernel);
    std::size_t const rank = form.rows ? 2 : support::kAnyRank;
    auto const x = support::Input(Self(), inputs, 0, rank);
    std::size_t const count = form.rows ? x->shape.dims[0] : 1;
    support::CheckTensor(Self(), "input 0", x.get(), {sizeof(float), rank, count * in_features});
    auto const y = support::NewOutput(kernel, inputs, context);
    form.run(x->Data<float>(), count, in_features, out_features, weight->Data<float>(),
             bias == nullptr ? nullptr : bias->Data<float>(), y->Data<float>());
    return support::Give(y, outputs);
  }

  support::Who Self() const { return {CName(), layer_id}; }

  ConnectionForm const form;
  std::string layer_id;
  unsigned int in_features = 0, out_features = 0;
  support::TensorPtr weight, bias;  // [out_features, in_features]; [out_features], null without bias
};

void ConnectPlainly(float const* x, std::size_t, std::size_t inputs, std::size_t outputs, float const* weight,
                    float const* bias, float* y) {
  functional::fullconnection_fallback_c_f32_m1(x, static_cast<unsigned int>(inputs), static_cast<unsigned int>(outputs),
                                               weight, bias, y);
}

void ConnectFused(float const* x, std::size_t, std::size_t inputs, std::size_t outputs, float const* packed,
                  float const* bias, float* y) {
  rows::FusedProduct({packed, x, bias, 1, outputs, inputs, y, outputs, false});
}

void ConnectRows(float const* x, std::size_t count, std::size_t inputs, std::size_t outputs, float const* packed,
                 float const* bias, float* y) {
  rows::PackedProduct({packed, x, bias, count, outputs, inputs, y, outputs, false});
}

}  // namespace

struct FallbackFullConnectionOperation {
  using Body = FullConnection;
  static constexpr char const* kName = "FullConnection_Fallback_C_Float_M1";
  static constexpr ConnectionForm kForm = {false, false, ConnectPlainly};
};

struct FusedFullConnectionOperation {
  using Body = FullConnection;
  static constexpr char const* kName = "FullConnection_Fused_C_Float_M1";
  static constexpr ConnectionForm kForm = {true, false, ConnectFused};
};

struct RowsFullConnectionOperation {
  using Body = FullConnection;
  static constexpr char const* kName = "FullConnection_Fallback_SC_Float_M1";
  static constexpr ConnectionForm kForm = {true, true, ConnectRows};
};

namespace {

using Dims = std::vector<unsigned int>;

// The last two extents of an operand, turned where the record says so, and the elements of one of its matrices.
struct Matrix {
  Matrix(Dims const& dims, bool turned)
      : rows(dims[dims.size() - (turned ? 1 : 2)]), columns(dims[dims.size() - (turned ? 2 : 1)]) {}
  std::size_t Elements() const { return rows * columns; }
  std::size_t rows, columns;
};

bool Multiply(Dims const& a, bool trans_a, Dims const& b, bool trans_b) {
  if (a.size() < 2 || b.size() < 2 || Matrix(a, trans_a).columns != Matrix(b, trans_b).rows) return false;
  return a.size() == 2 || b.size() == 2 || (a.size() == b.size() && std::equal(a.begin(), a.end() - 2, b.begin()));
}

// matrix [rows, columns] to [columns, rows].
void Turn(float const* matrix, std::size_t rows, std::size_t columns, float* turned) {
  std::size_t const row = columns * sizeof(float), to_row = rows * sizeof(float);
  rows::TransposeElements(
      sizeof(float), {reinterpret_cast<unsigned char const*>(matrix), static_cast<std::ptrdiff_t>(row), rows, columns,
                      reinterpret_cast<unsigned char*>(turned), static_cast<std::ptrdiff_t>(to_row), sizeof(float)});
}

}  // namespace

struct MatMulOperation : support::Strict<runtime::GemmInfo> {
  static constexpr char const* kName = "MatMul_Fallback_Float_M1";

  int IsValidParam(LayerPtr const& layer, ParamPtr const& param) const override {
    bool const plain = support::StrictParam<runtime::BroadcastOperatorInfo>(layer, param) == 0;
    return plain ? 0 : support::StrictParam<runtime::GemmInfo>(layer, param);
  }

  bool Config(LayerPtr const& layer, ParamPtr const&, ContextPtr const&) override {
    auto const* const info = dynamic_cast<runtime::GemmInfo const*>(layer.get());
    runtime::GemmInfo const plain;
    layer_id = layer->id;
    trans_a = (info != nullptr ? *info : plain).trans_a;
    trans_b = (info != nullptr ? *info : plain).trans_b;
    alpha = (info != nullptr ? *info : plain).alpha;
    return true;
  }

  int IsValidInput(Tensors const& inputs) const override {
    int const judgement = support::Judge(
        inputs, 2, [](runtime::Tensor const& tensor) { return support::IsInMainMemory(tensor, TensorShape::FLOAT32); });
    if (judgement != 0) return judgement;
    return Multiply(inputs[0]->shape.dims, trans_a, inputs[1]->shape.dims, trans_b) ? 0 : -2;
  }

  Shapes GetOutputShapes(Shapes const& input_shapes) const override {
    TensorShape const &a = support::ShapeAt({kName, layer_id}, input_shapes, 0),
                      &b = support::ShapeAt({kName, layer_id}, input_shapes, 1);
    if (!Multiply(a.dims, trans_a, b.dims, trans_b)) {
      Refuse("%s of layer %s: %s%s and %s%s do not multiply", kName, layer_id.c_str(), DimsText(a.dims).c_str(),
             trans_a ? " turned" : "", DimsText(b.dims).c_str(), trans_b ? " turned" : "");
    }
    TensorShape y = a.dims.size() >= b.dims.size() ? a : b;
    y.dims[y.dims.size() - 2] = static_cast<unsigned int>(Matrix(a.dims, trans_a).rows);
    y.dims.back() = static_cast<unsigned int>(Matrix(b.dims, trans_b).columns);
    return {y};
  }

  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    support::NeedsConfig(kernel);
    support::Who const self(kName, layer_id);
    auto const a = support::Input(self, inputs, 0), b = support::Input(self, inputs, 1);
    auto const y = support::NewOutput(kernel, inputs, context);
    if (support::Count(*y) != 0) Run(*a, *b, *y, *context->device_cpu);
    return support::Give(y, outputs);
  }

  // B is packed, A turned where it has to be, one matrix at a time.
  void Run(runtime::TensorCPU const& a, runtime::TensorCPU const& b, runtime::TensorCPU const& y,
           runtime::DeviceCPU& device) const {
    Matrix const left(a.shape.dims, trans_a), right(b.shape.dims, trans_b);
    std::size_t const k = left.columns, m = left.rows, n = right.columns, count = support::Count(y) / (m * n);
    auto const scratch = [&](std::size_t floats) {
      return device.CreateF32CMainMemory(static_cast<unsigned int>(floats), nullptr);
    };
    auto const packed = scratch(rows::FusedFloats(n, k));
    auto const turned_a = trans_a ? scratch(m * k) : nullptr, turned_b = trans_b ? nullptr : scratch(n * k);
    float const *from_a = a.Data<float>(), *from_b = b.Data<float>();
    float* to = y.Data<float>();
    for (std::size_t i = 0; i < count; ++i, to += m * n) {
      if (i == 0 || b.shape.dims.size() != 2) {
        if (!trans_b) Turn(from_b, k, n, turned_b->Data<float>());
        rows::PackFused(trans_b ? from_b : turned_b->Data<float>(), n, k, packed->Data<float>());
        from_b += right.Elements();
      }
      if (trans_a && (i == 0 || a.shape.dims.size() != 2)) Turn(from_a, k, m, turned_a->Data<float>());
      rows::PackedProduct(
          {packed->Data<float>(), trans_a ? turned_a->Data<float>() : from_a, nullptr, m, n, k, to, n, false});
      if (a.shape.dims.size() != 2) from_a += left.Elements();
      if (alpha != 1.0f) rows::CombineRow(rows::Operation::kMul, {to, false}, {&alpha, true}, m * n, to);
    }
  }

  std::string layer_id;
  bool trans_a = false, trans_b = false;
  float alpha = 1.0f;
};

template OperationPtr MakeOperation<FallbackFullConnectionOperation>();
template OperationPtr MakeOperation<FusedFullConnectionOperation>();
template OperationPtr MakeOperation<RowsFullConnectionOperation>();
template OperationPtr MakeOperation<MatMulOperation>();

#if TALVO_WITH_BLAS
namespace {

void ConnectByBlas(float const* x, std::size_t, std::size_t inputs, std::size_t outputs, float const* weight,
                   float const* bias, float* y) {
  functional::fullconnection_sgemm_c_f32_m1(x, static_cast<unsigned int>(inputs), static_cast<unsigned int>(outputs),
                                            weight, bias, y);
}

}  // namespace

struct SgemmFullConnectionOperation {
  using Body = FullConnection;
  static constexpr char const* kName = "FullConnection_SGEMM_C_Float_M1";
  static constexpr ConnectionForm kForm = {false, false, ConnectByBlas};
};

template OperationPtr MakeOperation<SgemmFullConnectionOperation>();
#endif

}  // namespace talvo::kernel
