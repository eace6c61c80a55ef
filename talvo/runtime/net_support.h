// What a walk leaves behind for whoever explains its refusal. Internal.
#pragma once

namespace talvo::runtime::support {

/// Index of the layer at which the last Forward of this thread that threw stood.
unsigned int RefusedLayer();

}  // namespace talvo::runtime::support
