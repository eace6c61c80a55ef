// Whole JSON files as text.
#pragma once

#include <sstream>
#include <string>

#include "talvo/utility/export.h"

namespace talvo::utility {

/// The text of a file up to its first zero character. Assert: a file that cannot be opened or read whole.
TALVO_API std::string ReadJsonFileText(char const* path);

/// The same as a stream.
TALVO_API std::stringstream ReadJsonFile2StrStream(char const* path);

}  // namespace talvo::utility
