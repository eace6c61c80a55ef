// The base64 codec in which weights travel in JSON.
#pragma once

#include <string>

#include "talvo/utility/export.h"

namespace talvo::runtime {

/// The text of `size` bytes: four characters for three bytes, the first byte in the highest bits, "=" at the end of a
/// tail. Source: RFC 4648, the standard alphabet.
TALVO_API std::string Base64Encode(unsigned char const* data, unsigned long size);

/// The bytes of the characters before the first "=" or the first character outside the alphabet; the rest is ignored.
TALVO_API std::string Base64Decode(std::string const& text);

}  // namespace talvo::runtime
