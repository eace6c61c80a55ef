#include "talvo/utility/base64.h"

#include <array>
#include <cstdint>

namespace talvo::runtime {
namespace {

std::string const alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr unsigned char kNoValue = 64;

// The value of each character; kNoValue outside the alphabet.
std::array<unsigned char, 256> MakeValues() {
  std::array<unsigned char, 256> values;
  values.fill(kNoValue);
  for (std::size_t i = 0; i < alphabet.size(); ++i)
    values[static_cast<unsigned char>(alphabet[i])] = static_cast<unsigned char>(i);
  return values;
}

std::array<unsigned char, 256> const values = MakeValues();

}  // namespace

std::string Base64Encode(unsigned char const* data, unsigned long size) {
  std::string text;
  text.reserve((size + 2) / 3 * 4);
  for (unsigned long i = 0; i < size; i += 3) {
    unsigned long const left = size - i;
    std::uint32_t const group = (std::uint32_t{data[i]} << 16) | (left > 1 ? std::uint32_t{data[i + 1]} << 8 : 0u) |
                                (left > 2 ? std::uint32_t{data[i + 2]} : 0u);
    text += alphabet[group >> 18];
    text += alphabet[(group >> 12) & 63];
    text += left > 1 ? alphabet[(group >> 6) & 63] : '=';
    text += left > 2 ? alphabet[group & 63] : '=';
  }
  return text;
}

std::string Base64Decode(std::string const& text) {
  std::string bytes;
  bytes.reserve(text.size() / 4 * 3 + 2);
  std::uint32_t group = 0;
  unsigned int bits = 0;
  for (char character : text) {
    unsigned char const value = values[static_cast<unsigned char>(character)];
    if (value == kNoValue) break;
    group = (group << 6) | value;
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      bytes += static_cast<char>((group >> bits) & 255u);
    }
  }
  return bytes;
}

}  // namespace talvo::runtime
