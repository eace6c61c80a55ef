// The catalogue of fused kernels, and the change of a configuration from portable kernels to them.
#pragma once

#include <memory>

#include "talvo/runtime/class_registry.h"
#include "talvo/runtime/kernel.h"
#include "talvo/serialization/model_cfg.h"
#include "talvo/utility/export.h"

namespace talvo::utility {

/// Registers the fused kernels under their class names, beside what init_register_operators registers. A name that is
/// present already keeps its factory.
TALVO_API void init_register_fused_operators(runtime::ClassRegistry<std::shared_ptr<runtime::IKernel>>& kernels);

/// Names in `config`, wherever a layer's kernel has a fused sibling (X_Fused_Y of X_Fallback_Y), the sibling instead.
/// Other kernels, SGEMM ones among them, and converters stay. The net's results change by the rounding of its sums.
TALVO_API void PreferFusedKernels(runtime::TLModelCfg& config);

}  // namespace talvo::utility
