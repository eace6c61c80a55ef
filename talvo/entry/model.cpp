#include "talvo/entry/model.h"

#include <algorithm>
#include <map>
#include <new>
#include <stdexcept>
#include <unordered_set>
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
using utility::support::Listed;
using utility::support::NearestNames;
using utility::support::RefusalText;

constexpr unsigned int kAlignment = 64;  // a cache line

#if defined(__aarch64__) || defined(__arm__)
constexpr char const* kBackend = "arm";
#else
constexpr char const* kBackend = "x86";
#endif

[[noreturn]] void Refuse(std::string const& text) { throw std::runtime_error(text); }

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

// The position of an id, or the length of the list.
unsigned int PositionOf(std::string_view id, std::vector<std::string> const& ids) {
  return static_cast<unsigned int>(std::find(ids.begin(), ids.end(), id) - ids.begin());
}

}  // namespace

namespace utility::support {

void RegisterEverything(ClassRegistry<std::shared_ptr<IKernel>>& kernels,
                        ClassRegistry<std::shared_ptr<InferenceParam>>& params) {
  utility::init_register_operators(kernels, params);
  utility::init_register_fused_operators(kernels);
  utility::init_register_extra_operators(kernels);
}

std::string BackendOf(ModelOptions const& options) { return options.backend.empty() ? kBackend : options.backend; }

std::string Sentence(ModelFinding const& finding) {
  return (finding.layer.empty() ? "" : "layer " + finding.layer + " ") + finding.text;
}

// The walk itself takes layer 0 for an id that no layer has: a slip of the pen would run.
std::vector<ModelFinding> UnknownIds(TLModelInfo const& model) {
  auto const& ids = model.squential_ids;
  std::unordered_set<std::string> const known(ids.begin(), ids.end());
  std::vector<ModelFinding> unknown;
  auto const check = [&](std::string const& wanted, std::string const& layer, char const* does) {
    if (known.count(wanted) != 0) return;
    unknown.push_back(
        {true, layer,
         does + (" \"" + wanted) + "\", which no layer is called; nearest: " + Listed(NearestNames(wanted, ids))});
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
    unknown.push_back({true, layer,
                       "names the kernel \"" + kernel +
                           "\", which there is not; nearest: " + Listed(NearestNames(kernel, kernels.GetKeys()))});
  }
  return unknown;
}

}  // namespace utility::support

Model::Parts::Parts(TLNModel& file, std::string package_name, ModelOptions const& options)
    : name(std::move(package_name)), context(options.context) {
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
  auto const& ids = file.model_arr->squential_ids;
  if (ids.empty()) Refuse(name + ": holds no model");
  if (wanted.empty() && ids.size() != 1) {
    Refuse(name + ": holds " + std::to_string(ids.size()) + " models (" + Listed(ids) + "); name one of them");
  }
  id = wanted.empty() ? ids[0] : wanted;
  if (PositionOf(id, ids) == ids.size()) Refuse(name + ": has no model \"" + id + "\"; it holds " + Listed(ids));
}

void Model::Parts::CheckVersion(TLNModel const& file) const {
  // The package is asked for its own word and version of the application: what is left to judge is the core's.
  utility::_TLNModelVerInfo const needs = {file.sdk_type, file.core_major_ver, file.core_minor_ver, file.sdk_major_ver,
                                           file.sdk_minor_ver};
  if (utility::check_version(file.sdk_type, file.sdk_major_ver, file.sdk_minor_ver, needs) == 0) return;
  unsigned int major = 0, minor = 0;
  TLN_Get_Core_Version(major, minor);
  Refuse(name + ": needs a runtime of version " + std::to_string(file.core_major_ver) + "." +
         std::to_string(file.core_minor_ver) + ", this one is " + std::to_string(major) + "." + std::to_string(minor));
}

void Model::Parts::BuildNet(TLNModel& file, ModelOptions const& options) {
  std::string const backend = utility::support::BackendOf(options);
  auto const model = file.model_arr->models.at(id);
  auto const configs = file.config_arr->configs.find(id);
  if (configs == file.config_arr->configs.end()) Refuse(name + ": model \"" + id + "\" has no configurations");
  auto const config = utility::support::ConfigOf(*configs->second, backend);
  if (config == nullptr) Refuse(name + ": model \"" + id + "\" has no configuration for \"" + backend + "\"");
  if (options.prefer_fused) utility::PreferFusedKernels(*config);
  for (auto const& unknown :
       {utility::support::UnknownIds(*model), utility::support::UnknownKernels(*model, *config, kernels)}) {
    if (!unknown.empty()) Refuse(name + ": " + utility::support::Sentence(unknown[0]));
  }
  try {
    utility::Load_Single_Net(package, model, configs->second, backend.c_str());
  } catch (std::bad_alloc const& refusal) {
    Refuse(name + ": " + RefusalText(refusal));
  } catch (std::exception const& refusal) {
    std::string const text = RefusalText(refusal);
    // Most refusals name their layer. A kernel that only says false, or throws without a word, is looked for by
    // configuring each once more.
    bool const names_layer = text.find("layer ") != std::string::npos;
    Refuse(name + ": " + (names_layer ? text : RefusedKernel(*model, *config) + (text.empty() ? "" : ": " + text)));
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
      return "layer " + layer + " (" + record->GetClassTypeName() + "): its kernel " + kernel.kernel_type +
             " refuses the layer's record";
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
  for (unsigned int layer = 0; layer < layer_ids->size(); ++layer) {
    if (package->net->layers[layer]->type == "Input") inputs.push_back(port(layer, told));
  }
  for (unsigned int layer : package->output_ids) outputs.push_back(port(layer, false));
  package->inputs.clear();
}

unsigned int Model::Parts::LayerOf(std::string_view layer) const {
  unsigned int const position = PositionOf(layer, *layer_ids);
  if (position < layer_ids->size()) return position;
  Refuse(name + ": model \"" + id + "\" has no layer \"" + std::string(layer) +
         "\"; nearest: " + Listed(NearestNames(std::string(layer), *layer_ids)));
}

std::string Model::Parts::KernelName(unsigned int layer) const {
  return package->net->layers[layer]->kernel->GetName();
}

std::shared_ptr<Tensor> Model::Parts::TensorOf(ModelInput const& input) const {
  if (input.tensor != nullptr) return input.tensor;
  if (input.values == nullptr) Refuse(name + ": input \"" + std::string(input.id) + "\" is null");
  return context->device_cpu->CreateTensor(
      TensorShape(input.dims, TensorShape::FLOAT32, LayoutOfRank(input.dims.size()), TensorShape::MainMemory, {}),
      input.values);
}

void Model::Parts::SetInputs(std::vector<ModelInput> const& given, std::vector<unsigned int> const& wanted) {
  for (ModelInput const& input : given) {
    unsigned int const layer = LayerOf(input.id);
    if (package->net->layers[layer]->type != "Input") {
      Refuse(name + ": layer \"" + std::string(input.id) + "\" is no input of the model");
    }
    if (!package->inputs.emplace(layer, TensorOf(input)).second) {
      Refuse(name + ": input \"" + std::string(input.id) + "\" is given twice");
    }
  }
  // An input behind the last output that is wanted is never reached by the walk.
  unsigned int const last = wanted.empty() ? 0 : *std::max_element(wanted.begin(), wanted.end());
  for (auto const& [input, layer] : package->net->input_ids) {
    if (layer > last || package->inputs.count(layer) != 0) continue;
    Refuse(name + ": input \"" + input + "\" has no tensor");
  }
}

ModelOutputs Model::Parts::Forward(std::vector<ModelInput> const& given, std::vector<unsigned int> const& wanted,
                                   std::vector<float>* times) {
  package->inputs.clear();
  SetInputs(given, wanted);
  ModelOutputs results;
  results.context_ = context;
  results.ids_ = layer_ids;
  try {
    results.tensors_ = package->net->Forward(package->inputs, wanted, context, times, nullptr);
  } catch (std::exception const& refusal) {
    package->inputs.clear();
    Refuse(name + ": " + LayerRefusal(RefusalText(refusal)));
  }
  package->inputs.clear();
  return results;
}

// `refusal` is what the library said of the layer; the result names layer and kernel.
std::string Model::Parts::LayerRefusal(std::string const& refusal) const {
  unsigned int const layer = runtime::support::RefusedLayer();
  std::string const where = "layer " + (*layer_ids)[layer], kernel = KernelName(layer);
  if (refusal.empty()) return where + " (" + kernel + "): refuses its inputs";
  bool const names_kernel = refusal.find(kernel) != std::string::npos;
  if (names_kernel && refusal.find(where + ":") != std::string::npos) return refusal;
  return where + (names_kernel ? ": " : " (" + kernel + "): ") + refusal;
}

std::vector<std::shared_ptr<Tensor>> const& ModelOutputs::All(std::string_view id) const {
  for (auto const& [layer, tensors] : tensors_) {
    if ((*ids_)[layer] == id) return tensors;
  }
  std::vector<std::string> names;
  for (auto const& [layer, tensors] : tensors_) names.push_back((*ids_)[layer]);
  Refuse("there is no output \"" + std::string(id) + "\"; the run gave " + Listed(names));
}

Tensor const& ModelOutputs::operator[](std::string_view id) const {
  auto const& tensors = All(id);
  if (tensors.empty() || tensors[0] == nullptr) Refuse("output \"" + std::string(id) + "\" has no tensor");
  return *tensors[0];
}

float const* ModelOutputs::Values(std::string_view id) const {
  Tensor const& tensor = (*this)[id];
  if (tensor.shape.data_type != TensorShape::FLOAT32) Refuse("output \"" + std::string(id) + "\" is not of float32");
  return static_cast<float const*>(tensor.data);
}

std::size_t ModelOutputs::Count(std::string_view id) const { return ElementCount(Dims(id)); }

std::vector<unsigned int> const& ModelOutputs::Dims(std::string_view id) const { return (*this)[id].shape.dims; }

Model::Model(std::string const& path, ModelOptions const& options)
    : parts_(std::make_unique<Parts>(*utility::OpenPackage(path), path, options)) {}

Model::Model(void const* bytes, std::size_t size, ModelOptions const& options)
    : parts_(std::make_unique<Parts>(*utility::OpenPackage(bytes, size, "package"), "package", options)) {}

Model::Model(runtime::TLNModel& package, ModelOptions const& options)
    : parts_(std::make_unique<Parts>(package, "package", options)) {}

Model::Model(Model&&) noexcept = default;
Model& Model::operator=(Model&&) noexcept = default;
Model::~Model() = default;

std::string const& Model::Id() const { return parts_->id; }
std::vector<ModelPort> const& Model::Inputs() const { return parts_->inputs; }
std::vector<ModelPort> const& Model::Outputs() const { return parts_->outputs; }
std::shared_ptr<runtime::Context> const& Model::Context() const { return parts_->context; }

ModelOutputs Model::Run(std::vector<ModelInput> const& inputs, std::vector<std::string> const& outputs) {
  if (outputs.empty()) return parts_->Forward(inputs, parts_->package->output_ids, nullptr);
  std::vector<unsigned int> wanted;
  for (std::string const& id : outputs) {
    unsigned int const layer = parts_->LayerOf(id);
    if (std::find(wanted.begin(), wanted.end(), layer) == wanted.end()) wanted.push_back(layer);
  }
  return parts_->Forward(inputs, wanted, nullptr);
}

std::vector<LayerTime> Model::Profile(std::vector<ModelInput> const& inputs) {
  std::vector<float> times;
  auto const results = parts_->Forward(inputs, parts_->package->output_ids, &times);
  std::vector<LayerTime> layers;
  for (unsigned int layer = 0; layer < times.size(); ++layer) {
    layers.push_back({(*parts_->layer_ids)[layer], parts_->KernelName(layer), times[layer]});
  }
  return layers;
}

void Model::Reset() { utility::ResetRNNState(*parts_->package->net); }

}  // namespace talvo
