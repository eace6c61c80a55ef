// The weights of a record as texts, for those who count, judge or change them.
#pragma once

#include <functional>
#include <string>

#include "talvo/serialization/serializable.h"
#include "talvo/utility/export.h"

namespace talvo::runtime {

/// Calls `visit` with the key and the base64 text of each array of weights of a layer's record, in the order of the
/// format; a stack of layers gives each of its texts under one key. `visit` may change the text.
TALVO_API void ForEachWeight(Serializable& record,
                             std::function<void(char const* key, std::string& base64)> const& visit);

}  // namespace talvo::runtime
