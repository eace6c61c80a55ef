// Whole JSON files as text.
#pragma once

#include <sstream>

#include "talvo/utility/export.h"

namespace talvo::utility {

/// The text of a file up to its first zero character. Assert: a null path, a file that cannot be opened or read whole.
TALVO_API std::stringstream ReadJsonFile2StrStream(char const* path);

}  // namespace talvo::utility
