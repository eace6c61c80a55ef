#include "talvo/runtime/create_net.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "talvo/serialization/record_support.h"
#include "talvo/utility/log.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::runtime {
namespace {

using utility::Refuse;
using KernelRegistry = ClassRegistry<std::shared_ptr<IKernel>>;
using Converters = std::map<unsigned int, std::shared_ptr<IKernel>>;

constexpr char const* kInputType = "Input";

char const* TypeName(unsigned int type) {
  static std::map<unsigned int, char const*> const names = {{0, kInputType},
                                                            {1, "Activation"},
                                                            {2, "Conv2d"},
                                                            {3, "ConvTranspose2d"},
                                                            {6, "AvgPool2d"},
                                                            {7, "MaxPool2d"},
                                                            {8, "InstanceNorm2d"},
                                                            {9, "BatchNorm2d"},
                                                            {10, "Upsample2d"},
                                                            {11, "ElementWiseOperator"},
                                                            {12, "Concatenate"},
                                                            {13, "TensorReshape"},
                                                            {14, "TensorTranspose"},
                                                            {15, "TensorSqueeze"},
                                                            {16, "TensorUnSqueeze"},
                                                            {17, "FullConnection"},
                                                            {21, "PixelShuffle"},
                                                            {22, "TensorGetItem"},
                                                            {29, "Blob"},
                                                            {36, "LSTM"},
                                                            {46, "TensorSlice"},
                                                            {254, "Blob"}};
  auto const name = names.find(type);
  return name != names.end() ? name->second : "UnKnown";
}

// Every repetition multiplies the work of a walk. `layer_id` is null for the list of layers itself.
void CheckRepetitions(std::vector<std::string> const& ids, char const* what, std::string const* layer_id) {
  std::string const* const repeated = support::RepeatedTooOften(ids);
  if (repeated == nullptr) return;
  Refuse("%s of %s%s: the id %s stands more than %u times", what, layer_id != nullptr ? "layer " : "the model",
         layer_id != nullptr ? layer_id->c_str() : "", repeated->c_str(), support::kMostRepeats);
}

// How the packaged configuration names its kernels.
class PackagedConfig {
 public:
  static constexpr bool kLogs = true;             // level-2 lines around each kernel
  static constexpr bool kNeedsMainKernel = true;  // a refused main kernel ends the construction

  explicit PackagedConfig(TLModelCfg const& config) : config_(config) {}

  LayerCfg const& Layer(std::string const& id, std::size_t) const {
    auto const found = config_.layers.find(id);
    if (found == config_.layers.end() || found->second == nullptr) {
      Refuse("layer %s: the configuration has no record of it", id.c_str());
    }
    return *found->second;
  }

  static bool IsInput(LayerInfo const& info, std::string const&) { return info.type == 0; }

  // Calls visit(position, kernel configuration) for each converter, in order.
  template <typename Visit>
  static void ForEachConverter(std::string const& layer_id, std::shared_ptr<KernelCfgArr> const& converters,
                               Visit const& visit) {
    if (converters == nullptr) Refuse("layer %s: its configuration has no list of converters", layer_id.c_str());
    CheckRepetitions(converters->kernel_ids, "converters", &layer_id);
    for (std::string const& id : converters->kernel_ids) {
      auto const found = converters->kernels.find(id);
      // As atoi reads it, and defined for numbers that no int holds.
      visit(static_cast<unsigned int>(std::strtol(id.c_str(), nullptr, 10)),
            found != converters->kernels.end() ? found->second : nullptr);
    }
  }

 private:
  TLModelCfg const& config_;
};

// How the light configuration names its kernels.
class LightConfig {
 public:
  static constexpr bool kLogs = false;
  static constexpr bool kNeedsMainKernel = false;

  explicit LightConfig(InferenceConfig const& config) : config_(config) {}

  LayerInferenceConfig const& Layer(std::string const& id, std::size_t index) const {
    if (index >= config_.layers.size()) {
      Refuse("layer %s: the configuration has %zu records, none for layer index %zu", id.c_str(), config_.layers.size(),
             index);
    }
    return config_.layers[index];
  }

  static bool IsInput(LayerInfo const&, std::string const& type) { return type == kInputType; }

  template <typename Visit>
  static void ForEachConverter(std::string const&,
                               std::map<unsigned int, std::shared_ptr<KernelInferenceConfig>> const& converters,
                               Visit const& visit) {
    for (auto const& converter : converters) visit(converter.first, converter.second);
  }

 private:
  InferenceConfig const& config_;
};

// Makes the layers of one net.
template <class Config>
class Builder {
 public:
  Builder(TLModelInfo const& model, Config const& config, KernelRegistry const& kernels,
          std::shared_ptr<Context> const& context)
      : model_(model), config_(config), kernels_(kernels), context_(context) {}

  std::shared_ptr<Net> Build() {
    CheckRepetitions(model_.squential_ids, "layers", nullptr);
    for (std::size_t i = 0; i < model_.squential_ids.size(); ++i) {
      // All ids first: a layer that reads a later one is then refused by its place, and not taken for an unknown id.
      index_of_[model_.squential_ids[i]] = static_cast<unsigned int>(i);
    }
    for (std::size_t i = 0; i < model_.squential_ids.size(); ++i) AddLayer(model_.squential_ids[i], i);
    return std::make_shared<Net>(layers_, input_ids_);
  }

 private:
  void AddLayer(std::string const& id, std::size_t index) {
    auto const found = model_.layers.find(id);
    if (found == model_.layers.end() || found->second == nullptr)
      Refuse("layer %s: the model has no record of it", id.c_str());
    std::shared_ptr<LayerInfo> const& info = found->second;
    auto const& config = config_.Layer(id, index);
    auto layer = std::make_shared<Layer>();
    layer->type = TypeName(info->type);
    if (Config::IsInput(*info, layer->type)) input_ids_[id] = static_cast<unsigned int>(index);
    // Kernels are made in the order in which they run, which the lines of the log show.
    layer->input_converters = MakeConverters(id, config.input_converters);
    layer->kernel = MakeKernel(id, config.kernel, info);
    // Converters, and all kernels of the light configuration, may stay empty: the walk refuses them when it comes to
    // them.
    if (Config::kNeedsMainKernel && layer->kernel == nullptr) Refuse(nullptr);
    layer->output_converters = MakeConverters(id, config.output_converters);
    Wire(*layer, *info, index);
    layers_.push_back(std::move(layer));
  }

  template <typename ConverterConfigs>
  Converters MakeConverters(std::string const& layer_id, ConverterConfigs const& configs) {
    Converters converters;
    Config::ForEachConverter(layer_id, configs, [&](unsigned int position, auto const& config) {
      converters[position] = MakeKernel(layer_id, config, nullptr);
    });
    return converters;
  }

  // Empty when the kernel refuses its parameters. `info` is empty for a converter.
  template <typename KernelConfig>
  std::shared_ptr<IKernel> MakeKernel(std::string const& layer_id, std::shared_ptr<KernelConfig> const& config,
                                      std::shared_ptr<LayerInfo> const& info) {
    char const* const role = info != nullptr ? "kernel" : "converter";
    if (config == nullptr) Refuse("layer %s: its configuration names no %s", layer_id.c_str(), role);
    std::string const& name = config->kernel_type;
    auto kernel = kernels_.Create(name);
    if (Config::kLogs) utility::Log(2, "Create Kernel >> %s >> %s", name.c_str(), kernel != nullptr ? "ok" : "nullptr");
    if (kernel == nullptr) Refuse("layer %s: its %s \"%s\" is not registered", layer_id.c_str(), role, name.c_str());
    if (kernel->Config(info, config->infer_param, context_)) return kernel;
    if (Config::kLogs) utility::Log(2, "Config Kernel <%s> failed.", name.c_str());
    return nullptr;
  }

  void Wire(Layer& layer, LayerInfo const& info, std::size_t index) {
    CheckRepetitions(info.input_ids, "inputs", &info.id);
    unsigned int const reader = index_of_[info.id];  // once: a long id takes long to find
    for (std::size_t position = 0; position < info.input_ids.size(); ++position) {
      unsigned int const producer = index_of_[info.input_ids[position]];  // an id that no layer has enters as layer 0
      if (producer >= index) {
        Refuse("layer %s (%s): its input %zu is layer %s, which does not stand before it", info.id.c_str(),
               layer.kernel != nullptr ? layer.kernel->GetName().c_str() : "no kernel", position,
               info.input_ids[position].c_str());
      }
      layer.input_refs.emplace_back(producer, 0u);
      layers_[producer]->consumers.emplace_back(reader, static_cast<std::uint32_t>(position));
    }
  }

  TLModelInfo const& model_;
  Config const config_;
  KernelRegistry const& kernels_;
  std::shared_ptr<Context> const& context_;
  std::map<std::string, unsigned int> index_of_, input_ids_;
  std::vector<std::shared_ptr<Layer>> layers_;
};

template <class Config, class Record>
std::shared_ptr<Net> Create(std::shared_ptr<TLModelInfo> const& model, std::shared_ptr<Record> const& config,
                            KernelRegistry const& kernels, std::shared_ptr<Context> const& context) {
  if (model == nullptr) Refuse("CreateNet: the model is empty");
  if (config == nullptr)
    Refuse("CreateNet: the configuration is empty; a package has one for each back end that it serves");
  __atomic_store_n(&model->has_net, true, __ATOMIC_RELAXED);  // several threads may make nets of one model
  return Builder<Config>(*model, Config(*config), kernels, context).Build();
}

}  // namespace

std::shared_ptr<Net> CreateNet(std::shared_ptr<TLModelInfo> const& model, std::shared_ptr<TLModelCfg> const& config,
                               KernelRegistry const& kernels, std::shared_ptr<Context> const& context) {
  return Create<PackagedConfig>(model, config, kernels, context);
}

std::shared_ptr<Net> CreateNet(std::shared_ptr<TLModelInfo> const& model, std::shared_ptr<InferenceConfig> config,
                               KernelRegistry const& kernels, std::shared_ptr<Context> context) {
  return Create<LightConfig>(model, config, kernels, context);
}

}  // namespace talvo::runtime
