// Builds the net of a package's first model and runs it once on a fixed picture, in pools that hand out no more than a
// limit, whatever the sizes in the records say.
#pragma once

#include "talvo/serialization/model_info.h"

namespace talvo::fuzz {

/// False, and nothing happens, for a package without a model or a configuration of that name, and for more than 64
/// layers. Passes refusals on.
bool BuildAndRun(runtime::TLNModel const& file);

}  // namespace talvo::fuzz
