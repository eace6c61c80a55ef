// Base64 into memory of the caller. Internal.
#pragma once

#include <cstddef>
#include <string_view>

namespace talvo::runtime::support {

/// Writes what Base64Encode gives to `text`, which has room for it.
void EncodeBase64(void const* data, std::size_t size, char* text);

/// Characters of the text of so many bytes.
constexpr std::size_t EncodedSize(std::size_t bytes) { return bytes / 3 * 4 + (bytes % 3 != 0 ? 4 : 0); }

/// Writes the bytes that Base64Decode would give, but at most `room_bytes` of them, to `bytes`. Returns how many; what
/// is behind them in the room may be overwritten.
std::size_t DecodeBase64(std::string_view text, void* bytes, std::size_t room_bytes);

}  // namespace talvo::runtime::support
