// Base64 into memory of the caller. Internal.
#pragma once

#include <cstddef>
#include <string_view>

namespace talvo::runtime::support {

/// Writes the bytes that Base64Decode would give, but at most `room_bytes` of them, to `bytes`. Returns how many.
std::size_t DecodeBase64(std::string_view text, void* bytes, std::size_t room_bytes);

}  // namespace talvo::runtime::support
