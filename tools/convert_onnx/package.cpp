#include "tools/convert_onnx/package.h"

namespace convert_onnx {

using namespace talvo::runtime;

namespace {

std::string Encoded(Floats const& values) {
  return Base64Encode(reinterpret_cast<unsigned char const*>(values.data()),
                      static_cast<unsigned long>(values.size() * sizeof(float)));
}

template <class Info>
bool SetWeights(Layer const& layer) {
  auto* const record = dynamic_cast<Info*>(layer.record.get());
  if (record == nullptr) return false;
  record->weight = Encoded(layer.weight);
  record->bias = Encoded(layer.bias);
  record->if_bias = !layer.bias.empty();
  return true;
}

template <class Info>
bool SetStack(Layer const& layer) {
  auto* const record = dynamic_cast<Info*>(layer.record.get());
  if (record == nullptr) return false;
  std::vector<std::string>* const lists[] = {
      &record->weight_ih_forward, &record->weight_hh_forward, &record->bias_ih_forward, &record->bias_hh_forward,
      &record->weight_ih_reverse, &record->weight_hh_reverse, &record->bias_ih_reverse, &record->bias_hh_reverse};
  for (std::size_t i = 0; i < layer.recurrent.size(); ++i) lists[i]->assign(1, Encoded(layer.recurrent[i]));
  return true;
}

void Encode(Layer const& layer) {
  if (!layer.weight.empty() && !SetWeights<Conv2dInfo>(layer) && !SetWeights<ConvTranspose2dInfo>(layer))
    SetWeights<FullConnectionInfo>(layer);
  if (!layer.recurrent.empty() && !SetStack<RNNInfo>(layer) && !SetStack<LSTMInfo>(layer)) SetStack<GRUInfo>(layer);
  if (!layer.slopes.empty()) static_cast<ActivationInfo&>(*layer.record).weight = Encoded(layer.slopes);
}

std::shared_ptr<LayerCfg> KernelFor(Layer const& layer) {
  auto config = std::make_shared<LayerCfg>();
  config->kernel->kernel_type = layer.kernel;
  return config;
}

}  // namespace

std::shared_ptr<TLNModel> MakePackage(Conversion const& conversion, std::string const& id) {
  auto const model = std::make_shared<TLModelInfo>();
  auto const config = std::make_shared<TLModelCfg>();
  for (Layer const& layer : conversion.layers) {
    Encode(layer);
    model->squential_ids.push_back(layer.name);
    model->squential_types.push_back(layer.record->type);
    model->layers[layer.name] = layer.record;
    config->squential_ids.push_back(layer.name);
    config->layers[layer.name] = KernelFor(layer);
  }
  model->squential_output_ids = conversion.outputs;
  auto package = std::make_shared<TLNModel>();
  package->core_major_ver = 1;
  package->model_arr->squential_ids = package->config_arr->squential_ids = {id};
  package->model_arr->models[id] = model;
  auto const configs = std::make_shared<TLModelMultiBackendCfgs>();
  configs->cpu_sse = configs->cpu_armv8 = config;
  package->config_arr->configs[id] = configs;
  return package;
}

}  // namespace convert_onnx
