// Reading, writing and loading a package with 20 MB of weights (as float32) in both forms: LoadModel is what an
// application does from the file to a net that runs, CheckModel its first step alone. Bytes a second are those of the
// float32 weights. Yardsticks: memcpy of the weights, and fwrite and fread of them through the same folder.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "talvo/entry/create_context.h"
#include "talvo/entry/load_model.h"
#include "talvo/entry/register_operators.h"
#include "talvo/serialization/layer_info_conv.h"
#include "talvo/serialization/model_info.h"
#include "talvo/utility/base64.h"
#include "tests/support/model_builder.h"

namespace {

using namespace talvo::runtime;

constexpr unsigned short kEvenFeatures = 625, kOddFeatures = 1000;
constexpr std::size_t kLayers = 8, kLayerFloats = std::size_t{kEvenFeatures} * kOddFeatures;
constexpr std::size_t kWeightBytes = kLayers * kLayerFloats * sizeof(float);

std::string ScratchPath() { return (std::filesystem::temp_directory_path() / "talvo_serialization_bench").string(); }

std::vector<float> Weights() {
  std::vector<float> weights(kLayerFloats);
  for (std::size_t i = 0; i < weights.size(); ++i) weights[i] = static_cast<float>(i % 4099) / 512.0f - 4.0f;
  return weights;
}

std::shared_ptr<TLNModel> Package() {
  talvo::test::ModelBuilder builder;
  builder.AddInput("input");
  std::vector<float> const weights = Weights();
  for (std::size_t i = 0; i < kLayers; ++i) {
    auto& layer = builder.Add<FullConnectionInfo>("dense_" + std::to_string(i),
                                                  {i == 0 ? "input" : "dense_" + std::to_string(i - 1)},
                                                  "FullConnection_Fallback_C_Float_M1");
    layer.in_features = i % 2 == 0 ? kEvenFeatures : kOddFeatures;
    layer.out_features = i % 2 == 0 ? kOddFeatures : kEvenFeatures;
    layer.weight = Base64Encode(reinterpret_cast<unsigned char const*>(weights.data()), weights.size() * sizeof(float));
  }
  return builder.Package("net");
}

std::string SavedPackage(char const* form) {
  std::string const path = ScratchPath() + (form == std::string("bin") ? ".tlnmodel" : ".json");
  Package()->ToFile(path.c_str(), form);
  return path;
}

void CountBytes(benchmark::State& state) {
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(kWeightBytes));
}

void Write(benchmark::State& state, char const* form) {
  auto const package = Package();
  for (auto _ : state) package->ToFile(ScratchPath().c_str(), form);
  CountBytes(state);
  std::filesystem::remove(ScratchPath());
}

void Read(benchmark::State& state, char const* form) {
  std::string const path = SavedPackage(form);
  for (auto _ : state) {
    TLNModel package;
    package.FromFile(path.c_str(), form);
    benchmark::DoNotOptimize(package.model_arr->models.at("net"));
  }
  CountBytes(state);
  std::filesystem::remove(path);
}

// Each time with a context of its own, whose pools begin empty.
void Load(benchmark::State& state, char const* form, bool whole) {
  std::string const path = SavedPackage(form);
  ClassRegistry<std::shared_ptr<IKernel>> kernels;
  ClassRegistry<std::shared_ptr<InferenceParam>> params;
  talvo::utility::init_register_operators(kernels, params);
  for (auto _ : state) {
    std::shared_ptr<Context> context;
    talvo::utility::create_context(context, 64);
    std::map<std::string, std::shared_ptr<talvo::utility::_NetworkPackage>> packages;
    if (talvo::utility::load_model(path, packages, context, kernels, params, "test", 3, 4) != 0) std::abort();
    if (!whole) continue;
    TLNModel file;
    file.FromFile(path.c_str(), form);
    talvo::utility::Load_Single_Net(packages.at("net"), file.model_arr->models.at("net"),
                                    file.config_arr->configs.at("net"), "x86");
    benchmark::DoNotOptimize(packages.at("net")->net);
  }
  CountBytes(state);
  std::filesystem::remove(path);
}

void MemcpyWeights(benchmark::State& state) {
  std::vector<char> const from(kWeightBytes, 'w');
  for (auto _ : state) {
    std::unique_ptr<char[]> const to(new char[kWeightBytes]);  // fresh memory, as a reader takes it
    std::memcpy(to.get(), from.data(), kWeightBytes);
    benchmark::DoNotOptimize(to.get());
  }
  CountBytes(state);
}

void FwriteWeights(benchmark::State& state) {
  std::vector<char> const from(kWeightBytes, 'w');
  for (auto _ : state) {
    std::FILE* const stream = std::fopen(ScratchPath().c_str(), "wb");
    benchmark::DoNotOptimize(std::fwrite(from.data(), 1, kWeightBytes, stream));
    std::fclose(stream);
  }
  CountBytes(state);
  std::filesystem::remove(ScratchPath());
}

void FreadWeights(benchmark::State& state) {
  std::vector<char> bytes(kWeightBytes, 'w');
  std::FILE* const out = std::fopen(ScratchPath().c_str(), "wb");
  std::fwrite(bytes.data(), 1, kWeightBytes, out);
  std::fclose(out);
  for (auto _ : state) {
    std::FILE* const stream = std::fopen(ScratchPath().c_str(), "rb");
    benchmark::DoNotOptimize(std::fread(bytes.data(), 1, kWeightBytes, stream));
    std::fclose(stream);
  }
  CountBytes(state);
  std::filesystem::remove(ScratchPath());
}

BENCHMARK(MemcpyWeights)->Name("Yardstick/memcpy/20MB");
BENCHMARK(FwriteWeights)->Name("Yardstick/fwrite/20MB");
BENCHMARK(FreadWeights)->Name("Yardstick/fread/20MB");
BENCHMARK_CAPTURE(Load, binary, "bin", true)->Name("LoadModel/20MB");
BENCHMARK_CAPTURE(Load, json, "json", true)->Name("LoadModelJson/20MB");
BENCHMARK_CAPTURE(Load, check_binary, "bin", false)->Name("CheckModel/20MB");
BENCHMARK_CAPTURE(Load, check_json, "json", false)->Name("CheckModelJson/20MB");
BENCHMARK_CAPTURE(Read, binary, "bin")->Name("ReadBinary/20MB");
BENCHMARK_CAPTURE(Read, json, "json")->Name("ReadJson/20MB");
BENCHMARK_CAPTURE(Write, binary, "bin")->Name("WriteBinary/20MB");
BENCHMARK_CAPTURE(Write, json, "json")->Name("WriteJson/20MB");

}  // namespace

BENCHMARK_MAIN();
