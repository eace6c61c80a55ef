// The catalogue: every kernel that a configuration can name without further ado.
#pragma once

#include <memory>

#include "talvo/runtime/class_registry.h"
#include "talvo/runtime/kernel.h"
#include "talvo/serialization/inference_param.h"
#include "talvo/utility/export.h"

namespace talvo::utility {

/// Registers the library's kernels and inference parameters under their class names. A name that is present already
/// keeps its factory, so an application replaces a kernel by registering its own first.
TALVO_API void init_register_operators(runtime::ClassRegistry<std::shared_ptr<runtime::IKernel>>& kernels,
                                       runtime::ClassRegistry<std::shared_ptr<runtime::InferenceParam>>& params);

}  // namespace talvo::utility
