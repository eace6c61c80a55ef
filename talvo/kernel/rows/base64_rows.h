// Base64 in vectors: as much of a text as stands in whole vectors at its head. The baseline, which cannot shuffle
// bytes, does nothing; the caller's plain loops do the rest. Internal.
#pragma once

#include <cstddef>

#include "talvo/kernel/rows/instruction_sets.h"

namespace talvo::kernel::rows {

/// *done: how many of `n` bytes were encoded, a multiple of 3. `text` gets four characters for three bytes; nothing
/// else is written.
extern Primitive<void(unsigned char const* bytes, std::size_t n, char* text, std::size_t* done)> const EncodeBase64Row;

/// *done: how many of `n` characters were decoded, a multiple of 4, none of them outside the alphabet. `bytes` gets
/// three for four characters; what is behind them, up to `room` bytes in all, may be overwritten.
extern Primitive<void(char const* text, std::size_t n, unsigned char* bytes, std::size_t room, std::size_t* done)> const
    DecodeBase64Row;

}  // namespace talvo::kernel::rows
