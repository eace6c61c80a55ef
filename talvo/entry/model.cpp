#include "talvo/entry/model.h"

#include <algorithm>
#include <map>
#include <new>
#include <set>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "talvo/entry/create_context.h"
#include "talvo/entry/model_parts_support.h"
#include "talvo/entry/model_support.h"
#include "talvo/entry/open_package.h"
#include "talvo/entry/register_extra_operators.h"
#include "talvo/entry/register_fused_operators.h"
#include "talvo/entry/register_operators.h"
#include "talvo/entry/reset_rnn_state.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/net_support.h"
#include "talvo/runtime/tensor_cpu.h"

namespace talvo {
namespace {

using namespace runtime;
using utility::support::Joined;
using utility::support::Listed;
using utility::support::NearestNames;
using utility::support::RefusalText;
using utility::support::RefuseLine;

constexpr unsigned int kAlignment = 64;  // a cache line

#if defined(__aarch64__) || defined(__arm__)
constexpr char const* kBackend = "arm";
#else
constexpr char const* kBackend = "x86";
#endif

// The position of an id, or the length of the list.
unsigned int PositionOf(std::string_view id, std::vector<std::string> const& ids) {
  return static_cast<unsigned int>(std::find(ids.begin(), ids.end(), id) - ids.begin());
}

}  // namespace

TensorShape::Layout LayoutOfRank(std::size_t rank) {
  switch (rank) {
    case 1:
      return TensorShape::C;
    case 2:
      return TensorShape::SC;
    case 3:
      return TensorShape::CHW;
    default:
      return TensorShape::FLEXIABLE;
  }
}

namespace utility::support {

void RegisterEverything(ClassRegistry<std::shared_ptr<IKernel>>& kernels,
                        ClassRegistry<std::shared_ptr<InferenceParam>>& params) {
  utility::init_register_operators(kernels, params);
  utility::init_register_fused_operators(kernels);
  utility::init_register_extra_operators(kernels);
}

std::string BackendOf(ModelOptions const& options) { return options.backend.empty() ? kBackend : options.backend; }

std::string Sentence(ModelFinding const& finding) {
  return finding.layer.empty() ? finding.text : Joined({"layer ", finding.layer, " ", finding.text});
}

// `text` with the nearest names behind it, for the first findings alone; the others end at its semicolon. A file may
// hold thousands, and the nearest of each are sought among all names.
std::string WithNearest(std::string const& text, std::string const& name, std::vector<std::string> const& candidates,
                        std::size_t findings_before) {
  constexpr std::size_t kSought = 4;
  if (findings_before >= kSought) return text.substr(0, text.find(';'));
  return Joined({text, Listed(NearestNames(name, candidates))});
}

// The walk itself takes layer 0 for an id that no layer has: a slip of the pen would run.
std::vector<ModelFinding> UnknownIds(TLModelInfo const& model) {
  auto const& ids = model.squential_ids;
  std::set<std::string_view> const known(ids.begin(),
                                         ids.end());  // a hash table of ids is one that a file can make slow
  std::vector<ModelFinding> unknown;
  auto const check = [&](std::string const& wanted, std::string const& layer, char const* does) {
    if (known.count(wanted) != 0) return;
    unknown.push_back({true, layer,
                       Joined({does, " \"", wanted,
                               WithNearest("\", which no layer is called; nearest: ", wanted, ids, unknown.size())})});
  };
  for (std::string const& output : model.squential_output_ids) check(output, "", "the model gives out");
  for (std::string const& layer : ids) {
    for (std::string const& input : model.layers.at(layer)->input_ids) check(input, layer, "reads");
  }
  return unknown;
}

std::vector<ModelFinding> UnknownKernels(TLModelInfo const& model, TLModelCfg const& config,
                                         ClassRegistry<std::shared_ptr<IKernel>> const& kernels) {
  std::vector<ModelFinding> unknown;
  for (std::string const& layer : model.squential_ids) {
    auto const found = config.layers.find(layer);
    if (found == config.layers.end() || found->second == nullptr || found->second->kernel == nullptr) continue;
    std::string const& kernel = found->second->kernel->kernel_type;
    if (kernels.Create(kernel) != nullptr) continue;
    unknown.push_back(
        {true, layer,
         Joined({"names the kernel \"", kernel,
                 WithNearest("\", which there is not; nearest: ", kernel, kernels.GetKeys(), unknown.size())})});
  }
  return unknown;
}

}  // namespace utility::support

Model::Parts::Parts(TLNModel& file, std::string const& package_name, ModelOptions const& options)
    : prefix(package_name.empty() ? "" : package_name + ": "), context(options.context) {
  if (context == nullptr) utility::create_context(context, kAlignment);
  utility::support::RegisterEverything(kernels, params);
  package->kernels = &kernels;
  package->params = &params;
  package->context = context;
  ChooseModel(file, options.model);
  CheckVersion(file);
  BuildNet(file, options);
}

void Model::Parts::ChooseModel(TLNModel const& file, std::string const& wanted) {
  if (file.model_arr == nullptr || file.config_arr == nullptr)
    RefuseLine({prefix, "has no list of models or configurations"});
  auto const& ids = file.model_arr->squential_ids;
  if (ids.empty()) RefuseLine({prefix, "holds no model"});
  if (wanted.empty() && ids.size() != 1) {
    RefuseLine({prefix, "holds ", std::to_string(ids.size()), " models (", Listed(ids), "); name one of them"});
  }
  id = wanted.empty() ? ids[0] : wanted;
  if (PositionOf(id, ids) == ids.size()) RefuseLine({prefix, "has no model \"", id, "\"; it holds ", Listed(ids)});
}

void Model::Parts::CheckVersion(TLNModel const& file) const {
  // The package is asked for its own word and version of the application: what is left to judge is the core's.
  utility::_TLNModelVerInfo const needs = {file.sdk_type, file.core_major_ver, file.core_minor_ver, file.sdk_major_ver,
                                           file.sdk_minor_ver};
  if (utility::check_version(file.sdk_type, file.sdk_major_ver, file.sdk_minor_ver, needs) == 0) return;
  unsigned int major = 0, minor = 0;
  TLN_Get_Core_Version(major, minor);
  RefuseLine({prefix, "needs a runtime of version ", std::to_string(file.core_major_ver), ".",
              std::to_string(file.core_minor_ver), ", this one is ", std::to_string(major), ".",
              std::to_string(minor)});
}

// The model's record, in which each layer has one.
std::shared_ptr<TLModelInfo> Model::Parts::ModelOf(TLNModel const& file) const {
  auto const model = file.model_arr->models.find(id);
  if (model == file.model_arr->models.end() || model->second == nullptr)
    RefuseLine({prefix, "model \"", id, "\" has no record"});
  for (std::string const& layer : model->second->squential_ids) {
    auto const record = model->second->layers.find(layer);
    if (record == model->second->layers.end() || record->second == nullptr)
      RefuseLine({prefix, "layer ", layer, ": there is no record of it"});
  }
  return model->second;
}

void Model::Parts::BuildNet(TLNModel& file, ModelOptions const& options) {
  std::string const backend = utility::support::BackendOf(options);
  auto const model = ModelOf(file);
  auto const configs = file.config_arr->configs.find(id);
  if (configs == file.config_arr->configs.end() || configs->second == nullptr)
    RefuseLine({prefix, "model \"", id, "\" has no configurations"});
  auto const config = utility::support::ConfigOf(*configs->second, backend);
  if (config == nullptr) RefuseLine({prefix, "model \"", id, "\" has no configuration for \"", backend, "\""});
  if (options.prefer_fused) utility::PreferFusedKernels(*config);
  for (auto const& unknown :
       {utility::support::UnknownIds(*model), utility::support::UnknownKernels(*model, *config, kernels)}) {
    if (!unknown.empty()) RefuseLine({prefix, utility::support::Sentence(unknown[0])});
  }
  try {
    utility::Load_Single_Net(package, model, configs->second, backend.c_str());
  } catch (std::bad_alloc const&) {
    throw;
  } catch (std::exception const& refusal) {
    std::string const text = RefusalText(refusal);
    // Most refusals name their layer. A kernel that only says false, or throws without a word, is looked for by
    // configuring each once more.
    bool const names_layer = text.find("layer ") != std::string::npos;
    if (names_layer) RefuseLine({prefix, text});
    RefuseLine({prefix, RefusedKernel(*model, *config), text.empty() ? "" : ": ", text});
  }
  NamePorts(*model);
}

// The first layer whose kernel does not take its record, which the interface leaves without words.
std::string Model::Parts::RefusedKernel(TLModelInfo const& model, TLModelCfg const& config) const {
  for (std::string const& layer : model.squential_ids) {
    auto const& kernel = *config.layers.at(layer)->kernel;
    auto const& record = model.layers.at(layer);
    bool taken = false;
    try {
      taken = kernels.Create(kernel.kernel_type)->Config(record, kernel.infer_param, context);
    } catch (std::exception const&) {
    }
    if (!taken) {
      return Joined({"layer ", layer, " (", record->GetClassTypeName(), "): its kernel ", kernel.kernel_type,
                     " refuses the layer's record"});
    }
  }
  return "a layer is refused";
}

void Model::Parts::NamePorts(TLModelInfo const& model) {
  layer_ids = std::make_shared<std::vector<std::string> const>(model.squential_ids);
  unsigned int const height = model.extra_info.model_base_h, width = model.extra_info.model_base_w;
  bool const told = height != 0 && width != 0;
  auto const port = [&](unsigned int layer, bool sized) {
    return ModelPort{(*layer_ids)[layer],
                     sized ? std::vector<unsigned int>{0, height, width} : std::vector<unsigned int>()};
  };
  package->inputs.clear();  // the slot of layer 0, which may be no input
  for (unsigned int layer = 0; layer < layer_ids->size(); ++layer) {
    if (package->net->layers[layer]->type != "Input") continue;
    inputs.push_back(port(layer, told));
    package->inputs.emplace(layer, nullptr);
  }
  for (unsigned int layer : package->output_ids) outputs.push_back(port(layer, false));
}

unsigned int Model::Parts::LayerOf(std::string_view layer) const {
  unsigned int const position = PositionOf(layer, *layer_ids);
  if (position < layer_ids->size()) return position;
  RefuseLine({prefix, "model \"", id, "\" has no layer \"", layer,
              "\"; nearest: ", Listed(NearestNames(std::string(layer), *layer_ids))});
}

std::vector<unsigned int> Model::Parts::LayersOf(std::vector<std::string> const& ids) const {
  std::vector<unsigned int> layers;
  for (std::string const& output : ids) {
    unsigned int const layer = LayerOf(output);
    if (std::find(layers.begin(), layers.end(), layer) == layers.end()) layers.push_back(layer);
  }
  return layers;
}

std::string Model::Parts::KernelName(unsigned int layer) const {
  return package->net->layers[layer]->kernel->GetName();
}

std::shared_ptr<Tensor> Model::Parts::TensorOf(ModelInput const& input) const {
  if (input.tensor != nullptr) return input.tensor;
  if (input.values == nullptr && ElementCount(input.dims) != 0) RefuseLine({"is null"});
  return context->device_cpu->CreateTensor(
      TensorShape(input.dims, TensorShape::FLOAT32, LayoutOfRank(input.dims.size()), TensorShape::MainMemory, {}),
      input.values);
}

void Model::Parts::SetInputs(std::vector<ModelInput> const& given, std::vector<unsigned int> const& wanted) {
  for (ModelInput const& input : given) {
    unsigned int const layer = LayerOf(input.id);
    if (package->net->layers[layer]->type != "Input") {
      RefuseLine({prefix, "layer \"", input.id, "\" is no input of the model"});
    }
    std::shared_ptr<Tensor> tensor;
    try {
      tensor = TensorOf(input);
    } catch (std::runtime_error const& refusal) {
      RefuseLine({prefix, "input \"", input.id, "\": ", RefusalText(refusal)});
    }
    auto& slot = package->inputs.at(layer);
    if (slot != nullptr) RefuseLine({prefix, "input \"", input.id, "\" is given twice"});
    slot = std::move(tensor);
  }
  // An input behind the last output that is wanted is never reached by the walk.
  unsigned int const last = wanted.empty() ? 0 : *std::max_element(wanted.begin(), wanted.end());
  for (auto const& [input, layer] : package->net->input_ids) {
    if (layer > last || package->inputs.at(layer) != nullptr) continue;
    RefuseLine({prefix, "input \"", input, "\" has no tensor"});
  }
}

ModelOutputs Model::Parts::Forward(std::vector<ModelInput> const& given, std::vector<std::string> const& outputs_by_id,
                                   std::vector<float>* times) {
  auto const named = LayersOf(outputs_by_id);
  auto const& wanted = named.empty() ? package->output_ids : named;
  // On every way out the caller's tensors are let go, and its next ones are long-lived again.
  struct LetGo {
    ~LetGo() {
      for (auto& [layer, tensor] : parts.package->inputs) tensor = nullptr;
      if (parts.context->device_cpu != nullptr) parts.context->device_cpu->use_dynamic_pool = false;
    }
    Parts& parts;
  } const let_go{*this};
  SetInputs(given, wanted);
  try {
    ModelOutputs results;
    results.content_ = std::make_shared<ModelOutputs::Content>(
        context, layer_ids, package->net->Forward(package->inputs, wanted, context, times, nullptr));
    return results;
  } catch (std::bad_alloc const&) {
    throw;
  } catch (std::exception const& refusal) {  // an unknown operation is no std::runtime_error
    RefuseLine({prefix, LayerRefusal(RefusalText(refusal))});
  }
}

// `refusal` is what the library said of the layer; the result names layer and kernel.
std::string Model::Parts::LayerRefusal(std::string const& refusal) const {
  unsigned int const layer = runtime::support::RefusedLayer();
  if (layer >= layer_ids->size()) return refusal;
  std::string const where = "layer " + (*layer_ids)[layer], kernel = KernelName(layer);
  if (refusal.empty()) return Joined({where, " (", kernel, "): refuses its inputs"});
  bool const names_kernel = refusal.find(kernel) != std::string::npos;
  if (names_kernel && refusal.find(where + ":") != std::string::npos) return refusal;
  return names_kernel ? Joined({where, ": ", refusal}) : Joined({where, " (", kernel, "): ", refusal});
}

std::vector<std::shared_ptr<Tensor>> const& ModelOutputs::Content::All(std::string_view id) const {
  for (auto const& [layer, made] : tensors) {
    if ((*ids)[layer] == id) return made;
  }
  std::vector<std::string> names;
  for (auto const& [layer, made] : tensors) names.push_back((*ids)[layer]);
  RefuseLine({"there is no output \"", id, "\"; the run gave ", Listed(names)});
}

Tensor const& ModelOutputs::At(std::string_view id, std::size_t index) const {
  if (content_ == nullptr) RefuseLine({"there is no output \"", id, "\"; there was no run"});
  auto const& tensors = content_->All(id);
  if (index >= tensors.size() || tensors[index] == nullptr) {
    RefuseLine({"output \"", id, "\" has no tensor ", std::to_string(index)});
  }
  return *tensors[index];
}

Tensor const& ModelOutputs::operator[](std::string_view id) const { return At(id, 0); }

std::size_t ModelOutputs::TensorCount(std::string_view id) const {
  return content_ == nullptr ? 0 : content_->All(id).size();
}

std::string const& ModelOutputs::Id(std::string_view id) const {
  At(id, 0);
  return *std::find(content_->ids->begin(), content_->ids->end(), id);
}

float const* ModelOutputs::Values(std::string_view id) const& {
  Tensor const& tensor = (*this)[id];
  if (tensor.shape.data_type != TensorShape::FLOAT32) RefuseLine({"output \"", id, "\" is not of float32"});
  return static_cast<float const*>(tensor.data);
}

std::size_t ModelOutputs::Count(std::string_view id) const { return ElementCount(Dims(id)); }

std::vector<unsigned int> const& ModelOutputs::Dims(std::string_view id) const { return (*this)[id].shape.dims; }

Model::Model(std::string const& path, ModelOptions const& options)
    : parts_(std::make_unique<Parts>(*utility::OpenPackage(path), path, options)) {}

Model::Model(runtime::TLNModel& package, ModelOptions const& options)
    : parts_(std::make_unique<Parts>(package, "", options)) {}

Model::Model(std::unique_ptr<Parts> parts) : parts_(std::move(parts)) {}

Model Model::FromBytes(void const* bytes, std::size_t size, ModelOptions const& options) {
  char const* const name = "package";
  return Model(std::make_unique<Parts>(*utility::OpenPackage(bytes, size, name), name, options));
}

Model::Model(Model&&) noexcept = default;
Model& Model::operator=(Model&&) noexcept = default;
Model::~Model() = default;

Model::Parts& Model::Opened() const {
  if (parts_ == nullptr) RefuseLine({"the model was moved away"});
  return *parts_;
}

std::string const& Model::Id() const { return Opened().id; }
std::vector<ModelPort> const& Model::Inputs() const { return Opened().inputs; }
std::vector<ModelPort> const& Model::Outputs() const { return Opened().outputs; }
std::shared_ptr<runtime::Context> const& Model::Context() const { return Opened().context; }

ModelOutputs Model::Run(std::vector<ModelInput> const& inputs, std::vector<std::string> const& outputs) {
  return Opened().Forward(inputs, outputs, nullptr);
}

std::vector<LayerTime> Model::Profile(std::vector<ModelInput> const& inputs, std::vector<std::string> const& outputs,
                                      ModelOutputs* results) {
  std::vector<float> times;
  auto made = Opened().Forward(inputs, outputs, &times);
  std::vector<LayerTime> layers;
  for (unsigned int layer = 0; layer < times.size(); ++layer) {
    layers.push_back({(*Opened().layer_ids)[layer], Opened().KernelName(layer), times[layer]});
  }
  if (results != nullptr) *results = std::move(made);
  return layers;
}

void Model::Reset() { utility::ResetRNNState(*Opened().package->net); }

}  // namespace talvo
