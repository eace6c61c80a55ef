#include "talvo/runtime/net.h"

#include <algorithm>
#include <string_view>

#include "talvo/runtime/context.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/net_support.h"
#include "talvo/utility/log.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::runtime {
namespace {

using utility::Refuse;
using Tensors = std::vector<std::shared_ptr<Tensor>>;

constexpr std::string_view kInputType = "Input";

// Where the last Forward of this thread was refused: refusals of kernels do not know the layer that they run for.
thread_local unsigned int refused_layer = 0;

// The working state of one Forward.
class Walk {
 public:
  Walk(Net const& net, std::unordered_map<unsigned int, std::shared_ptr<Tensor>> const& inputs,
       std::vector<unsigned int> const& output_ids, std::shared_ptr<Context> const& context)
      : net_(net), inputs_(inputs), context_(context), pending_(output_ids.size()), states_(net.layers.size()) {
    for (unsigned int id : output_ids) {
      if (id < states_.size()) ++states_[id].requests;
    }
    for (auto const& input : inputs) {
      if (input.first < states_.size()) states_[input.first].is_fed = true;
    }
  }

  bool Done() const { return pending_ == 0; }

  void Run(unsigned int index) {
    index_ = index;
    if (net_.layers[index] == nullptr) Refuse("layer %u: no layer record", index);
    layer_ = net_.layers[index].get();
    bool const is_requested = states_[index].requests != 0;
    GatherInputs();
    Tensors& outputs = states_[index].outputs;
    outputs.swap(spare_list_);
    RunKernel(layer_->kernel, "kernel", kernel_inputs_, !is_requested || !layer_->output_converters.empty(), outputs);
    ConvertOutputs(outputs, !is_requested);
    ReleaseProducers();
    if (is_requested) {
      --pending_;  // further requests of the layer are never served
      result_.emplace(index, outputs);
    }
    kernel_inputs_.clear();
  }

  std::unordered_map<unsigned int, Tensors> TakeResult() { return std::move(result_); }

 private:
  void RunKernel(std::shared_ptr<IKernel> const& kernel, char const* role, Tensors const& inputs, bool intermediate,
                 Tensors& outputs) {
    if (kernel == nullptr || !kernel->IsConfigured()) {
      Refuse("layer %u (%s): its %s %s", index_, layer_->type.c_str(), role,
             kernel == nullptr ? "is missing" : (kernel->GetName() + " is not configured").c_str());
    }
    kernel->PrepareForward(context_, inputs, intermediate, outputs);
    kernel->Forward(inputs, outputs, context_);
  }

  std::shared_ptr<Tensor> Convert(std::shared_ptr<IKernel> const& converter, std::shared_ptr<Tensor> const& tensor,
                                  bool intermediate) {
    Tensors product;
    RunKernel(converter, "converter", {tensor}, intermediate, product);
    if (product.empty() || product[0] == nullptr) {
      Refuse("layer %u (%s): its converter %s made no tensor", index_, layer_->type.c_str(),
             converter->GetName().c_str());
    }
    return std::move(product[0]);
  }

  void GatherInputs() {
    if (layer_->type == kInputType) {
      auto const input = inputs_.find(index_);
      if (input == inputs_.end() || input->second == nullptr) {
        Refuse("layer %u (%s): no input tensor under key %u", index_, layer_->type.c_str(), index_);
      }
      kernel_inputs_.push_back(input->second);
      return;
    }
    for (unsigned int position = 0; position < layer_->input_refs.size(); ++position) {
      std::shared_ptr<Tensor>& tensor = Produced(position);
      auto const converter = layer_->input_converters.find(position);
      if (converter != layer_->input_converters.end()) {
        kernel_inputs_.push_back(Convert(converter->second, tensor, true));
      } else if (IsDropped(layer_->input_refs)) {
        kernel_inputs_.push_back(std::move(tensor));
      } else {
        kernel_inputs_.push_back(tensor);
      }
    }
  }

  // Whether this layer alone reads the only tensor that it reads. Counts of shared pointers are slow to change.
  bool IsDropped(std::vector<std::pair<std::uint32_t, std::uint32_t>> const& refs) {
    return refs.size() == 1 && !states_[refs[0].first].is_fed && LastReader(refs[0].first) <= index_;
  }

  std::shared_ptr<Tensor>& Produced(unsigned int position) {
    auto const [producer, output] = layer_->input_refs[position];
    bool const made =
        producer < index_ && output < states_[producer].outputs.size() && states_[producer].outputs[output] != nullptr;
    if (!made) {
      Refuse("layer %u (%s): its input %u is output %u of layer %u, which %s", index_, layer_->type.c_str(), position,
             output, producer, producer < index_ ? "did not make that tensor" : "does not stand before it");
    }
    return states_[producer].outputs[output];
  }

  void ConvertOutputs(Tensors& outputs, bool intermediate) {
    if (layer_->output_converters.empty()) return;
    for (unsigned int position = 0; position < outputs.size(); ++position) {
      auto const converter = layer_->output_converters.find(position);
      if (converter == layer_->output_converters.end()) continue;
      if (outputs[position] == nullptr)
        Refuse("layer %u (%s): output %u, which a converter reads, is missing", index_, layer_->type.c_str(), position);
      outputs[position] = Convert(converter->second, outputs[position], intermediate);
    }
  }

  // Drops the outputs of every producer of this layer whose readers have all run.
  void ReleaseProducers() {
    for (auto const& [producer, output] : layer_->input_refs) {
      if (producer < states_.size() ? states_[producer].is_fed : inputs_.count(producer) != 0) continue;
      if (producer >= states_.size() || net_.layers[producer] == nullptr) {
        Refuse("layer %u (%s): it reads layer %u of %zu", index_, layer_->type.c_str(), producer, states_.size());
      }
      // Layers run in order: what stands up to this layer has run, even if its own outputs are gone by now.
      if (LastReader(producer) > index_) continue;
      states_[producer].outputs.clear();
      spare_list_.swap(states_[producer].outputs);
    }
  }

  // The readers are looked through once in a walk: a layer may have as many as the net has layers.
  std::uint32_t LastReader(unsigned int producer) {
    std::uint32_t& last = states_[producer].last_reader;
    if (last != kUnknown) return last;
    std::uint32_t found = 0;
    for (auto const& reader : net_.layers[producer]->consumers) found = std::max(found, reader.first);
    if (found >= states_.size()) {
      Refuse("layer %u (%s): its consumer %u is beyond the %zu layers", producer, net_.layers[producer]->type.c_str(),
             found, states_.size());
    }
    return last = found;
  }

  static constexpr std::uint32_t kUnknown = 0xFFFFFFFF;

  struct LayerState {
    Tensors outputs;
    std::uint32_t last_reader = kUnknown;
    std::uint32_t requests = 0;  // how often the caller named the layer
    bool is_fed = false;         // the caller gave a tensor for it
  };

  Net const& net_;
  std::unordered_map<unsigned int, std::shared_ptr<Tensor>> const& inputs_;
  std::shared_ptr<Context> const& context_;
  std::size_t pending_;  // requests that are not served
  std::vector<LayerState> states_;
  std::unordered_map<unsigned int, Tensors> result_;

  // The layer that runs.
  unsigned int index_ = 0;
  Layer const* layer_ = nullptr;
  Tensors kernel_inputs_;
  Tensors spare_list_;  // empty, with the memory of a list that was dropped
};

void EmptyAndReserve(std::vector<float>* times, std::size_t count) {
  if (times == nullptr) return;
  times->clear();
  times->reserve(count);
}

void LogUnprofiledInput(Layer const& layer) {
  if (layer.type == kInputType && layer.output_converters.empty() && layer.input_converters.empty()) {
    utility::Log(2, "Input Layer without any converter do not need to profile gpu time.");
  }
}

}  // namespace

unsigned int support::RefusedLayer() { return refused_layer; }

Net::Net(std::vector<std::shared_ptr<Layer>> const& net_layers,
         std::map<std::string, unsigned int> const& net_input_ids)
    : layers(net_layers), input_ids(net_input_ids) {}

std::unordered_map<unsigned int, Tensors> Net::Forward(
    std::unordered_map<unsigned int, std::shared_ptr<Tensor>> const& inputs,
    std::vector<unsigned int> const& output_ids, std::shared_ptr<Context> context, std::vector<float>* layer_times_ms,
    std::vector<float>* gpu_times_ms) const {
  if (context == nullptr || context->device_cpu == nullptr)
    Refuse("Net::Forward: %s", context == nullptr ? "the context is null" : "the context has no CPU device");
  DeviceCPU& device = *context->device_cpu;
  device.use_dynamic_pool = device.dynamic_pool != nullptr;  // an exception leaves it on, until the next call ends
  EmptyAndReserve(layer_times_ms, layers.size());
  EmptyAndReserve(gpu_times_ms, layers.size());
  unsigned int index = static_cast<unsigned int>(layers.size());
  try {
    Walk walk(*this, inputs, output_ids, context);
    for (index = 0; index < layers.size() && !walk.Done(); ++index) {
      if (gpu_times_ms != nullptr && layers[index] != nullptr) LogUnprofiledInput(*layers[index]);
      double const start = layer_times_ms != nullptr ? utility::get_time_in_ms() : -1.0;
      walk.Run(index);
      if (layer_times_ms != nullptr) layer_times_ms->push_back(static_cast<float>(utility::get_time_in_ms() - start));
      if (gpu_times_ms != nullptr) gpu_times_ms->push_back(0.0f);
    }
    device.use_dynamic_pool = false;
    return walk.TakeResult();
  } catch (...) {
    refused_layer = index;
    throw;
  }
}

}  // namespace talvo::runtime
