#include <cstdint>
#include <vector>

#include "talvo/kernel/gemm.h"
#include "talvo/kernel/kernel_of_support.h"
#include "talvo/kernel/padding.h"
#include "talvo/kernel/sgemm.h"
#include "talvo/serialization/layer_info_conv.h"
#include "talvo/utility/base64.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::kernel {

using runtime::DimsText;
using runtime::IKernel;
using runtime::TensorCPU;
using runtime::TensorShape;
using support::ContextPtr;
using support::LayerPtr;
using support::ParamPtr;
using support::Shapes;
using support::Tensors;
using utility::Refuse;

namespace {

constexpr char const* kProduct = "Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1_Convolution";

bool IsPointwise(runtime::Conv2dInfo const& info) {
  bool const unit = info.kernel_x == 1 && info.kernel_y == 1 && info.stride_x == 1 && info.stride_y == 1 &&
                    info.dilation_x == 1 && info.dilation_y == 1;
  bool const padded = info.padding_l != 0 || info.padding_t != 0 || info.padding_r != 0 || info.padding_b != 0;
  return unit && !padded && info.in_channels != 0 && info.out_channels != 0 && info.groups != 0;
}

int JudgePlanes(Tensors const& tensors, bool half_too) {
  return support::Judge(tensors, 1, [half_too](runtime::Tensor const& tensor) {
    return support::IsInMainMemory(tensor, TensorShape::FLOAT32, TensorShape::CHW) ||
           (half_too && support::IsInMainMemory(tensor, TensorShape::FLOAT16, TensorShape::CHW));
  });
}

}  // namespace

// The leading dimension of a row-major operand is its own extent: the input's planes may lie farther apart than the
// output's only where the product reads past their ends, which is why bytes are compared and not extents.
void Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1_Convolution(support::TensorPtr input, support::TensorPtr output,
                                                             support::TensorPtr weight) {
  support::CheckTensor(kProduct, "input", input.get(), {0, 3});
  support::CheckTensor(kProduct, "output", output.get(), {0, 3});
  support::CheckTensor(kProduct, "weight", weight.get(), {0});
  auto const &x = input->shape.dims, &y = output->shape.dims;
  if (support::Count(*output) == 0) return;
  std::uint64_t const m = y[0], k = x[0], n = std::uint64_t{y[1]} * y[2];
  auto const holds = [](TensorCPU const& tensor, std::uint64_t floats) {
    return runtime::ByteCount(tensor.shape) / sizeof(float) >= floats;
  };
  if (!holds(*weight, m * k) || !holds(*input, k * n) || !holds(*output, m * n)) {
    Refuse("%s: input %s, output %s and weight %s of data types %u, %u and %u do not hold a product of %u x %u x %u",
           kProduct, DimsText(x).c_str(), DimsText(y).c_str(), DimsText(weight->shape.dims).c_str(),
           input->shape.data_type, output->shape.data_type, weight->shape.data_type, y[0], x[0], y[1] * y[2]);
  }
  Sgemm(static_cast<int>(m), static_cast<int>(k), static_cast<int>(n), 1.0f, weight->Data<float>(),
        input->Data<float>(), 0.0f, output->Data<float>());
}

struct PointwiseOperation : support::Strict<runtime::Conv2dInfo> {
  static constexpr char const* kName = "Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1";

  int IsValidParam(LayerPtr const& layer, ParamPtr const& param) const override {
    auto const* const info = dynamic_cast<runtime::Conv2dInfo const*>(layer.get());
    return param == nullptr && info != nullptr && IsPointwise(*info) ? 0 : -1;
  }

  bool Config(LayerPtr const& layer, ParamPtr const&, ContextPtr const& context) override {
    auto const& info = support::As<runtime::Conv2dInfo>(kName, layer);
    layer_id = info.id;
    out_channels = info.out_channels;
    weight =
        support::DecodeWeights(kName, layer_id, "weight", info.weight, WeightDims(info), TensorShape::GNCHW, context);
    bias = info.if_bias ? support::DecodeWeights(kName, layer_id, "bias", info.bias,
                                                 {info.groups, out_channels / info.groups}, TensorShape::GN, context)
                        : nullptr;
    return true;
  }

  // The product takes the weights for one dense matrix, whatever the groups. A text that holds the matrix gives all of
  // it, another the weights of a grouped convolution, which serve as many channels as they have values for.
  static std::vector<unsigned int> WeightDims(runtime::Conv2dInfo const& info) {
    unsigned int const groups = info.groups, out = info.out_channels, in = info.in_channels;
    std::size_t const dense_bytes = sizeof(float) * out * in;
    if (groups == 1 || runtime::Base64Decode(info.weight).size() >= dense_bytes) return {1, out, in, 1, 1};
    return {groups, out / groups, in / groups, 1, 1};
  }

  // (H + 0 + 0 - 1 * (1 - 1) - 1) / 1 + 1 is H, and 0 for 0 in arithmetic that wraps.
  Shapes GetOutputShapes(Shapes const& input_shapes) const override {
    TensorShape const& input = support::ShapeAt(kName, input_shapes, 0, 3);
    return support::OneShape({out_channels, input.dims[1], input.dims[2]}, input.data_type, input.layout,
                             input.location);
  }

  int IsValidInput(Tensors const& inputs) const override { return JudgePlanes(inputs, true); }
  int IsValidOutput(Tensors const& outputs) const override { return JudgePlanes(outputs, false); }

  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    support::NeedsConfig(kernel);
    auto const x = support::Input({kName, layer_id}, inputs, 0, 3);
    auto const y = support::NewOutput(kernel, inputs, context);
    CheckFit(*x, *y);
    Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1_Convolution(x, y, weight);
    if (bias != nullptr) ADDBias_MainMemory_CHW_Float_Fallback_M1(y, bias);
    return support::Give(y, outputs);
  }

  // Refuses a product that reads behind the weights, and a bias that the groups leave too short.
  void CheckFit(TensorCPU const& input, TensorCPU const& output) const {
    std::uint64_t const read = std::uint64_t{input.shape.dims[0]} * out_channels;
    if (support::Count(output) > 0 && read > support::Count(*weight)) {
      Refuse("%s of layer %s: input 0 has dims %s, %u output channels need %llu weights, %zu are there", kName,
             layer_id.c_str(), DimsText(input.shape.dims).c_str(), out_channels, static_cast<unsigned long long>(read),
             support::Count(*weight));
    }
    if (bias != nullptr && support::Count(*bias) != out_channels) {
      Refuse("%s of layer %s: the bias has %zu values, needs %u", kName, layer_id.c_str(), support::Count(*bias),
             out_channels);
    }
  }

  std::string layer_id;
  unsigned int out_channels = 0;
  support::TensorPtr weight, bias;  // [1, out, in, 1, 1] or as grouped; [groups, out / groups], null without bias
};

template OperationPtr MakeOperation<PointwiseOperation>();

}  // namespace talvo::kernel
