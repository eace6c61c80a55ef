// Starts the recurrent kernels of a net afresh: for a new stream.
#pragma once

#include "talvo/runtime/net.h"
#include "talvo/utility/export.h"

namespace talvo::utility {

/// Clears the state of every recurrent kernel of `net`, those that serve as converters included; other kernels have
/// none. Layers and kernels that are missing are passed over.
TALVO_API void ResetRNNState(runtime::Net const& net);

}  // namespace talvo::utility
