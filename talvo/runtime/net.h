// The executable graph: a flat list of layers in execution order, walked once from the front by each Forward.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "talvo/runtime/kernel.h"
#include "talvo/utility/export.h"

namespace talvo::runtime {

/// One node. A layer of type "Input" takes the caller's tensor; every other layer reads earlier layers.
struct Layer {
  std::string type;
  std::vector<std::pair<std::uint32_t, std::uint32_t>> input_refs;  // producer's layer index, its output index
  std::vector<std::pair<std::uint32_t, std::uint32_t>> consumers;   // reader's layer index, position in its input_refs
  std::map<unsigned int, std::shared_ptr<IKernel>> input_converters;  // by input position; run before `kernel`
  std::shared_ptr<IKernel> kernel;
  std::map<unsigned int, std::shared_ptr<IKernel>> output_converters;  // by output position; run after `kernel`
};

/// Layers are identified by their position in `layers`, the layer index.
class TALVO_API Net {
 public:
  Net(std::vector<std::shared_ptr<Layer>> const& net_layers, std::map<std::string, unsigned int> const& net_input_ids);

  /// Runs the layers in order until every layer of `output_ids` has run, and returns the tensors of those that were
  /// reached, by layer index, as later layers saw them. Tensors go back to the device's dynamic pool after their last
  /// reader. `inputs`: a tensor for each "Input" layer that is to run, by layer index. `layer_times_ms` and
  /// `gpu_times_ms` may be null; otherwise they get one entry for each layer that ran: wall time in milliseconds, and
  /// 0. Assert, with the layer's index and type in the text: an input tensor, a kernel or a tensor that a layer reads
  /// is missing, or a kernel is not configured; also a null context or one without a CPU device. After an exception the
  /// net is as it was; the device's `use_dynamic_pool` stays set until the next Forward ends.
  std::unordered_map<unsigned int, std::vector<std::shared_ptr<Tensor>>> Forward(
      std::unordered_map<unsigned int, std::shared_ptr<Tensor>> const& inputs,
      std::vector<unsigned int> const& output_ids, std::shared_ptr<Context> context, std::vector<float>* layer_times_ms,
      std::vector<float>* gpu_times_ms) const;

  std::vector<std::shared_ptr<Layer>> layers;
  std::map<std::string, unsigned int> input_ids;  // id of each "Input" layer to its index, for the application
};

}  // namespace talvo::runtime
