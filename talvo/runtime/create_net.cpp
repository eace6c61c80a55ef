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

constexpr unsigned int kInputType = 0;

char const* TypeName(unsigned int type) {
  struct Name {
    unsigned int type;
    char const* text;
  };
  static constexpr Name kNames[] = {{kInputType, "Input"},
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
  for (Name const& name : kNames) {
    if (name.type == type) return name.text;
  }
  return "UnKnown";
}

// Every repetition multiplies the work of a walk. `layer_id` is null for the list of layers itself.
void CheckRepetitions(std::vector<std::string> const& ids, char const* what, std::string const* layer_id) {
  std::string const* const repeated = support::RepeatedTooOften(ids);
  if (repeated == nullptr) return;
  Refuse("%s of %s%s: the id %s stands more than %u times", what, layer_id != nullptr ? "layer " : "the model",
         layer_id != nullptr ? layer_id->c_str() : "", repeated->c_str(), support::kMostRepeats);
}

// A kernel as either configuration names it.
struct Choice {
  std::string const* name = nullptr;  // null: it names none
  std::shared_ptr<InferenceParam> const* param = nullptr;
};
using ConverterChoices = std::vector<std::pair<unsigned int, Choice>>;  // by position, in the order of their making

template <class KernelConfig>
Choice ChoiceOf(KernelConfig const* config) {
  return config != nullptr ? Choice{&config->kernel_type, &config->infer_param} : Choice{};
}

ConverterChoices ChoicesOf(std::string const& layer_id, std::shared_ptr<KernelCfgArr> const& converters) {
  if (converters == nullptr) Refuse("layer %s: its configuration has no list of converters", layer_id.c_str());
  CheckRepetitions(converters->kernel_ids, "converters", &layer_id);
  ConverterChoices choices;
  for (std::string const& id : converters->kernel_ids) {
    auto const found = converters->kernels.find(id);
    // As atoi reads it, and defined for numbers that no int holds.
    choices.emplace_back(static_cast<unsigned int>(std::strtol(id.c_str(), nullptr, 10)),
                         ChoiceOf(found != converters->kernels.end() ? found->second.get() : nullptr));
  }
  return choices;
}

ConverterChoices ChoicesOf(std::map<unsigned int, std::shared_ptr<KernelInferenceConfig>> const& converters) {
  ConverterChoices choices;
  for (auto const& [position, config] : converters) choices.emplace_back(position, ChoiceOf(config.get()));
  return choices;
}

// A configuration in one of its two forms; the other one is null. The packaged form has level-2 lines around each
// kernel, and a main kernel that refuses its parameters ends the construction.
struct Config {
  TLModelCfg const* packaged;
  InferenceConfig const* light;
};

// What it says of one layer.
class LayerConfig {
 public:
  LayerConfig(Config const& config, std::string const& layer_id, std::size_t index) : id_(layer_id) {
    if (config.packaged != nullptr) {
      auto const found = config.packaged->layers.find(id_);
      if (found == config.packaged->layers.end() || found->second == nullptr)
        Refuse("layer %s: the configuration has no record of it", id_.c_str());
      packaged_ = found->second.get();
    } else {
      auto const& records = config.light->layers;
      if (index >= records.size())
        Refuse("layer %s: the configuration has %zu records, none for layer index %zu", id_.c_str(), records.size(),
               index);
      light_ = &records[index];
    }
  }

  ConverterChoices InputConverters() const {
    return packaged_ != nullptr ? ChoicesOf(id_, packaged_->input_converters) : ChoicesOf(light_->input_converters);
  }
  Choice Kernel() const {
    return packaged_ != nullptr ? ChoiceOf(packaged_->kernel.get()) : ChoiceOf(light_->kernel.get());
  }
  ConverterChoices OutputConverters() const {
    return packaged_ != nullptr ? ChoicesOf(id_, packaged_->output_converters) : ChoicesOf(light_->output_converters);
  }

 private:
  std::string const& id_;
  LayerCfg const* packaged_ = nullptr;
  LayerInferenceConfig const* light_ = nullptr;
};

// Makes the layers of one net.
class Builder {
 public:
  Builder(TLModelInfo const& model, Config const& config, KernelRegistry const& kernels,
          std::shared_ptr<Context> const& context)
      : model_(model), config_(config), kernels_(kernels), context_(context) {}

  std::shared_ptr<Net> Build() {
    IndexLayers();
    for (std::size_t i = 0; i < model_.squential_ids.size(); ++i) AddLayer(model_.squential_ids[i], i);
    return std::make_shared<Net>(layers_, input_ids_);
  }

 private:
  // All ids first: a layer that reads a later one is then refused by its place, and not taken for an unknown id.
  void IndexLayers() {
    CheckRepetitions(model_.squential_ids, "layers", nullptr);
    for (std::size_t i = 0; i < model_.squential_ids.size(); ++i) {
      index_of_[model_.squential_ids[i]] = static_cast<unsigned int>(i);
    }
  }

  void AddLayer(std::string const& id, std::size_t index) {
    auto const found = model_.layers.find(id);
    if (found == model_.layers.end() || found->second == nullptr)
      Refuse("layer %s: the model has no record of it", id.c_str());
    std::shared_ptr<LayerInfo> const& info = found->second;
    LayerConfig const config(config_, id, index);
    auto layer = std::make_shared<Layer>();
    layer->type = TypeName(info->type);
    if (info->type == kInputType) input_ids_[id] = static_cast<unsigned int>(index);
    // Kernels are made in the order in which they run, which the lines of the log show.
    layer->input_converters = MakeConverters(id, config.InputConverters());
    layer->kernel = MakeKernel(id, config.Kernel(), info);
    // Converters, and all kernels of the light configuration, may stay empty: the walk refuses them when it comes to
    // them.
    if (config_.packaged != nullptr && layer->kernel == nullptr) Refuse(nullptr);
    layer->output_converters = MakeConverters(id, config.OutputConverters());
    Wire(*layer, *info, index);
    layers_.push_back(std::move(layer));
  }

  Converters MakeConverters(std::string const& layer_id, ConverterChoices const& choices) const {
    Converters converters;
    for (auto const& [position, choice] : choices) converters[position] = MakeKernel(layer_id, choice, nullptr);
    return converters;
  }

  // Empty when the kernel refuses its parameters. `info` is empty for a converter.
  std::shared_ptr<IKernel> MakeKernel(std::string const& layer_id, Choice const& choice,
                                      std::shared_ptr<LayerInfo> const& info) const {
    char const* const role = info != nullptr ? "kernel" : "converter";
    if (choice.name == nullptr) Refuse("layer %s: its configuration names no %s", layer_id.c_str(), role);
    char const* const name = choice.name->c_str();
    auto kernel = kernels_.Create(*choice.name);
    if (config_.packaged != nullptr)
      utility::Log(2, "Create Kernel >> %s >> %s", name, kernel != nullptr ? "ok" : "nullptr");
    if (kernel == nullptr) Refuse("layer %s: its %s \"%s\" is not registered", layer_id.c_str(), role, name);
    if (kernel->Config(info, *choice.param, context_)) return kernel;
    if (config_.packaged != nullptr) utility::Log(2, "Config Kernel <%s> failed.", name);
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

std::shared_ptr<Net> Create(TLModelInfo* model, Config const& config, KernelRegistry const& kernels,
                            std::shared_ptr<Context> const& context) {
  if (model == nullptr) Refuse("CreateNet: the model is empty");
  if (config.packaged == nullptr && config.light == nullptr)
    Refuse("CreateNet: the configuration is empty; a package has one for each back end that it serves");
  __atomic_store_n(&model->has_net, true, __ATOMIC_RELAXED);  // several threads may make nets of one model
  return Builder(*model, config, kernels, context).Build();
}

}  // namespace

// Here, where nets are made, and not beside the walk, which is compiled for speed.
Net::Net(std::vector<std::shared_ptr<Layer>> const& net_layers,
         std::map<std::string, unsigned int> const& net_input_ids)
    : layers(net_layers), input_ids(net_input_ids) {}

std::shared_ptr<Net> CreateNet(std::shared_ptr<TLModelInfo> const& model, std::shared_ptr<TLModelCfg> const& config,
                               KernelRegistry const& kernels, std::shared_ptr<Context> const& context) {
  return Create(model.get(), {config.get(), nullptr}, kernels, context);
}

std::shared_ptr<Net> CreateNet(std::shared_ptr<TLModelInfo> const& model, std::shared_ptr<InferenceConfig> config,
                               KernelRegistry const& kernels, std::shared_ptr<Context> context) {
  return Create(model.get(), {nullptr, config.get()}, kernels, context);
}

}  // namespace talvo::runtime
