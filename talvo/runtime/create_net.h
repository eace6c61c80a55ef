// A net from a model's records: each layer's kernels made by name and configured, each input wired to its producer.
#pragma once

#include <memory>

#include "talvo/runtime/class_registry.h"
#include "talvo/runtime/context.h"
#include "talvo/runtime/inference_config.h"
#include "talvo/runtime/kernel.h"
#include "talvo/runtime/net.h"
#include "talvo/serialization/model_cfg.h"
#include "talvo/serialization/model_info.h"
#include "talvo/utility/export.h"

namespace talvo::runtime {

/// Builds from a packaged configuration. Layers stand in the order of `squential_ids`; an input id that no layer has is
/// wired to layer 0. The net keeps neither records nor registry. Assert, with layer and kernel in the text: a name that
/// is not registered; a layer without record or configuration; an empty configuration; a layer that reads itself or a
/// later one; an id that stands more than 8 times in one list. Assert, without a text: the Config of a main kernel
/// returned false.
TALVO_API std::shared_ptr<Net> CreateNet(std::shared_ptr<TLModelInfo> const& model,
                                         std::shared_ptr<TLModelCfg> const& config,
                                         ClassRegistry<std::shared_ptr<IKernel>> const& kernels,
                                         std::shared_ptr<Context> const& context);

/// Builds from a light configuration, whose records match the layers by position. As above, but a main kernel whose
/// Config returned false stays empty, and the first Forward that reaches the layer refuses.
TALVO_API std::shared_ptr<Net> CreateNet(std::shared_ptr<TLModelInfo> const& model,
                                         std::shared_ptr<InferenceConfig> config,
                                         ClassRegistry<std::shared_ptr<IKernel>> const& kernels,
                                         std::shared_ptr<Context> context);

}  // namespace talvo::runtime
