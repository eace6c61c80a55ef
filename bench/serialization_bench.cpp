// Reading and writing a package with 20 MB of weights (as float32) in both forms. Bytes a second are those of the
// float32 weights. Yardsticks: memcpy of the weights, and fwrite and fread of them through the same folder.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "talvo/serialization/layer_info_conv.h"
#include "talvo/serialization/model_info.h"
#include "talvo/utility/base64.h"

namespace {

using namespace talvo::runtime;

constexpr std::size_t kLayers = 8, kLayerFloats = 625000, kWeightBytes = kLayers * kLayerFloats * sizeof(float);

std::string ScratchPath() { return (std::filesystem::temp_directory_path() / "talvo_serialization_bench").string(); }

std::vector<float> Weights() {
  std::vector<float> weights(kLayerFloats);
  for (std::size_t i = 0; i < weights.size(); ++i) weights[i] = static_cast<float>(i % 4099) / 512.0f - 4.0f;
  return weights;
}

std::unique_ptr<TLNModel> Package() {
  auto package = std::make_unique<TLNModel>();
  auto const model = std::make_shared<TLModelInfo>();
  std::vector<float> const weights = Weights();
  for (std::size_t i = 0; i < kLayers; ++i) {
    auto const layer = std::make_shared<FullConnectionInfo>();
    layer->weight =
        Base64Encode(reinterpret_cast<unsigned char const*>(weights.data()), weights.size() * sizeof(float));
    model->squential_ids.push_back("dense_" + std::to_string(i));
    model->squential_types.push_back(layer->type);
    model->layers[model->squential_ids.back()] = layer;
  }
  package->model_arr->squential_ids = {"net"};
  package->model_arr->models["net"] = model;
  return package;
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
  Package()->ToFile(ScratchPath().c_str(), form);
  for (auto _ : state) {
    TLNModel package;
    package.FromFile(ScratchPath().c_str(), form);
    benchmark::DoNotOptimize(package.model_arr->models.at("net"));
  }
  CountBytes(state);
  std::filesystem::remove(ScratchPath());
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
BENCHMARK_CAPTURE(Write, binary, "bin")->Name("Package/write_binary/20MB");
BENCHMARK_CAPTURE(Read, binary, "bin")->Name("Package/read_binary/20MB");
BENCHMARK_CAPTURE(Write, json, "json")->Name("Package/write_json/20MB");
BENCHMARK_CAPTURE(Read, json, "json")->Name("Package/read_json/20MB");

}  // namespace

BENCHMARK_MAIN();
