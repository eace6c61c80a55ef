// Drawn arguments for the free forms, told apart by signature, and for the layout conversions.
#include <algorithm>
#include <cstring>
#include <type_traits>

#include "certificate/cases.h"
#include "certificate/memory_sanitizer.h"
#include "talvo/kernel/functional/activation.h"
#include "talvo/kernel/functional/elementwise.h"
#include "talvo/kernel/functional/gemm.h"
#include "talvo/kernel/functional/quantisation.h"
#include "talvo/kernel/functional/recurrent.h"
#include "talvo/kernel/functional/structural.h"
#include "talvo/kernel/gemm.h"
#include "talvo/kernel/native/permute.h"
#include "talvo/kernel/native/recurrent.h"
#include "talvo/kernel/native/structural.h"
#include "talvo/kernel/padding.h"
#include "talvo/kernel/sgemm.h"
#include "talvo/transform/element_conversion.h"
#include "talvo/transform/permute.h"
#include "talvo/transform/reshape.h"
#include "talvo/transform/transform_fallback.h"
#include "talvo/utility/base64.h"
#include "talvo/utility/features.h"

namespace talvo::certificate {
namespace {

using namespace kernel::functional;  // NOLINT: some eighty functions of fifteen headers, all listed below
using namespace kernel;              // NOLINT
using DevicePtr = std::shared_ptr<runtime::DeviceCPU>;
using half_float::half;
using Count = unsigned int const&;

constexpr unsigned int kCases = 16;
constexpr auto kFloat = TensorShape::FLOAT32;

DevicePtr const& Device() { return Context()->device_cpu; }

// Rows that hold the filling until they are written.
std::vector<float> BlankRow(std::size_t count) {
  std::vector<float> row(count);
  std::memset(row.data(), FillByte(), count * sizeof(float));
  Uninitialise(row.data(), count * sizeof(float));
  return row;
}

void Add(Digest& digest, std::vector<float> const& row) { digest.Add(row.data(), row.size()); }
void Add(Digest& digest, std::vector<half> const& row) { digest.Add(row.data(), row.size() * sizeof(half)); }
void Add(Digest& digest, TensorPtr const& tensor) {
  Need(tensor != nullptr, "no tensor is made");
  digest.Add(*tensor);
}

// One function for each signature: draws arguments and takes the results.

void Run(void (*f)(float const*, Count, float*), Draw& d, Digest& out) {
  auto const x = d.Floats(d.From(1, 90));
  auto y = BlankRow(x.size());
  f(x.data(), static_cast<unsigned int>(x.size()), y.data());
  Add(out, y);
  auto overlapping = x;  // a result is a later input
  f(overlapping.data(), static_cast<unsigned int>(x.size() - 1), overlapping.data() + 1);
  Add(out, overlapping);
}

void Run(void (*f)(float const*, Count, float const&, float*), Draw& d, Digest& out) {
  auto const x = d.Floats(d.From(1, 90));
  auto y = BlankRow(x.size());
  f(x.data(), static_cast<unsigned int>(x.size()), d.Unit(), y.data());
  Add(out, y);
}

void Run(void (*f)(float const*, Count, float const&, float const&, float*), Draw& d, Digest& out) {
  auto const x = d.Floats(d.From(1, 90));
  float const a = d.Unit(), b = d.Unit();
  auto y = BlankRow(x.size());
  f(x.data(), static_cast<unsigned int>(x.size()), a, b, y.data());
  Add(out, y);
}

void Run(void (*f)(float const*, float const*, Count, float*), Draw& d, Digest& out) {
  auto const a = d.Floats(d.From(1, 90)), b = d.Floats(a.size());
  auto y = BlankRow(a.size());
  f(a.data(), b.data(), static_cast<unsigned int>(a.size()), y.data());
  Add(out, y);
}

void Run(void (*f)(BaseTensorPtr&), Draw& d, Digest& out) {
  BaseTensorPtr x = d.Tensor(d.Plane(2), TensorShape::CHW);
  f(x);
  out.Add(*x);
}

void Run(void (*f)(BaseTensorPtr&, float), Draw& d, Digest& out) {
  BaseTensorPtr x = d.Tensor(d.Plane(2), TensorShape::CHW);
  f(x, d.Unit());
  out.Add(*x);
}

void Run(void (*f)(float const*, float*, Dims, std::vector<short>&), Draw& d, Digest& out) {
  Dims const dims = d.Plane(d.From(1, 9));
  std::vector<short> axes;
  unsigned int const chosen = d.From(1, 7);
  for (unsigned int axis = 0; axis < 3; ++axis)
    if ((chosen >> axis & 1) != 0) axes.push_back(static_cast<short>(axis));
  auto const x = d.Floats(runtime::ElementCount(dims));
  auto y = BlankRow(runtime::ElementCount(ReducedDims(dims, axes)));
  f(x.data(), y.data(), dims, axes);
  Add(out, y);
}

void Run(void (*f)(float const*, Count, Count, float const*, float const*, float*), Draw& d, Digest& out) {
  unsigned int const in = d.From(1, 80), outputs = d.Width();
  auto const x = d.Floats(in), weight = d.Floats(std::size_t{in} * outputs), bias = d.Floats(outputs);
  auto y = BlankRow(outputs);
  f(x.data(), in, outputs, weight.data(), d.Coin() ? bias.data() : nullptr, y.data());
  Add(out, y);
}

// x, h, c and the weights of a cell.
struct CellArguments {
  CellArguments(Draw& d, unsigned int gates) : in(d.From(1, 20)), hidden(d.From(1, 20)), if_bias(d.Below(2)) {
    for (unsigned int const count : {in, hidden, hidden}) inputs.push_back(d.Tensor({count}, TensorShape::C));
    for (unsigned int const count : {in, hidden, 1u}) weights.push_back(d.Tensor({gates * hidden, count}, 0));
    weights.push_back(d.Tensor({gates * hidden}, TensorShape::C));
  }
  unsigned int in, hidden, if_bias;
  std::vector<TensorPtr> inputs, weights;
};

void Run(RnnCell* f, Draw& d, Digest& out) {
  CellArguments const c(d, 1);
  auto const& w = c.weights;
  Add(out, f(c.inputs, c.in, c.hidden, c.if_bias, d.Of({2u, 5u}), w[0], w[1], w[2], w[3], Device()));
}

void Run(LstmCell* f, Draw& d, Digest& out) {
  CellArguments const c(d, 4);
  auto const& w = c.weights;
  for (auto const& y : f(c.inputs, c.in, c.hidden, c.if_bias, w[0], w[1], w[2], w[3], Device())) Add(out, y);
}

void Run(GruCell* f, Draw& d, Digest& out) {
  CellArguments const c(d, 3);
  auto const& w = c.weights;
  Add(out, f(c.inputs, c.in, c.hidden, c.if_bias, w[0], w[1], w[2], w[3], Device()));
}

// The layout that a function takes, and extents of which it makes whole blocks.
TensorPtr Argument(std::string const& name, Draw& d, unsigned int type = 99) {
  if (type == 99) type = d.Of({unsigned{kFloat}, unsigned{TensorShape::INT16}, unsigned{TensorShape::UINT8}});
  auto const has = [&](char const* part) { return name.find(part) != std::string::npos; };
  unsigned int const h = d.From(3, 8), w = d.From(3, 9), c = d.From(1, 9);
  if (has("GNCHW_To_G4") || has("GNCHW_To_G8")) return d.Tensor({8 * c, 1, 1, h, w}, TensorShape::GNCHW, type);
  if (has("GNCHW_Concat")) return d.Tensor({2, d.From(1, 9), c, h, w}, TensorShape::GNCHW, type);
  if (has("GNCHW_To")) return d.Tensor({d.From(1, 2), 16 * d.From(1, 2), 16, h, w}, TensorShape::GNCHW, type);
  if (has("Tensor_NC")) return d.Tensor({8 * c, 8 * h}, TensorShape::GN, type);
  if (has("_C4HW4_Image2D_To")) return d.Tensor({1, c * h, w, 4}, TensorShape::C4HW4, type);
  if (has("Tensor_C4HW4") || has("_MainMemory_C4HW4") || has("Fallback_C4HW4"))
    return d.Tensor({c, h, w, 4}, TensorShape::C4HW4, type);
  if (has("Tensor_C8HW8") || has("_MainMemory_C8HW8") || has("Fallback_C8HW8"))
    return d.Tensor({c, h, w, 8}, TensorShape::C8HW8, type);
  if (has("_CL_")) return d.Tensor({c, w}, TensorShape::CL, type);
  return d.Tensor({c, h, w}, TensorShape::CHW, type, type == kFloat ? short{0} : short{9});
}

template <class F>
Operation Of(std::string const& name, F* f) {
  return {"function/" + name, kCases, [f](Draw& d, Digest& out) { Run(f, d, out); }};
}

// Those whose arguments follow from their names.
Operation Of(std::string const& name, TensorPtr (*f)(TensorPtr, DevicePtr)) {
  return {"function/" + name, kCases, [=](Draw& d, Digest& out) {
            bool const is_layout = name.find("Function_") == 0;
            unsigned int const type = is_layout                                      ? 99
                                      : name.find("Int16_to") != std::string::npos   ? unsigned{TensorShape::INT16}
                                      : name.find("Int8_to") != std::string::npos    ? unsigned{TensorShape::INT8}
                                      : name.find("F16_To_F32") != std::string::npos ? unsigned{TensorShape::FLOAT16}
                                                                                     : unsigned{kFloat};
            Add(out, f(Argument(name, d, type), Device()));
          }};
}

Operation Of(std::string const& name, TensorPtr (*f)(TensorPtr, short, DevicePtr)) {
  return {"function/" + name, kCases, [=](Draw& d, Digest& out) {
            auto const x = Argument(name, d, kFloat);
            Add(out, f(x, static_cast<short>(d.Below(13)), Device()));
          }};
}

struct Borders {
  explicit Borders(Draw& d) : l(d.Below(2)), r(d.Below(2)), t(d.Below(2)), b(d.Below(2)) {}
  unsigned int l, r, t, b;
};

Operation Of(std::string const& name,
             TensorPtr (*f)(TensorPtr, unsigned int, unsigned int, unsigned int, unsigned int, DevicePtr)) {
  return {"function/" + name, kCases, [=](Draw& d, Digest& out) {
            auto const x = Argument(name, d, name.find("Int16") != std::string::npos ? TensorShape::INT16 : kFloat);
            Borders const b(d);
            Add(out, f(x, b.l, b.r, b.t, b.b, Device()));
          }};
}

Operation Of(std::string const& name,
             TensorPtr (*f)(TensorPtr, unsigned int, unsigned int, unsigned int, unsigned int, float, DevicePtr)) {
  return {"function/" + name, kCases, [=](Draw& d, Digest& out) {
            auto const x = Argument(name, d, kFloat);
            Borders const b(d);
            Add(out, f(x, b.l, b.r, b.t, b.b, d.Unit(), Device()));
          }};
}

Operation Of(std::string const& name, TensorPtr (*f)(TensorPtr, unsigned int, unsigned int, float, DevicePtr)) {
  return {"function/" + name, kCases, [=](Draw& d, Digest& out) {
            auto const x = Argument(name, d, kFloat);
            Borders const b(d);
            Add(out, f(x, b.l, b.r, d.Unit(), Device()));
          }};
}

Operation Of(std::string const& name, int (*f)(TensorPtr, TensorPtr)) {
  return {"function/" + name, kCases, [=](Draw& d, Digest& out) {
            auto const x = Argument(name, d, kFloat);
            bool const is_flat = name == "FillBias_MainMemory_Float_Fallback_M1";
            Need(f(x, d.Tensor(is_flat ? x->shape.dims : Dims{1, x->shape.dims[0]}, TensorShape::GN)) == 0, "refused");
            Add(out, x);
          }};
}

Operation Of(std::string const& name, int (*f)(TensorPtr)) {
  return {"function/" + name, kCases, [=](Draw& d, Digest& out) {
            auto const x = Argument(name, d, name.find("Int16") != std::string::npos ? TensorShape::INT16 : kFloat);
            Need(f(x) == 0, "refused");
            Add(out, x);
          }};
}

template <class T>
Operation Of(std::string const& name, std::vector<T> (*f)(std::vector<T>, unsigned int, unsigned int, unsigned int,
                                                          unsigned int, unsigned int, DevicePtr)) {
  return {"function/" + name, kCases, [=](Draw& d, Digest& out) {
            bool const depthwise = name.find("G4NCHW4") != std::string::npos;
            unsigned int const g = depthwise ? 4 * d.From(1, 4) : d.From(1, 2);
            unsigned int const n = depthwise ? 1 : d.From(1, 9), c = depthwise ? 1 : d.From(1, 9), h = d.From(1, 4);
            auto const values = d.Floats(std::size_t{3} * g * n * c * h);
            Add(out, f(std::vector<T>(values.begin(), values.end()), g, n, c, h, 3, Device()));
          }};
}

void RunPermute(Draw& d, Digest& out) {
  unsigned int const bytes = d.From(1, 9);
  auto const x =
      d.Tensor({d.From(1, 5), d.From(1, 9), d.From(1, 9), bytes}, TensorShape::FLEXIABLE, TensorShape::UINT8);
  Dims dims = x->shape.dims, axes = {0, 1, 2};
  dims.pop_back();
  for (unsigned int last = 2; last != 0; --last) std::swap(axes[last], axes[d.Below(last + 1)]);
  auto const y = Blank(x->shape.dims, TensorShape::FLEXIABLE, TensorShape::UINT8);
  native::Transform_MainMemory_Permute_Fallback(x->data, dims, bytes, axes, y->data);
  Add(out, y);
  axes.push_back(3);
  Add(out, functional::Transform_MainMemory_Permute_Fallback(x, axes, Device()));
  Add(out, x->Permute(axes));
  Add(out, x->Reshape({-1, static_cast<int>(bytes)}));
  Add(out, functional::Transform_MainMemory_Reshape_Fallback(x, {static_cast<int>(bytes), -1}, Device()));
}

void RunConcatenate(Draw& d, Digest& out) {
  unsigned int const axis = d.Below(3), bytes = d.From(1, 9);
  Dims dims = d.Plane(2);
  dims.push_back(bytes);
  std::vector<void const*> memory;
  std::vector<Dims> all_dims;
  Tensors sources;
  Dims joined = dims;
  joined[axis] = 0;
  for (unsigned int count = d.From(2, 4); count != 0; --count) {
    dims[axis] = d.From(1, 6);
    joined[axis] += dims[axis];
    sources.push_back(d.Tensor(dims, TensorShape::FLEXIABLE, TensorShape::UINT8));
    memory.push_back(sources.back()->data);
    all_dims.emplace_back(dims.begin(), dims.end() - 1);
  }
  auto const y = Blank(joined, TensorShape::FLEXIABLE, TensorShape::UINT8);
  native::Concatenate_MainMemory_Fallback(memory, all_dims, bytes, axis, y->data);
  Add(out, y);
  Add(out, functional::Concatenate_MainMemory_Fallback(sources, axis, Device()));
}

void RunSlice(Draw& d, Digest& out) {
  auto const x = d.Tensor({4, 9, 20}, TensorShape::CHW);
  auto const begin = static_cast<short>(d.Below(3)), step = static_cast<short>(d.From(1, 3));
  auto const end = static_cast<short>(begin + 2 * step);
  auto const y = Blank({2, 2, 2}, TensorShape::CHW);
  Function_TensorSlice_Fallback_CHW_Float_M1(x, {0, 2, 1, begin, end, step, begin, end, step}, y);
  Add(out, y);
  auto const planes = Blank({4, d.From(1, 5), d.Width()}, TensorShape::CHW);
  Function_TensorExpand_Fallback_CHW_Float_M1(d.Tensor({4, 1, 1}, TensorShape::CHW), planes);
  Add(out, planes);
}

void RunNativeLstm(Draw& d, Digest& out) {
  unsigned int const steps = d.From(1, 4), in = d.From(1, 9), hidden = d.Width(), layers = d.From(1, 2);
  auto x = d.Floats(std::size_t{steps} * in), h = d.Floats(std::size_t{layers} * hidden), c = d.Floats(h.size());
  auto y = BlankRow(std::size_t{steps} * hidden);
  std::vector<std::vector<float>> rows;
  std::vector<float*> weights[4];
  for (unsigned int layer = 0; layer < layers; ++layer)
    for (unsigned int const columns : {layer == 0 ? in : hidden, hidden, 1u, 1u})
      rows.push_back(d.Floats(std::size_t{4} * hidden * columns));
  for (std::size_t i = 0; i < rows.size(); ++i) weights[i % 4].push_back(rows[i].data());
  native::lstm_arm_sc_f32_m1(x.data(), h.data(), c.data(), y.data(), steps, in, hidden, layers, 1, d.Coin(), false,
                             weights[0], weights[1], weights[2], weights[3]);
  for (auto const* row : {&y, &h, &c}) Add(out, *row);
}

void RunElementConversions(Draw& d, Digest& out) {
  auto const x = d.Floats(d.From(1, 70));
  auto const halves = FloatArray_To_HalfArray_Fallback(x);
  std::string const bytes = FloatArrayToByteArrayFallback(x);
  Add(out, halves);
  Add(out, HalfArray_To_FloatArray_Fallback(halves));
  Add(out, ByteArray_To_FloatArray_Fallback(bytes));
  Add(out, ByteArray_To_HalfArray_Fallback(bytes));
  std::vector<half> native_halves(x.size());
  auto y = BlankRow(x.size());
  native::Transform_MainMemory_F32_To_F16_Fallback(x.data(), static_cast<unsigned int>(x.size()), native_halves.data());
  native::Transform_MainMemory_F16_To_F32_Fallback(native_halves.data(), static_cast<unsigned int>(x.size()), y.data());
  Add(out, y);
}

void RunBase64(Draw& d, Digest& out) {
  auto const x = d.Tensor({d.From(1, 200)}, TensorShape::C, TensorShape::UINT8);
  std::string const text = runtime::Base64Encode(x->Data<unsigned char>(), x->shape.dims[0]);
  out.Add(text);
  out.Add(runtime::Base64Decode(text));
}

#if TALVO_WITH_BLAS
void RunMatrixProduct(Draw& d, Digest& out) {
  unsigned int const m = d.From(1, 20), k = d.From(1, 40), n = d.Width();
  auto const a = d.Tensor({m, k}, TensorShape::GN), b = d.Tensor({k, 1, n}, TensorShape::CHW);
  auto y = d.Floats(std::size_t{m} * n);
  Sgemm(static_cast<int>(m), static_cast<int>(k), static_cast<int>(n), 1.0f, a->Data<float>(), b->Data<float>(), 1.0f,
        y.data());
  Add(out, y);
  auto const planes = Blank({m, 1, n}, TensorShape::CHW);
  Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1_Convolution(b, planes, a);
  Add(out, planes);
}
#endif

void RunImageToPlanes(Draw& d, Digest& out) {
  unsigned int const h = d.From(1, 5), w = d.From(1, 9), blocks = d.From(1, 4);
  auto const x = d.Tensor({1, h * blocks, w, 4}, TensorShape::C4HW4, TensorShape::INT16);
  Add(out, Function_Tensor_C4HW4_Image2D_To_CHW_Fallback(x, static_cast<int>(w), static_cast<int>(h), Device()));
}

void RunConcatValue(Draw& d, Digest& out) {
  auto const x = Argument("GNCHW_Concat", d);
  Add(out, Function_Tensor_GNCHW_Concat_Value(x, static_cast<float>(d.Below(3)), Device()));
}

}  // namespace

#define TALVO_OF(f) Of(#f, f)
#define TALVO_PACKING(to) Of("Function_Tensor_GNCHW_To_" #to "_Fallback", Function_Tensor_GNCHW_To_##to##_Fallback)

std::vector<Operation> Functions() {
  return {TALVO_OF(relu_f32),
          TALVO_OF(relu6_f32),
          TALVO_OF(sigmoid_f32),
          TALVO_OF(tanh_f32),
          TALVO_OF(hsigmoid_f32),
          TALVO_OF(hswish_f32),
          TALVO_OF(leaky_f32),
          TALVO_OF(linear_f32),
          TALVO_OF(sqrt_f32),
          TALVO_OF(log_f32),
          TALVO_OF(erf_f32),
          TALVO_OF(clip_f32),
          TALVO_OF(Sigmoid_F32_M2),
          TALVO_OF(PReLU_F32),
          TALVO_OF(elementwise_add_f32_m1),
          TALVO_OF(elementwise_sub_f32_m1),
          TALVO_OF(elementwise_mul_f32_m1),
          TALVO_OF(Function_TensorTensorArithmetic_Sum_Fallback_Float_M1),
          TALVO_OF(Function_TensorTensorArithmetic_Mean_Fallback_Float_M1),
          TALVO_OF(fullconnection_fallback_c_f32_m1),
          TALVO_OF(functional::RNNCell_Fallback_C_F32_M1),
          TALVO_OF(functional::RNNCell_ARM_C_F32_M1),
          TALVO_OF(functional::LSTMCell_Fallback_C_F32_M1),
          TALVO_OF(functional::LSTMCell_ARM_C_F32_M1),
          TALVO_OF(functional::GRUCell_Fallback_C_F32_M1),
          TALVO_OF(functional::GRUCell_ARM_C_F32_M1),
          TALVO_OF(functional::Quantitation_MainMemory_Float_to_Int16_Fallback_M1),
          TALVO_OF(functional::Quantitation_MainMemory_Float_to_Int8_Fallback_M1),
          TALVO_OF(functional::Dequantitation_MainMemory_Int16_to_Float_Fallback_M1),
          TALVO_OF(functional::Dequantitation_MainMemory_Int8_to_Float_Fallback_M1),
          TALVO_OF(functional::Transform_MainMemory_F32_To_F16_Fallback),
          TALVO_OF(functional::Transform_MainMemory_F16_To_F32_Fallback),
          TALVO_OF(Padding_HW_MainMemory_CHW_Float_Fallback_M1),
          TALVO_OF(Padding_HW_MainMemory_CHW_Zero_Fallback_M1),
          TALVO_OF(Padding_L_MainMemory_CL_Float_Fallback_M1),
          TALVO_OF(ZeroPadding_HW_MainMemory_CHW_Int16_Fallback_M1),
          TALVO_OF(ZeroPadding_HW_MainMemory_C4HW4_Int16_Fallback_M1),
          TALVO_OF(ZeroPadding_HW_MainMemory_C8HW8_Int16_Fallback_M1),
          TALVO_OF(Cutting_HW_MainMemory_Fallback_CHW_Float_M1),
          TALVO_OF(Cutting_HW_MainMemory_Fallback_C4HW4_Float_M1),
          TALVO_OF(Cutting_HW_MainMemory_Fallback_C8HW8_Float_M1),
          TALVO_OF(Cut_HW_MainMemory_CHW_Float_M1),
          TALVO_OF(ADDBias_MainMemory_CHW_Float_Fallback_M1),
          TALVO_OF(FillBias_MainMemory_CHW_Float_Fallback_M1),
          TALVO_OF(FillBias_MainMemory_CL_Float_Fallback_M1),
          TALVO_OF(FillBias_MainMemory_Float_Fallback_M1),
          TALVO_OF(FillZero_MainMemory_Float_Fallback_M1),
          TALVO_OF(FillZero_MainMemory_Int16_Fallback_M1),
          TALVO_OF(Function_Tensor_CHW_To_C4HW4_Fallback),
          TALVO_OF(Function_Tensor_CHW_To_C8HW8_Fallback),
          TALVO_OF(Function_Tensor_C4HW4_To_CHW_Fallback),
          TALVO_OF(Function_Tensor_C8HW8_To_CHW_Fallback),
          TALVO_OF(Function_Tensor_CHW_To_C4HW4_Image2D_Fallback),
          TALVO_PACKING(GN4C4HW4n4c),
          TALVO_PACKING(GN4C4HW4c4n),
          TALVO_PACKING(GN8C8HW8n8c),
          TALVO_PACKING(GN8C8HW8c8n),
          TALVO_PACKING(GN4C8HW4n8c),
          TALVO_PACKING(GN8C4HW8n4c),
          TALVO_PACKING(GN4C8HW8c4n),
          TALVO_PACKING(GN2C2HW2c2n),
          TALVO_PACKING(GN16C16HW16c16n),
          TALVO_PACKING(GN4CHW4),
          TALVO_PACKING(GN8CHW8),
          TALVO_PACKING(GNC8HW8),
          TALVO_PACKING(GCNHW),
          TALVO_PACKING(GHWN4C44c4n),
          TALVO_PACKING(GC4N4HW4c4n),
          TALVO_PACKING(G4NCHW4),
          TALVO_PACKING(G8NCHW8),
          TALVO_OF(Function_Tensor_NC_To_N8C88c8n_Fallback),
          TALVO_OF(Function_FloatArray_GNCHW_To_GN4C4HW4c4n_Fallback),
          TALVO_OF(Function_HalfArray_GNCHW_To_GN4C4HW4c4n_Fallback),
          TALVO_OF(Function_FloatArray_GNCHW_To_GC4N4HW4c4n_Fallback),
          TALVO_OF(Function_FloatArray_GNCHW_To_GHWN4C44c4n_Fallback),
          TALVO_OF(Function_FloatArray_GNCHW_To_G4NCHW4_Fallback),
          TALVO_OF(Function_HalfArray_GNCHW_To_G4NCHW4_Fallback),
          {"function/Function_Tensor_C4HW4_Image2D_To_CHW_Fallback", kCases, RunImageToPlanes},
          {"function/Function_Tensor_GNCHW_Concat_Value", kCases, RunConcatValue},
          {"function/permute", kCases, RunPermute},
          {"function/concatenate", kCases, RunConcatenate},
          {"function/slice_and_expand", kCases, RunSlice},
          {"function/native::lstm_arm_sc_f32_m1", kCases, RunNativeLstm},
          {"function/element_conversion", kCases, RunElementConversions},
          {"function/base64", kCases, RunBase64}
#if TALVO_WITH_BLAS
          ,
          TALVO_OF(fullconnection_sgemm_c_f32_m1),
          TALVO_OF(functional::RNNCell_SGEMM_C_F32_M1),
          TALVO_OF(functional::LSTMCell_SGEMM_C_F32_M1),
          TALVO_OF(functional::GRUCell_SGEMM_C_F32_M1),
          {"function/matrix_product", kCases, RunMatrixProduct}
#endif
  };
}

}  // namespace talvo::certificate
