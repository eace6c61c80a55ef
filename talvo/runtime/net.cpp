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
    layer_ = net_.layers[index].get();
    if (layer_ == nullptr) Refuse("layer %u: no layer record", index);
    LayerState& state = states_[index];
    bool const is_requested = state.requests != 0;
    bool const took_list = TakeListOver(state.outputs);
    if (!took_list) {
      GatherInputs();
      state.outputs.swap(spare_list_);
    }
    RunKernel(layer_->kernel, "kernel", kernel_inputs_, !is_requested || !layer_->output_converters.empty(),
              state.outputs);
    if (!layer_->output_converters.empty()) ConvertOutputs(state.outputs, !is_requested);
    if (!took_list) ReleaseProducers();
    if (is_requested) Serve(state.outputs);
    kernel_inputs_.clear();
  }

  std::unordered_map<unsigned int, Tensors> TakeResult() { return std::move(result_); }

 private:
  void RunKernel(std::shared_ptr<IKernel> const& kernel, char const* role, Tensors const& inputs, bool intermediate,
                 Tensors& outputs) {
    if (kernel == nullptr || !kernel->IsConfigured()) RefuseKernel(kernel.get(), role);
    kernel->PrepareForward(context_, inputs, intermediate, outputs);
    kernel->Forward(inputs, outputs, context_);
  }

  [[noreturn, gnu::cold]] void RefuseKernel(IKernel const* kernel, char const* role) const {
    Refuse("layer %u (%s): its %s %s", index_, layer_->type.c_str(), role,
           kernel == nullptr ? "is missing" : (kernel->GetName() + " is not configured").c_str());
  }

  // Converters are few, and cost more than their call.
  [[gnu::cold]] std::shared_ptr<Tensor> Convert(std::shared_ptr<IKernel> const& converter,
                                                std::shared_ptr<Tensor> const& tensor, bool intermediate) {
    Tensors product;
    RunKernel(converter, "converter", {tensor}, intermediate, product);
    if (product.empty() || product[0] == nullptr) {
      Refuse("layer %u (%s): its converter %s made no tensor", index_, layer_->type.c_str(),
             converter->GetName().c_str());
    }
    return std::move(product[0]);
  }

  // In a chain the list of the producer, which no other layer reads, becomes the list of inputs, and that of the inputs
  // before becomes `outputs`: no pointer is copied, for counts of shared pointers are slow to change. False: it is no
  // chain, and nothing was done.
  bool TakeListOver(Tensors& outputs) {
    if (layer_->input_refs.size() != 1 || !layer_->input_converters.empty() || layer_->type == kInputType) return false;
    auto const [producer, output] = layer_->input_refs[0];
    if (producer >= index_ || output != 0 || states_[producer].is_fed) return false;
    Tensors& made = states_[producer].outputs;
    if (made.size() != 1 || made[0] == nullptr || LastReader(producer) > index_) return false;
    outputs.swap(kernel_inputs_);
    kernel_inputs_.swap(made);
    return true;
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
      std::shared_ptr<Tensor> const& tensor = Produced(position);
      auto const converter = layer_->input_converters.find(position);
      bool const is_converted = converter != layer_->input_converters.end();
      kernel_inputs_.push_back(is_converted ? Convert(converter->second, tensor, true) : tensor);
    }
  }

  std::shared_ptr<Tensor> const& Produced(unsigned int position) const {
    auto const [producer, output] = layer_->input_refs[position];
    bool const made =
        producer < index_ && output < states_[producer].outputs.size() && states_[producer].outputs[output] != nullptr;
    if (!made) {
      Refuse("layer %u (%s): its input %u is output %u of layer %u, which %s", index_, layer_->type.c_str(), position,
             output, producer, producer < index_ ? "did not make that tensor" : "does not stand before it");
    }
    return states_[producer].outputs[output];
  }

  [[gnu::cold]] void ConvertOutputs(Tensors& outputs, bool intermediate) {
    for (unsigned int position = 0; position < outputs.size(); ++position) {
      auto const converter = layer_->output_converters.find(position);
      if (converter == layer_->output_converters.end()) continue;
      if (outputs[position] == nullptr)
        Refuse("layer %u (%s): output %u, which a converter reads, is missing", index_, layer_->type.c_str(), position);
      outputs[position] = Convert(converter->second, outputs[position], intermediate);
    }
  }

  [[gnu::cold]] void Serve(Tensors const& outputs) {
    --pending_;  // further requests of the layer are never served
    result_.emplace(index_, outputs);
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
