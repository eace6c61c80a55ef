// The catalogue of extra kernels: operators of neural networks that the catalogue of init_register_operators lacks, for
// packages that other formats are converted to.
#pragma once

#include <memory>

#include "talvo/runtime/class_registry.h"
#include "talvo/runtime/kernel.h"
#include "talvo/utility/export.h"

namespace talvo::utility {

/// Registers the extra kernels under their class names, beside what init_register_operators registers. They are
/// portable: the same bits everywhere. A name that is present already keeps its factory.
TALVO_API void init_register_extra_operators(runtime::ClassRegistry<std::shared_ptr<runtime::IKernel>>& kernels);

}  // namespace talvo::utility
