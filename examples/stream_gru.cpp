// A recurrent model on a stream: the kernel keeps its state from call to call, so that a signal may come in chunks.
//
//   stream_gru [PACKAGE]     writes a small package there (stream_gru.tlnmodel by default) and runs it
//
// The package holds a GRU of two layers over two sensors. The signal goes through it once as a whole and once in chunks
// of uneven length; the outputs are the same, bit for bit.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <exception>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "examples/report.h"
#include "talvo/talvo.h"

namespace {

using namespace talvo;

constexpr unsigned short kSensors = 2, kHidden = 8, kLayers = 2, kGates = 3;
constexpr unsigned int kSteps = 48;

// Weights travel as base64 text of floats.
std::string Weights(std::size_t count, float seed) {
  std::vector<float> values(count);
  for (std::size_t i = 0; i < count; ++i) values[i] = 0.5f * std::sin(seed + 1.7f * static_cast<float>(i));
  return runtime::Base64Encode(reinterpret_cast<unsigned char const*>(values.data()), count * sizeof(float));
}

std::shared_ptr<runtime::GRUInfo> MakeGru() {
  auto gru = std::make_shared<runtime::GRUInfo>();
  gru->id = "gru";
  gru->input_ids = {"signal"};
  gru->in_size = kSensors;
  gru->hidden_size = kHidden;
  gru->num_layers = kLayers;
  gru->if_bias = true;
  for (std::size_t layer = 0; layer < kLayers; ++layer) {
    std::size_t const outputs = kGates * kHidden, width = layer == 0 ? kSensors : kHidden;
    float const seed = 10.0f * static_cast<float>(layer);
    gru->weight_ih_forward.push_back(Weights(outputs * width, seed));
    gru->weight_hh_forward.push_back(Weights(outputs * kHidden, seed + 1));
    gru->bias_ih_forward.push_back(Weights(outputs, seed + 2));
    gru->bias_hh_forward.push_back(Weights(outputs, seed + 3));
  }
  return gru;
}

std::shared_ptr<runtime::LayerCfg> RunBy(char const* kernel) {
  auto cfg = std::make_shared<runtime::LayerCfg>();
  cfg->kernel = std::make_shared<runtime::KernelCfg>();
  cfg->kernel->kernel_type = kernel;
  return cfg;
}

// A model is a list of layer records; its configuration names a kernel for each of them.
void WritePackage(std::string const& path) {
  auto const signal = std::make_shared<runtime::InputInfo>();
  signal->id = "signal";
  auto const model = std::make_shared<runtime::TLModelInfo>();
  for (std::shared_ptr<runtime::LayerInfo> const& layer :
       {std::shared_ptr<runtime::LayerInfo>(signal), std::shared_ptr<runtime::LayerInfo>(MakeGru())}) {
    model->squential_ids.push_back(layer->id);
    model->squential_types.push_back(layer->type);
    model->layers[layer->id] = layer;
  }
  model->squential_output_ids = {"gru"};
  auto const cfg = std::make_shared<runtime::TLModelCfg>();
  cfg->squential_ids = model->squential_ids;
  cfg->layers["signal"] = RunBy("Input_Fallback_M1");
  cfg->layers["gru"] = RunBy("GRU_Fallback_SC_F32_M1");
  auto const configs = std::make_shared<runtime::TLModelMultiBackendCfgs>();
  configs->cpu_sse = cfg;
  runtime::TLNModel package;
  package.sdk_type = "x86";
  package.core_major_ver = 1;
  package.sdk_major_ver = 1;
  package.model_arr = std::make_shared<runtime::TLModelInfoArr>();
  package.model_arr->squential_ids = {"stream"};
  package.model_arr->models["stream"] = model;
  package.config_arr = std::make_shared<runtime::TLModelMultiBackendCfgsArr>();
  package.config_arr->squential_ids = {"stream"};
  package.config_arr->configs["stream"] = configs;
  if (!package.ToFile(path.c_str(), "bin")) throw std::runtime_error("cannot be written");
}

// An opened package. Members that others need come first, so that they go last.
struct Stream {
  explicit Stream(std::string const& path) {
    utility::create_context(context, 64);
    utility::init_register_operators(kernels, params);
    if (utility::load_model(path, packages, context, kernels, params, "x86", 1, 0) != 0) {
      throw std::runtime_error(examples::log_text);
    }
    runtime::TLNModel file;
    file.FromFile(path.c_str(), "bin");
    utility::Load_Single_Net(packages.at("stream"), file.model_arr->models.at("stream"),
                             file.config_arr->configs.at("stream"), "x86");
  }

  // `steps` rows of the signal in, as many rows of hidden states out.
  std::vector<float> Feed(float const* rows, unsigned int steps) {
    auto& package = *packages.at("stream");
    package.inputs[package.net->input_ids.at("signal")] = context->device_cpu->CreateTensor(
        runtime::TensorShape({steps, kSensors}, runtime::TensorShape::FLOAT32, runtime::TensorShape::SC,
                             runtime::TensorShape::MainMemory, runtime::TensorShape::Extra()),
        rows);
    auto const outputs = package.net->Forward(package.inputs, package.output_ids, context, nullptr, nullptr);
    auto const* const first = static_cast<float const*>(outputs.at(package.output_ids[0])[0]->data);
    return std::vector<float>(first, first + std::size_t{steps} * kHidden);
  }

  void StartAfresh() { utility::ResetRNNState(*packages.at("stream")->net); }

  std::shared_ptr<runtime::Context> context;
  runtime::ClassRegistry<std::shared_ptr<runtime::IKernel>> kernels;
  runtime::ClassRegistry<std::shared_ptr<runtime::InferenceParam>> params;
  std::map<std::string, std::shared_ptr<utility::_NetworkPackage>> packages;
};

bool SameBits(std::vector<float> const& a, std::vector<float> const& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

// A tone that sweeps upwards, and a slow swing.
std::vector<float> MakeSignal() {
  std::vector<float> signal;
  for (unsigned int t = 0; t < kSteps; ++t) {
    float const time = static_cast<float>(t) / kSteps;
    signal.push_back(std::sin(30.0f * time * time));
    signal.push_back(0.5f * std::cos(5.0f * time));
  }
  return signal;
}

void Run(std::string const& path) {
  WritePackage(path);
  Stream stream(path);
  auto const signal = MakeSignal();
  auto const whole = stream.Feed(signal.data(), kSteps);

  stream.StartAfresh();
  std::vector<float> chunks;
  for (unsigned int t = 0, length = 1; t < kSteps; t += length, length = length * 2 + 1) {
    unsigned int const steps = length < kSteps - t ? length : kSteps - t;
    auto const states = stream.Feed(&signal[std::size_t{t} * kSensors], steps);
    chunks.insert(chunks.end(), states.begin(), states.end());
    std::printf("steps %2u to %2u: the last hidden state begins %+.4f %+.4f\n", t, t + steps - 1,
                static_cast<double>(states[states.size() - kHidden]),
                static_cast<double>(states[states.size() - kHidden + 1]));
  }
  bool const equal = SameBits(whole, chunks), goes_on = !SameBits(whole, stream.Feed(signal.data(), kSteps));
  stream.StartAfresh();
  bool const afresh = SameBits(whole, stream.Feed(signal.data(), kSteps));
  std::printf("in chunks: %s; without a reset: %s; after ResetRNNState: %s\n", equal ? "the same bits" : "DIFFERENT",
              goes_on ? "the state goes on" : "THE STATE WAS LOST", afresh ? "the same bits" : "DIFFERENT");
  if (!equal || !goes_on || !afresh) throw std::runtime_error("the outputs are not those of the whole signal");
}

}  // namespace

int main(int count, char** words) {
  std::string const path = count == 2 ? words[1] : "stream_gru.tlnmodel", ending = ".tlnmodel";
  bool const named = path.size() > ending.size() && path.substr(path.size() - ending.size()) == ending;
  if (count > 2 || !named) {
    std::fprintf(stderr, "usage: stream_gru [PACKAGE], where PACKAGE ends in %s\n", ending.c_str());
    return 2;
  }
  examples::KeepLog();
  try {
    Run(path);
    return examples::Finish("stream_gru");
  } catch (std::exception const& error) {
    return examples::Fail("stream_gru", path + ": " + examples::TextOf(error));
  }
}
