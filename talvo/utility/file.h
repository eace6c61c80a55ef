// Whole files in one call.
#pragma once

#include <string>

#include "talvo/utility/export.h"

namespace talvo::utility {

/// Reads all bytes of a file into `content`. False, with `content` left alone, when it cannot be opened or read whole
/// or when memory runs out.
TALVO_API bool LoadFile(std::string path, std::string& content);

/// Makes or replaces a file that holds the bytes of `content`. False when it cannot be opened; a disk that fills up
/// while it is written goes unnoticed.
TALVO_API bool SaveFile(std::string path, std::string const& content);

}  // namespace talvo::utility
