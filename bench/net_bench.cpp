// Whole nets of published shapes with random weights, built from records, with portable kernels alone, with the matrix
// product where it fits, and with fused kernels where there are any; and the construction of a net. Operations are the
// multiplications and additions of convolutions and full connections; the time of all other layers counts against them.
#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "bench/blas_in_use.h"
#include "bench/yardsticks.h"
#include "talvo/entry/create_context.h"
#include "talvo/entry/model.h"
#include "talvo/entry/register_fused_operators.h"
#include "talvo/entry/register_operators.h"
#include "talvo/runtime/create_net.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/serialization/layer_info_activation.h"
#include "talvo/serialization/layer_info_conv.h"
#include "talvo/serialization/layer_info_plane.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "talvo/utility/base64.h"
#include "tests/support/model_builder.h"

namespace talvo::bench {
namespace {

using namespace talvo::runtime;
using Short = unsigned short;

enum Family { kPortable, kSgemm, kFused };

// Layers one after the other on square planes; `last` is the id of the newest, `channels` and `extent` its shape.
class NetBuilder {
 public:
  NetBuilder(Short input_channels, Short input_extent, Family family)
      : channels(input_channels), extent(input_extent), family_(family) {
    builder_.AddInput("input");
  }

  void Convolve(Short out, Short kernel, Short stride = 1, Short groups = 1) {
    bool const pointwise = kernel == 1 && stride == 1 && groups == 1;
    auto& info =
        Add<Conv2dInfo>({last}, pointwise && family_ == kSgemm ? "Conv2d_K1x1_S1x1_D1x1_G1_SGEMM_CHW_FLOAT_M1"
                                                               : "Conv2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1");
    info.padding_l = info.padding_t = info.padding_r = info.padding_b = static_cast<Short>(kernel / 2);
    extent = static_cast<Short>((extent + 2 * (kernel / 2) - kernel) / stride + 1);
    Fill(info, out, kernel, stride, groups, std::size_t{extent} * extent);
  }

  // Doubles the extents.
  void ConvolveTransposed(Short out) {
    auto& info = Add<ConvTranspose2dInfo>({last}, "ConvTranspose2D_Knxm_Snxm_Dnxm_Gn_Fallback_CHW_Float_M1");
    info.padding_l = info.padding_t = 1;
    Fill(info, out, 2, 2, 1, std::size_t{extent} * extent);
    extent = static_cast<Short>(2 * extent);
  }

  void Activate(char const* kernel) { Add<ActivationInfo>({last}, kernel); }

  void PoolByMaximum(Short kernel, Short stride, short padding) {
    auto& info = Add<MaxPool2dInfo>({last}, "Pooling2D_Max_Fallback_Float_M1");
    info.kernel_x = info.kernel_y = kernel;
    info.stride_x = info.stride_y = stride;
    info.dilation_x = info.dilation_y = 1;
    info.padding_l = info.padding_t = info.padding_r = info.padding_b = padding;
    extent = static_cast<Short>((extent + 2 * padding - kernel) / stride + 1);
  }

  void AddElements(std::string const& other) {
    Add<ElementWiseOperatorInfo>({last, other}, "Elementwise_Fallback_Float_M1");
  }

  void Concatenate(std::string const& other, Short other_channels) {
    Add<ConcatenateInfo>({last, other}, "Concatenate_C_Fallback_CnHWn_M1").dim = 1;
    channels = static_cast<Short>(channels + other_channels);
  }

  void Classify(Short classes) {
    auto& mean = Add<TensorArithmeticInfo>({last}, "TensorArithmetic_Fallback_M1");
    mean.dim = {2, 3};
    mean.arith_type = 1;
    Fully(classes);
    Add<SoftmaxInfo>({last}, "Softmax_Fallback_Float_M1").dim = 1;
  }

  std::shared_ptr<Net> Build(std::shared_ptr<Context> const& context) const {
    ClassRegistry<std::shared_ptr<IKernel>> kernels;
    ClassRegistry<std::shared_ptr<InferenceParam>> params;
    utility::init_register_operators(kernels, params);
    utility::init_register_fused_operators(kernels);
    if (family_ == kFused) utility::PreferFusedKernels(*builder_.config);
    return CreateNet(builder_.model, builder_.config, kernels, context);
  }

  std::string last = "input";
  Short channels, extent;
  std::int64_t operations = 0;

 private:
  template <class Info>
  Info& Add(std::vector<std::string> const& inputs, char const* kernel) {
    last = std::to_string(builder_.model->squential_ids.size());
    return builder_.Add<Info>(last, inputs, kernel);
  }

  // Seeded, of a spread that keeps the size of the activations.
  std::string Weights(std::size_t count, std::size_t products) {
    float const spread = std::sqrt(6.0f / static_cast<float>(products));
    std::vector<float> values(count);
    for (float& value : values) {
      state_ = state_ * 1664525u + 1013904223u;
      value = (static_cast<float>(state_ >> 8) * 0x1p-23f - 1.0f) * spread;
    }
    return Base64Encode(reinterpret_cast<unsigned char const*>(values.data()), count * sizeof(float));
  }

  // `positions`: how often each weight is used.
  template <class Info>
  void Fill(Info& info, Short out, Short kernel, Short stride, Short groups, std::size_t positions) {
    std::size_t const products = std::size_t{channels} / groups * kernel * kernel;
    info.in_channels = channels;
    info.out_channels = out;
    info.kernel_x = info.kernel_y = kernel;
    info.stride_x = info.stride_y = stride;
    info.dilation_x = info.dilation_y = 1;
    info.groups = groups;
    info.weight = Weights(out * products, products);
    operations += static_cast<std::int64_t>(2 * out * products * positions);
    channels = out;
  }

  void Fully(Short out) {
    auto& info = Add<FullConnectionInfo>(
        {last}, family_ == kSgemm ? "FullConnection_SGEMM_C_Float_M1" : "FullConnection_Fallback_C_Float_M1");
    info.in_features = channels;
    info.out_features = out;
    info.weight = Weights(std::size_t{channels} * out, channels);
    operations += std::int64_t{2} * channels * out;
    channels = out;
  }

  Family const family_;
  test::ModelBuilder builder_;
  std::uint32_t state_ = 1;
};

// Depthwise and pointwise convolutions in turn, 3 x 224 x 224.
NetBuilder MobileLike(Family family) {
  constexpr char kActivation[] = "ReLU6_Fallback_Float_M1";
  struct Block {
    Short out, stride;
  };
  NetBuilder net(3, 224, family);
  net.Convolve(32, 3, 2);
  net.Activate(kActivation);
  for (Block const& block : {Block{64, 1},
                             {128, 2},
                             {128, 1},
                             {256, 2},
                             {256, 1},
                             {512, 2},
                             {512, 1},
                             {512, 1},
                             {512, 1},
                             {512, 1},
                             {512, 1},
                             {1024, 2},
                             {1024, 1}}) {
    net.Convolve(net.channels, 3, block.stride, net.channels);
    net.Activate(kActivation);
    net.Convolve(block.out, 1);
    net.Activate(kActivation);
  }
  net.Classify(1000);
  return net;
}

// Eighteen weighted layers with sums around each pair, 3 x 224 x 224.
NetBuilder ResidualLike(Family family) {
  constexpr char kActivation[] = "ReLU_Fallback_Float_M1";
  NetBuilder net(3, 224, family);
  net.Convolve(64, 7, 2);
  net.Activate(kActivation);
  net.PoolByMaximum(3, 2, 1);
  for (int block = 0; block < 8; ++block) {
    auto const out = static_cast<Short>(64 << (block / 2));
    auto const stride = static_cast<Short>(out == net.channels ? 1 : 2);
    NetBuilder const before = net;
    net.Convolve(out, 3, stride);
    net.Activate(kActivation);
    net.Convolve(out, 3);
    std::string const main_branch = net.last;
    net.last = before.last;
    if (stride != 1) {
      net.channels = before.channels;
      net.extent = before.extent;
      net.Convolve(out, 1, stride);
    }
    net.AddElements(main_branch);
    net.Activate(kActivation);
  }
  net.Classify(1000);
  return net;
}

// Down three times and up again, with the planes of the way down joined on the way up, 3 x 128 x 128.
NetBuilder ULike(Family family) {
  constexpr char kActivation[] = "ReLU_Fallback_Float_M1";
  NetBuilder net(3, 128, family);
  auto const two_convolutions = [&](Short out) {
    for (int i = 0; i < 2; ++i) {
      net.Convolve(out, 3);
      net.Activate(kActivation);
    }
  };
  std::vector<std::string> skips;
  for (Short const out : {Short{32}, Short{64}, Short{128}}) {
    two_convolutions(out);
    skips.push_back(net.last);
    net.PoolByMaximum(2, 2, 0);
  }
  two_convolutions(256);
  for (Short const out : {Short{128}, Short{64}, Short{32}}) {
    net.ConvolveTransposed(out);
    net.Concatenate(skips.back(), out);
    skips.pop_back();
    two_convolutions(out);
  }
  net.Convolve(2, 1);
  return net;
}

void RunNet(benchmark::State& state, NetBuilder (*make)(Family)) {
  std::shared_ptr<Context> context;
  utility::create_context(context, 64);
  NetBuilder const builder = make(static_cast<Family>(state.range(0)));
  auto const net = builder.Build(context);
  Short const extent = make == ULike ? 128 : 224;
  std::vector<float> picture(std::size_t{3} * extent * extent);
  for (std::size_t i = 0; i < picture.size(); ++i) picture[i] = static_cast<float>(i * 7919 % 1001) / 500.0f - 1.0f;
  auto const input = context->device_cpu->CreateF32CHWMainMem({3, extent, extent}, picture.data());
  auto const output = static_cast<unsigned int>(net->layers.size() - 1);
  for (auto _ : state) benchmark::DoNotOptimize(net->Forward({{0, input}}, {output}, context, nullptr, nullptr));
  state.SetLabel(std::vector<char const*>{"portable", "SGEMM", "fused"}.at(static_cast<std::size_t>(state.range(0))));
  auto const report = state.range(0) == kFused ? ReportFusedOperations : ReportOperations;
  report(state, static_cast<double>(builder.operations));
}
void EachFamily(benchmark::internal::Benchmark* net) {
  net->ArgName("family")->DenseRange(kPortable, kFused)->Unit(benchmark::kMillisecond);
}
BENCHMARK_CAPTURE(RunNet, MobileNet_like / 224, MobileLike)->Apply(EachFamily);
BENCHMARK_CAPTURE(RunNet, ResNet18_like / 224, ResidualLike)->Apply(EachFamily);
BENCHMARK_CAPTURE(RunNet, UNet_like / 128, ULike)->Apply(EachFamily);

// 100 layers: an input, and convolutions of 16 channels and activations in turn.
void Construct(benchmark::State& state) {
  std::shared_ptr<Context> context;
  utility::create_context(context, 64);
  NetBuilder builder(16, 32, kPortable);
  for (int layer = 1; layer < 100; ++layer) {
    if (layer % 2 == 1) {
      builder.Convolve(16, 3);
    } else {
      builder.Activate("ReLU_Fallback_Float_M1");
    }
  }
  for (auto _ : state) benchmark::DoNotOptimize(builder.Build(context));
  state.SetItemsProcessed(state.iterations() * 100);
}
BENCHMARK(Construct)->Unit(benchmark::kMicrosecond);

// What the facade adds to a run: two layers of 16 elements by Net::Forward, the yardstick, and by Model::Run, with a
// tensor and with floats.
void RunTwoLayers(benchmark::State& state) {
  test::ModelBuilder builder;
  builder.AddInput("in");
  builder.Add<ActivationInfo>("relu", {"in"}, "ReLU_Fallback_Float_M1");
  builder.model->squential_output_ids = {"relu"};
  ClassRegistry<std::shared_ptr<IKernel>> kernels;
  ClassRegistry<std::shared_ptr<InferenceParam>> params;
  utility::init_register_operators(kernels, params);
  Model model(*builder.Package("m"));
  auto const& context = model.Context();
  auto const net = CreateNet(builder.model, builder.config, kernels, context);
  float const values[16] = {};
  std::shared_ptr<Tensor> const tensor = context->device_cpu->CreateF32CMainMemory(16, values);
  std::unordered_map<unsigned int, std::shared_ptr<Tensor>> const by_layer = {{0, tensor}};
  std::vector<unsigned int> const wanted = {1};
  for (auto _ : state) {
    if (state.range(0) == 0) benchmark::DoNotOptimize(net->Forward(by_layer, wanted, context, nullptr, nullptr));
    if (state.range(0) == 1) benchmark::DoNotOptimize(model.Run({{"in", tensor}}));
    if (state.range(0) == 2) benchmark::DoNotOptimize(model.Run({{"in", values, {16}}}));
  }
  state.SetLabel(std::vector<char const*>{"Net::Forward", "Model::Run, tensor", "Model::Run, floats"}.at(
      static_cast<std::size_t>(state.range(0))));
}
BENCHMARK(RunTwoLayers)->ArgName("way")->DenseRange(0, 2);

}  // namespace
}  // namespace talvo::bench

int main(int argc, char** argv) { return talvo::bench::RunOnOneBlasThread(argc, argv); }
