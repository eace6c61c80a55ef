#include "tools/run_package/session.h"

#include <algorithm>
#include <cstdio>
#include <numeric>
#include <stdexcept>
#include <utility>

#include "talvo/entry/create_context.h"
#include "talvo/entry/open_package.h"
#include "talvo/entry/register_extra_operators.h"
#include "talvo/entry/register_fused_operators.h"
#include "talvo/entry/register_operators.h"
#include "talvo/utility/log.h"
#include "tools/common/program.h"
#include "tools/run_package/npy.h"

namespace run_package {
namespace {

using namespace talvo::runtime;
using talvo::utility::get_time_in_ms;
using tools::Message;

constexpr unsigned int kAlignment = 64;

std::string last_error;             // what the library reported last on its error level
std::vector<std::string> warnings;  // and what it warned of

// Nothing is printed here: an error is reported once, by whoever ends the program.
int Report(char const* line) {
  std::string text(line);
  text.erase(text.find_last_not_of('\n') + 1);
  if (text.find("] (Warnning): ") == std::string::npos) {
    last_error = text.substr(std::min(text.find("]: ") + 3, text.size()));
  } else if (std::find(warnings.begin(), warnings.end(), text) == warnings.end()) {
    warnings.push_back(text);
  }
  return 0;
}

[[noreturn]] void Refuse(std::string const& text) { throw std::runtime_error(text); }

std::string Join(std::vector<std::string> const& ids) {
  std::string text;
  for (std::string const& id : ids) text += (text.empty() ? "" : ", ") + id;
  return text;
}

// The configurations among which the library chooses for a back end.
std::vector<std::shared_ptr<TLModelCfg>> Candidates(TLModelMultiBackendCfgs const& configs,
                                                    std::string const& backend) {
  if (backend == "x86") return {configs.cpu_sse};
  if (backend == "metal") return {configs.gpu_metal};
  return {configs.cpu_armv8, configs.cpu_armv82, configs.cpu_armv7};
}

bool Takes(IKernel& kernel, std::shared_ptr<LayerInfo> const& layer, std::shared_ptr<InferenceParam> const& param,
           std::shared_ptr<Context> const& context) {
  try {
    return kernel.Config(layer, param, context);
  } catch (std::exception const&) {
    return false;
  }
}

}  // namespace

Session::Session(Arguments const& arguments) : path_(arguments.package), backend_(arguments.backend) {
  talvo::utility::SetLogCallback(Report);
  talvo::utility::create_context(context_, kAlignment);
  talvo::utility::init_register_operators(kernels_, params_);
  talvo::utility::init_register_fused_operators(kernels_);
  talvo::utility::init_register_extra_operators(kernels_);
  file_ = talvo::utility::OpenPackage(path_);
  if (arguments.list) return;
  ChooseModel(arguments.model);
  BuildNet(arguments.prefer_fused);
  if (!arguments.outputs.empty()) RequestOutputs(arguments.outputs);
}

void Session::ChooseModel(std::string const& wanted) {
  auto const& ids = file_->model_arr->squential_ids;
  if (ids.empty()) Refuse(path_ + ": holds no model");
  if (wanted.empty() && ids.size() != 1) {
    Refuse(path_ + ": holds " + std::to_string(ids.size()) + " models (" + Join(ids) + "); choose one with --model");
  }
  model_id_ = wanted.empty() ? ids[0] : wanted;
  if (std::find(ids.begin(), ids.end(), model_id_) == ids.end()) {
    Refuse(path_ + ": has no model \"" + model_id_ + "\"; it holds " + Join(ids));
  }
  std::map<std::string, std::shared_ptr<talvo::utility::_NetworkPackage>> packages;
  int const refused = talvo::utility::load_model(path_, packages, context_, kernels_, params_, file_->sdk_type,
                                                 file_->sdk_major_ver, file_->sdk_minor_ver);
  if (refused != 0) Refuse(path_ + ": " + last_error);
  model_ = file_->model_arr->models.at(model_id_);
  package_ = packages.at(model_id_);
}

void Session::BuildNet(bool prefer_fused) {
  auto const configs = file_->config_arr->configs.find(model_id_);
  if (configs == file_->config_arr->configs.end())
    Refuse(path_ + ": model \"" + model_id_ + "\" has no configurations");
  if (prefer_fused) {
    for (auto const& config : Candidates(*configs->second, backend_)) talvo::utility::PreferFusedKernels(*config);
  }
  try {
    talvo::utility::Load_Single_Net(package_, model_, configs->second, backend_.c_str());
  } catch (std::exception const& refusal) {
    std::string const message = Message(refusal);
    bool const names_layer = message.find("layer ") != std::string::npos;
    Refuse(path_ + ": " + (names_layer ? message : RefusedKernel(*configs->second, message)));
  }
}

// Names the first layer whose kernel refuses its record: the library's exception, of text `refusal`, does not say.
std::string Session::RefusedKernel(TLModelMultiBackendCfgs const& configs, std::string const& refusal) const {
  for (auto const& config : Candidates(configs, backend_)) {
    for (std::string const& id : model_->squential_ids) {
      auto const layer = config->layers.find(id);
      if (layer == config->layers.end()) break;
      KernelCfg const& kernel = *layer->second->kernel;
      auto const made = kernels_.Create(kernel.kernel_type);
      if (made != nullptr && !Takes(*made, model_->layers.at(id), kernel.infer_param, context_)) {
        return "layer " + id + " (" + model_->layers.at(id)->GetClassTypeName() + "): its kernel " +
               kernel.kernel_type + " refuses the layer's record" + (refusal.empty() ? "" : ": " + refusal);
      }
    }
  }
  return refusal.empty() ? "a kernel refuses its layer's record" : refusal;
}

void Session::RequestOutputs(std::vector<std::string> const& ids) {
  package_->output_ids.clear();
  for (std::string const& id : ids) {
    unsigned int const index = IndexOf(id);
    auto& requested = package_->output_ids;
    if (std::find(requested.begin(), requested.end(), index) == requested.end()) requested.push_back(index);
  }
}

unsigned int Session::IndexOf(std::string const& layer) const {
  auto const& ids = model_->squential_ids;
  auto const found = std::find(ids.begin(), ids.end(), layer);
  if (found == ids.end()) Refuse("model \"" + model_id_ + "\" has no layer \"" + layer + "\"");
  return static_cast<unsigned int>(found - ids.begin());
}

// `refusal` is what the library said while this layer ran; the result names layer and kernel.
std::string Session::LayerRefusal(unsigned int layer, std::string const& refusal) const {
  if (layer >= package_->net->layers.size()) return refusal;
  std::string const id = "layer " + model_->squential_ids[layer], kernel = KernelName(layer);
  if (refusal.empty()) return id + " (" + kernel + "): refuses its inputs";
  bool const names_kernel = refusal.find(kernel) != std::string::npos;
  if (names_kernel && refusal.find(id + ":") != std::string::npos) return refusal;
  return id + (names_kernel ? ": " : " (" + kernel + "): ") + refusal;
}

std::vector<std::string> const& Session::Warnings() { return warnings; }

std::string Session::KernelName(unsigned int layer) const { return package_->net->layers[layer]->kernel->GetName(); }

void Session::FillInputs(std::vector<InputFile> const& inputs) {
  for (InputFile const& input : inputs) {
    unsigned int const index = IndexOf(input.layer);
    if (package_->net->layers[index]->type != "Input") Refuse("layer \"" + input.layer + "\" is no input of the model");
    package_->inputs[index] = ReadNpy(input.path, input.layout, *context_->device_cpu);
  }
  auto const& requested = OutputIndices();
  for (auto const& [id, index] : package_->net->input_ids) {
    bool const runs = std::any_of(requested.begin(), requested.end(), [i = index](unsigned int o) { return o >= i; });
    if (runs && package_->inputs[index] == nullptr)
      Refuse("input layer \"" + id + "\" has no tensor; give one with --input " + id + "=FILE.npy");
  }
}

void Session::RunOnce(std::vector<unsigned int> const& output_ids, RunResult& result) {
  std::vector<float> times;
  try {
    result.outputs = package_->net->Forward(package_->inputs, output_ids, package_->context, &times, nullptr);
  } catch (std::exception const& refusal) {
    // The layers that ran have a time each; the next one is the one that refused.
    Refuse(LayerRefusal(static_cast<unsigned int>(times.size()), Message(refusal)));
  }
  result.layer_times_ms.push_back(std::move(times));
}

RunResult Session::Run(std::vector<InputFile> const& inputs, unsigned int repeat, bool keep_all) {
  FillInputs(inputs);
  std::vector<unsigned int> every_layer(
      keep_all && !OutputIndices().empty() ? 1 + *std::max_element(OutputIndices().begin(), OutputIndices().end()) : 0);
  std::iota(every_layer.begin(), every_layer.end(), 0u);
  RunResult result;
  std::vector<double> times;
  for (unsigned int i = 0; i < repeat; ++i) {
    result.outputs.clear();
    double const start = get_time_in_ms();
    RunOnce(keep_all && i + 1 == repeat ? every_layer : OutputIndices(), result);
    times.push_back(get_time_in_ms() - start);
  }
  std::nth_element(times.begin(), times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2), times.end());
  result.time_ms = times[times.size() / 2];
  return result;
}

}  // namespace run_package
