// Drawn layers: the record of a layer, and inputs that its kernel takes.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "certificate/cases.h"
#include "talvo/runtime/class_registry.h"
#include "talvo/runtime/kernel.h"
#include "talvo/serialization/inference_param.h"
#include "talvo/serialization/layer_info.h"

namespace talvo::certificate {

struct Layer {
  std::shared_ptr<runtime::LayerInfo> record;
  Tensors inputs;
  std::shared_ptr<runtime::InferenceParam> param = nullptr;
  unsigned int runs = 1;  // recurrent kernels keep a state
};

using LayerMaker = Layer (*)(Draw&);

runtime::ClassRegistry<std::shared_ptr<runtime::IKernel>> const& KernelRegistry();
std::vector<std::string> KernelNames();

/// Draws a layer for the kernel. Throws where no line says how.
LayerMaker MakerFor(std::string const& kernel);

}  // namespace talvo::certificate
