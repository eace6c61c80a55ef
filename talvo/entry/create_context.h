// The first door: the context that serves all packages and nets of one thread.
#pragma once

#include <memory>

#include "talvo/runtime/context.h"
#include "talvo/utility/export.h"

namespace talvo::utility {

/// Stores a context with a CPU device in `context`; the device has a main and a dynamic AlignUpPool of this alignment,
/// a power of two and at least the size of a pointer; with another the first tensor is refused through Assert. The
/// caller keeps the context until the last tensor is gone.
TALVO_API void create_context(std::shared_ptr<runtime::Context>& context, unsigned int alignment);

}  // namespace talvo::utility
