// Direct convolution: each shape beside the core's rate of multiplications and additions, unfused for the Fallback
// kernels and fused for the Fused ones. An operation is one multiplication or one addition of the plain loops.
#include "talvo/kernel/convolution.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "bench/yardsticks.h"
#include "talvo/entry/create_context.h"
#include "talvo/kernel/convolution_support.h"
#include "talvo/kernel/rows/instruction_sets.h"
#include "talvo/runtime/context.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/serialization/layer_info_conv.h"
#include "talvo/utility/base64.h"

namespace talvo {
namespace {

using runtime::TensorShape;

struct Shape {
  char const* name;
  unsigned short in, out, extent, kernel, stride, padding, groups;
  short after;  // right and bottom, where they differ from left and top; -1 for the same
};

std::string Weights(std::size_t count) {
  std::vector<float> values(count);
  for (std::size_t i = 0; i < count; ++i) values[i] = static_cast<float>(i % 251) * 0x1p-8f - 0.5f;
  return runtime::Base64Encode(reinterpret_cast<unsigned char const*>(values.data()), count * sizeof(float));
}

template <class Info>
std::shared_ptr<Info> PlaneInfo(Shape const& s) {
  auto info = std::make_shared<Info>();
  auto const after = static_cast<unsigned short>(s.after < 0 ? s.padding : s.after);
  info->in_channels = s.in, info->out_channels = s.out, info->groups = s.groups;
  info->kernel_x = info->kernel_y = s.kernel, info->stride_x = info->stride_y = s.stride;
  info->dilation_x = info->dilation_y = 1;
  info->padding_l = info->padding_t = static_cast<decltype(info->padding_l)>(s.padding);
  info->padding_r = info->padding_b = static_cast<decltype(info->padding_l)>(after);
  info->if_bias = true;
  info->weight = Weights(std::size_t{s.in} * s.out / s.groups * s.kernel * s.kernel);
  info->bias = Weights(s.out);
  return info;
}

std::shared_ptr<runtime::Conv1dInfo> RowInfo(Shape const& s) {
  auto info = std::make_shared<runtime::Conv1dInfo>();
  info->in_channels = s.in, info->out_channels = s.out, info->groups = s.groups, info->kernel_size = s.kernel;
  info->stride = s.stride, info->padding_f = info->padding_b = s.padding, info->if_bias = true;
  info->weight = Weights(std::size_t{s.in} * s.out / s.groups * s.kernel);
  info->bias = Weights(s.out);
  return info;
}

// Runs a kernel as a net does, with its tensors from the dynamic pool. `products` are those of the plain loops.
template <class Kernel>
void Run(benchmark::State& state, std::shared_ptr<runtime::LayerInfo> const& layer, TensorShape const& input_shape,
         double products) {
  std::shared_ptr<runtime::Context> context;
  utility::create_context(context, 64);
  Kernel kernel;
  if (!kernel.Config(layer, nullptr, context)) return state.SkipWithError("the layer is refused");
  std::vector<float> const values(runtime::ElementCount(input_shape.dims), 0.25f);
  std::vector<std::shared_ptr<runtime::Tensor>> const inputs = {
      context->device_cpu->CreateTensor(input_shape, values.data())};
  context->device_cpu->use_dynamic_pool = true;
  for (auto _ : state) {
    std::vector<std::shared_ptr<runtime::Tensor>> outputs;
    kernel.Forward(inputs, outputs, context);
    benchmark::DoNotOptimize(outputs[0]->data);
  }
  bool const fused = kernel.GetName().find("Fused") != std::string::npos;
  (fused ? bench::ReportFusedOperations : bench::ReportOperations)(state, 2.0 * products);
}

TensorShape InputShape(std::vector<unsigned int> dims, unsigned int layout) {
  return TensorShape(std::move(dims), TensorShape::FLOAT32, layout, TensorShape::MainMemory, TensorShape::Extra());
}

template <class Kernel>
void Direct(benchmark::State& state, Shape const& s) {
  double const extent = (s.extent + 2 * s.padding - s.kernel) / s.stride + 1;
  Run<Kernel>(state, PlaneInfo<runtime::Conv2dInfo>(s), InputShape({s.in, s.extent, s.extent}, TensorShape::CHW),
              extent * extent * s.kernel * s.kernel * s.in * s.out / s.groups);
}

template <class Kernel>
void Row(benchmark::State& state, Shape const& s) {
  double const extent = (s.extent + 2 * s.padding - s.kernel) / s.stride + 1;
  Run<Kernel>(state, RowInfo(s), InputShape({s.in, s.extent}, TensorShape::CL),
              extent * s.kernel * s.in * s.out / s.groups);
}

template <class Kernel>
void Transposed(benchmark::State& state, Shape const& s) {
  Run<Kernel>(state, PlaneInfo<runtime::ConvTranspose2dInfo>(s),
              InputShape({s.in, s.extent, s.extent}, TensorShape::CHW),
              1.0 * s.extent * s.extent * s.kernel * s.kernel * s.in * s.out / s.groups);
}

// Packing of the weights of a Fused kernel, beside a copy of them.
void Pack(benchmark::State& state, Shape const& s,
          void (*pack)(kernel::ConvolutionShape const&, float const*, float*)) {
  kernel::ConvolutionShape shape{};
  shape.groups = s.groups, shape.in_per_group = s.in, shape.out_per_group = s.out;
  shape.kernel_y = shape.kernel_x = s.kernel;
  std::size_t const count = std::size_t{s.in} * s.out * shape.Taps();
  std::vector<float> const weights(count, 0.25f);
  std::vector<float> packed(kernel::FusedConvolutionFloats(shape));
  for (auto _ : state) {
    pack(shape, weights.data(), packed.data());
    benchmark::DoNotOptimize(packed.data());
  }
  bench::ReportCopies(state, count * sizeof(float));
}

constexpr Shape kDirect[] = {{"3x3/64_to_64_at_56", 64, 64, 56, 3, 1, 1, 1, -1},
                             {"3x3/128_to_128_at_28", 128, 128, 28, 3, 1, 1, 1, -1},
                             {"5x5/32_to_32_at_56", 32, 32, 56, 5, 1, 2, 1, -1},
                             {"3x3/256_to_256_at_14", 256, 256, 14, 3, 1, 1, 1, -1},
                             {"3x3/512_to_512_at_7", 512, 512, 7, 3, 1, 1, 1, -1},
                             {"3x3_stride_2/3_to_32_at_224", 3, 32, 224, 3, 2, 1, 1, -1},
                             {"depthwise_3x3/128_at_56", 128, 128, 56, 3, 1, 1, 128, -1},
                             {"depthwise_3x3_stride_2/128_at_56", 128, 128, 56, 3, 2, 1, 128, -1},
                             {"1x1/64_to_128_at_56", 64, 128, 56, 1, 1, 0, 1, -1},
                             {"1x1/128_to_256_at_28", 128, 256, 28, 1, 1, 0, 1, -1},
                             {"1x1/960_to_240_at_1", 960, 240, 1, 1, 1, 0, 1, -1},
                             {"depthwise_5x5/96_at_14", 96, 96, 14, 5, 1, 2, 96, -1},
                             {"3x3_groups_of_4/64_to_64_at_28", 64, 64, 28, 3, 1, 1, 16, -1},
                             {"3x3/64_to_1_at_56", 64, 1, 56, 3, 1, 1, 1, -1},
                             {"7x7_stride_2/3_to_64_at_224", 3, 64, 224, 7, 2, 3, 1, -1}};
constexpr Shape kRow = {"k3/128_to_128_length_400", 128, 128, 400, 3, 1, 1, 1, -1};
constexpr Shape kPacked[] = {{"3x3/64_to_64", 64, 64, 1, 3, 1, 0, 1, -1},
                             {"3x3/512_to_512", 512, 512, 1, 3, 1, 0, 1, -1},
                             {"1x1/512_to_512", 512, 512, 1, 1, 1, 0, 1, -1}};
constexpr Shape kTransposed[] = {{"2x2_stride_2/64_to_32_at_56", 64, 32, 56, 2, 2, 1, 1, 0},
                                 {"4x4_stride_2/64_to_32_at_28", 64, 32, 28, 4, 2, 2, 1, 1},
                                 {"4x4_stride_2/64_to_3_at_128", 64, 3, 128, 4, 2, 2, 1, 1},
                                 {"2x2_stride_2/32_to_8_at_28", 32, 8, 28, 2, 2, 1, 1, 0},
                                 {"4x4_stride_2/16_to_1_at_128", 16, 1, 128, 4, 2, 2, 1, 1}};

void Add(std::string const& name, Shape const& shape, void (*fallback)(benchmark::State&, Shape const&),
         void (*fused)(benchmark::State&, Shape const&)) {
  benchmark::RegisterBenchmark((name + shape.name).c_str(), fallback, shape);
  benchmark::RegisterBenchmark((name + shape.name + "/fused").c_str(), fused, shape);
}

void Register() {
  using namespace kernel;
  for (Shape const& s : kDirect) {
    Add("Conv2D/", s, Direct<Conv2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1>,
        Direct<Conv2D_Knxm_Snxm_Dnxm_Gn_Fused_CHW_Float_M1>);
  }
  Add("Conv1D/", kRow, Row<Conv1D_Kn_Sn_Dn_Gn_Fallback_CL_Float_M1>, Row<Conv1D_Kn_Sn_Dn_Gn_Fused_CL_Float_M1>);
  for (Shape const& s : kTransposed) {
    Add("ConvTranspose2D/", s, Transposed<ConvTranspose2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1>,
        Transposed<ConvTranspose2D_Knxm_Snxm_Dnxm_Gn_Fused_CHW_Float_M1>);
  }
  for (Shape const& s : kPacked) {
    benchmark::RegisterBenchmark((std::string("Pack/") + s.name).c_str(), Pack, s, PackFusedDirect);
    benchmark::RegisterBenchmark((std::string("PackTransposed/") + s.name).c_str(), Pack, s, PackFusedTransposed);
  }
}

}  // namespace
}  // namespace talvo

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  std::printf("instruction set %s, unfused rate %.1f G/s, fused rate %.1f G/s\n",
              talvo::kernel::rows::NameOf(talvo::kernel::rows::ActiveSet()), talvo::bench::UnfusedRate() * 1e-9,
              talvo::bench::FusedRate() * 1e-9);
  talvo::Register();
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
