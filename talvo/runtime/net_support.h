// What a walk leaves behind for whoever explains its refusal. Internal.
#pragma once

namespace talvo::runtime::support {

/// Index of the layer at which the last Forward of this thread that threw stood; the number of layers if it stood at
/// none.
unsigned int RefusedLayer();

}  // namespace talvo::runtime::support
