#include "talvo/entry/check_model.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "talvo/entry/model_parts_support.h"
#include "talvo/entry/model_support.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/kernel.h"
#include "talvo/runtime/memory_pool.h"
#include "talvo/serialization/layer_info_conv.h"
#include "talvo/serialization/weights.h"
#include "talvo/utility/base64.h"
#include "talvo/utility/half.h"

namespace talvo {
namespace {

using namespace runtime;
using utility::support::Joined;
using utility::support::Listed;

// Hands every call to the kernel of a layer and then tells that the layer has run.
class WatchedKernel : public IKernel {
 public:
  using Watch = std::function<void(std::vector<std::shared_ptr<Tensor>> const& inputs,
                                   std::vector<std::shared_ptr<Tensor>> const& outputs)>;

  WatchedKernel(std::shared_ptr<IKernel> kernel, Watch watch) : kernel_(std::move(kernel)), watch_(std::move(watch)) {}

  std::string GetName() const override { return kernel_->GetName(); }
  int IsValidParam(std::shared_ptr<LayerInfo> layer, std::shared_ptr<InferenceParam> param) const override {
    return kernel_->IsValidParam(layer, param);
  }
  bool Config(std::shared_ptr<LayerInfo> layer, std::shared_ptr<InferenceParam> param,
              std::shared_ptr<Context> context) override {
    return kernel_->Config(layer, param, context);
  }
  bool IsConfigured() const override { return kernel_->IsConfigured(); }
  std::vector<TensorShape> GetOutputShapes(std::vector<TensorShape> const& input_shapes) const override {
    return kernel_->GetOutputShapes(input_shapes);
  }
  int PrepareForward(std::shared_ptr<Context> const& context, std::vector<std::shared_ptr<Tensor>> const& inputs,
                     bool const& intermediate, std::vector<std::shared_ptr<Tensor>>& outputs) override {
    return kernel_->PrepareForward(context, inputs, intermediate, outputs);
  }
  int ResetRNNState() const override { return kernel_->ResetRNNState(); }
  int IsValidInput(std::vector<std::shared_ptr<Tensor>> const& inputs) const override {
    return kernel_->IsValidInput(inputs);
  }
  int IsValidOutput(std::vector<std::shared_ptr<Tensor>> const& outputs) const override {
    return kernel_->IsValidOutput(outputs);
  }
  int Forward(std::vector<std::shared_ptr<Tensor>> const& inputs, std::vector<std::shared_ptr<Tensor>>& outputs,
              std::shared_ptr<Context> context) const override {
    int const status = kernel_->Forward(inputs, outputs, context);
    watch_(inputs, outputs);
    return status;
  }

 private:
  std::shared_ptr<IKernel> const kernel_;
  Watch const watch_;
};

std::string ElementsText(std::size_t count) { return std::to_string(count) + (count == 1 ? " element" : " elements"); }

// What a layer leaves unread of a tensor that is larger than its record says.
std::optional<std::string> UnreadPart(LayerInfo const& record, Tensor const& input) {
  auto const& dims = input.shape.dims;
  std::size_t const count = ElementCount(dims);
  auto const* const dense = dynamic_cast<FullConnectionInfo const*>(&record);
  if (dense != nullptr && count != dense->in_features) {
    return Joined(
        {"reads ", std::to_string(dense->in_features), " of the ", ElementsText(count), " of ", DimsText(dims)});
  }
  auto const channels = [&](std::size_t in_channels) -> std::optional<std::string> {
    if (dims.empty() || input.shape.layout == TensorShape::C4HW4 || dims[0] <= in_channels) return std::nullopt;
    return Joined({"reads ", std::to_string(in_channels), " of the channels of ", DimsText(dims)});
  };
  if (auto const* const plane = dynamic_cast<Conv2dInfo const*>(&record)) return channels(plane->in_channels);
  if (auto const* const line = dynamic_cast<Conv1dInfo const*>(&record)) return channels(line->in_channels);
  if (auto const* const up = dynamic_cast<ConvTranspose2dInfo const*>(&record)) return channels(up->in_channels);
  return std::nullopt;
}

}  // namespace

// One run of a net of its own, with someone looking over its shoulder.
class ModelTrial {
 public:
  using Watch = std::function<void(unsigned int layer, std::vector<std::shared_ptr<Tensor>> const& inputs,
                                   std::vector<std::shared_ptr<Tensor>> const& outputs)>;

  ModelTrial(TLNModel& package, ModelOptions options) : model_(package, OwnContext(std::move(options))) {
    auto& layers = model_.parts_->package->net->layers;
    for (unsigned int layer = 0; layer < layers.size(); ++layer) {
      layers[layer]->kernel = std::make_shared<WatchedKernel>(
          layers[layer]->kernel,
          [this, layer](auto const& inputs, auto const& outputs) { watch_(layer, inputs, outputs); });
    }
  }
  ModelTrial(ModelTrial const&) = delete;
  ModelTrial& operator=(ModelTrial const&) = delete;

  std::vector<ModelPort> const& Inputs() const { return model_.Inputs(); }
  unsigned long PoolBytes() const { return model_.Context()->device_cpu->dynamic_pool->HeapSize(); }
  std::string KernelName(unsigned int layer) const { return model_.parts_->KernelName(layer); }
  std::string const& LayerId(unsigned int layer) const { return (*model_.parts_->layer_ids)[layer]; }

  void SetInputs(InputDims const& extents) {
    CheckNames(extents);
    for (ModelPort const& port : Inputs()) {
      auto const dims = extents.find(port.id);
      if (dims == extents.end()) continue;
      values_.emplace_back(ElementCount(dims->second), 0.5f);
      inputs_.emplace_back(port.id, values_.back().data(), dims->second);
    }
  }

  void Run(Watch watch) {
    watch_ = std::move(watch);
    model_.Run(inputs_);
  }

  void CheckNames(InputDims const& inputs) const {
    std::vector<std::string> names;
    for (ModelPort const& port : Inputs()) names.push_back(port.id);
    for (auto const& [id, dims] : inputs) {
      if (std::find(names.begin(), names.end(), id) == names.end())
        throw std::runtime_error(Joined({"the model has no input \"", id, "\"; it has ", Listed(names)}));
    }
  }

 private:
  static ModelOptions OwnContext(ModelOptions options) {
    options.context = nullptr;
    return options;
  }

  Watch watch_;
  Model model_;
  std::vector<std::vector<float>> values_;
  std::vector<ModelInput> inputs_;
};

namespace {

class Checker {
 public:
  Checker(TLNModel& package, ModelOptions const& options) : package_(package), options_(options) {}

  std::vector<ModelFinding> Run(InputDims const& inputs) {
    if (auto const model = Chosen()) {
      CheckReaders(*model);
      CheckOutputs(*model);
      for (std::string const& id : model->squential_ids) CheckWeights(id, *model->layers.at(id));
      for (ModelFinding& unknown : utility::support::UnknownIds(*model)) findings_.push_back(std::move(unknown));
      for (ModelFinding& unknown : UnknownKernelsOf(*model)) findings_.push_back(std::move(unknown));
    }
    bool const refused =
        std::any_of(findings_.begin(), findings_.end(), [](ModelFinding const& finding) { return finding.refused; });
    if (!refused) Try(inputs);
    return std::move(findings_);
  }

 private:
  void Warn(std::string const& layer, std::string text) { findings_.push_back({false, layer, std::move(text)}); }

  std::shared_ptr<TLModelInfo> Chosen() const {
    if (package_.model_arr == nullptr || package_.config_arr == nullptr) return nullptr;
    auto const& ids = package_.model_arr->squential_ids;
    if (ids.empty() || (options_.model.empty() && ids.size() != 1)) return nullptr;
    auto const found = package_.model_arr->models.find(options_.model.empty() ? ids[0] : options_.model);
    return found != package_.model_arr->models.end() && IsWhole(found->second.get()) ? found->second : nullptr;
  }

  // Records made by hand may have gaps, which Model refuses.
  static bool IsWhole(TLModelInfo const* model) {
    return model != nullptr &&
           std::all_of(model->squential_ids.begin(), model->squential_ids.end(), [&](auto const& id) {
             auto const record = model->layers.find(id);
             return record != model->layers.end() && record->second != nullptr;
           });
  }

  std::vector<ModelFinding> UnknownKernelsOf(TLModelInfo const& model) const {
    auto const configs = package_.config_arr->configs.find(options_.model.empty() ? package_.model_arr->squential_ids[0]
                                                                                  : options_.model);
    auto const config = configs != package_.config_arr->configs.end() && configs->second != nullptr
                            ? utility::support::ConfigOf(*configs->second, utility::support::BackendOf(options_))
                            : nullptr;
    if (config == nullptr) return {};
    ClassRegistry<std::shared_ptr<IKernel>> kernels;
    ClassRegistry<std::shared_ptr<InferenceParam>> params;
    utility::support::RegisterEverything(kernels, params);
    return utility::support::UnknownKernels(model, *config, kernels);
  }

  void CheckReaders(TLModelInfo const& model) {
    std::set<std::string_view> read(model.squential_output_ids.begin(), model.squential_output_ids.end());
    for (std::string const& id : model.squential_ids) {
      auto const& inputs = model.layers.at(id)->input_ids;
      read.insert(inputs.begin(), inputs.end());
    }
    for (std::string const& id : model.squential_ids) {
      if (read.count(id) == 0) Warn(id, "no layer reads it and it is no output");
    }
  }

  void CheckOutputs(TLModelInfo const& model) {
    if (model.squential_output_ids.empty()) Warn("", "the model names no output");
    for (std::string const& id : model.squential_output_ids) {
      auto const found = model.layers.find(id);
      if (found != model.layers.end() && found->second->type == 0)
        Warn(id, "it is an input and an output of the model");
    }
  }

  void CheckWeights(std::string const& layer, LayerInfo& record) {
    ForEachWeight(record, [&](char const* key, std::string& base64) {
      std::string const bytes = Base64Decode(base64);
      std::size_t no_number = 0, lost = 0, too_large = 0;
      std::size_t const count = bytes.size() / sizeof(float);
      for (std::size_t i = 0; i < count; ++i) {
        float value;
        std::memcpy(&value, bytes.data() + i * sizeof value, sizeof value);
        auto const half = static_cast<float>(half_float::half(value));
        no_number += std::isnan(value);
        lost += value != 0.0f && half == 0.0f;
        too_large += std::isfinite(value) && std::isinf(half);
      }
      auto const say = [&](std::size_t some, char const* what) {
        if (some == 0) return;
        Warn(layer, Joined({std::to_string(some), " of the ", std::to_string(count), " values of ", key, " ", what}));
      };
      say(no_number, "are no numbers");
      say(lost, "are so small that the binary form makes them 0");
      say(too_large, "are so large that the binary form makes them infinite");
    });
  }

  // A run meets the refusals in order, and what it accepts an application's run accepts.
  void Try(InputDims const& inputs) {
    try {
      ModelTrial trial(package_, options_);
      bool const known = std::all_of(trial.Inputs().begin(), trial.Inputs().end(),
                                     [&](ModelPort const& port) { return inputs.count(port.id) != 0; });
      if (!known && !inputs.empty()) trial.CheckNames(inputs);
      if (!known) return;
      auto const model = Chosen();
      trial.SetInputs(inputs);
      trial.Run([&](unsigned int layer, auto const& tensors, auto const&) {
        auto const& record = *model->layers.at(trial.LayerId(layer));
        if (tensors.empty() || tensors[0] == nullptr) return;
        if (auto const unread = UnreadPart(record, *tensors[0])) Warn(trial.LayerId(layer), *unread);
      });
    } catch (std::exception const& refusal) {
      findings_.push_back({true, "", utility::support::RefusalText(refusal)});
    }
  }

  TLNModel& package_;
  ModelOptions const& options_;
  std::vector<ModelFinding> findings_;
};

}  // namespace

std::string TextOf(ModelFinding const& finding) {
  bool const of_layer = !finding.layer.empty();
  return utility::support::OneLine(Joined({finding.refused ? "refused: " : "warning: ", of_layer ? "layer " : "",
                                           finding.layer, of_layer ? ": " : "", finding.text}));
}

namespace {

// The tensors of a run that somebody still holds.
class LiveTensors {
 public:
  // Enters the tensors that a layer has made, and tells what all hold that are alive.
  unsigned long Bytes(std::vector<std::shared_ptr<Tensor>> const& made) {
    for (auto const& tensor : made) {
      if (tensor != nullptr) tensors_[tensor.get()] = tensor;
    }
    unsigned long bytes = 0;
    for (auto at = tensors_.begin(); at != tensors_.end();) {
      auto const tensor = at->second.lock();
      bytes += tensor != nullptr ? ByteCount(tensor->shape) : 0;
      at = tensor != nullptr ? std::next(at) : tensors_.erase(at);
    }
    return bytes;
  }

 private:
  std::unordered_map<Tensor const*, std::weak_ptr<Tensor>> tensors_;
};

}  // namespace

std::vector<ModelFinding> CheckModel(TLNModel& package, InputDims const& inputs, ModelOptions const& options) {
  return Checker(package, options).Run(inputs);
}

MemoryReport MeasureMemory(TLNModel& package, InputDims const& inputs, ModelOptions const& options) {
  ModelTrial trial(package, options);
  MemoryReport report{};
  LiveTensors alive;
  trial.SetInputs(inputs);
  trial.Run([&](unsigned int layer, auto const&, auto const& outputs) {
    bool const made = !outputs.empty() && outputs[0] != nullptr;
    report.layers.push_back({trial.LayerId(layer), trial.KernelName(layer),
                             made ? outputs[0]->shape.dims : std::vector<unsigned int>(), trial.PoolBytes(),
                             alive.Bytes(outputs)});
  });
  report.first_bytes = report.steady_bytes = trial.PoolBytes();
  for (unsigned long before = 0; before != report.steady_bytes;) {
    before = report.steady_bytes;
    trial.Run([](unsigned int, auto const&, auto const&) {});
    report.steady_bytes = trial.PoolBytes();
  }
  return report;
}

}  // namespace talvo
