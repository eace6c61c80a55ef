#include "talvo/utility/base64.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

#include "talvo/kernel/rows/base64_rows.h"
#include "talvo/utility/base64_support.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::runtime {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::size_t kPairs = 4096;
constexpr std::uint32_t kNoValue = 0x80000000u;

struct Tables {
  Tables() {
    for (std::size_t i = 0; i < kPairs; ++i) {
      pairs[2 * i] = kAlphabet[i >> 6];
      pairs[2 * i + 1] = kAlphabet[i & 63];
    }
    for (std::size_t place = 0; place < values.size(); ++place) {
      values[place].fill(kNoValue);
      for (std::uint32_t i = 0; i < 64; ++i)
        values[place][static_cast<unsigned char>(kAlphabet[i])] = i << (18 - 6 * place);
    }
  }

  // The two characters of each 12-bit value: half a group of four.
  std::array<char, 2 * kPairs> pairs;
  // The value of each character, shifted to its place in the group's 24 bits; kNoValue outside the alphabet.
  std::array<std::array<std::uint32_t, 256>, 4> values;
};

// Made at the first call: they would be a large part of a small library.
Tables const& TheTables() {
  static Tables const tables;
  return tables;
}

void StorePairs(Tables const& tables, std::uint32_t group, char* text) {
  std::memcpy(text, &tables.pairs[2 * (group >> 12)], 2);
  std::memcpy(text + 2, &tables.pairs[2 * (group & 4095u)], 2);
}

// The group of up to four characters; has kNoValue's bit when one of them is outside the alphabet.
std::uint32_t Group(Tables const& tables, unsigned char const* text, std::size_t count) {
  std::uint32_t group = 0;
  for (std::size_t i = 0; i < count; ++i) group |= tables.values[i][text[i]];
  return group;
}

void StoreGroup(std::uint32_t group, std::size_t count, char* bytes) {
  for (std::size_t i = 0; i < count; ++i) bytes[i] = static_cast<char>((group >> (16 - 8 * i)) & 255u);
}

}  // namespace

std::string Base64Encode(unsigned char const* data, unsigned long size) {
  if (data == nullptr && size != 0) utility::Refuse("Base64Encode: no data for %lu bytes", size);
  std::string result(support::EncodedSize(size), '\0');
  support::EncodeBase64(data, size, result.data());
  return result;
}

void support::EncodeBase64(void const* data, std::size_t size, char* text) {
  auto const* bytes = static_cast<unsigned char const*>(data);
  std::size_t done;
  kernel::rows::EncodeBase64Row(bytes, size, text, &done);
  bytes += done;
  text += EncodedSize(done);
  size -= done;
  Tables const& tables = TheTables();
  for (; size >= 3; bytes += 3, text += 4, size -= 3)
    StorePairs(tables, (std::uint32_t{bytes[0]} << 16) | (std::uint32_t{bytes[1]} << 8) | bytes[2], text);
  if (size == 0) return;
  StorePairs(tables, (std::uint32_t{bytes[0]} << 16) | (size > 1 ? std::uint32_t{bytes[1]} << 8 : 0u), text);
  if (size == 1) text[2] = '=';
  text[3] = '=';
}

std::size_t support::DecodeBase64(std::string_view text, void* bytes, std::size_t room_bytes) {
  std::size_t done;
  kernel::rows::DecodeBase64Row(text.data(), text.size(), static_cast<unsigned char*>(bytes), room_bytes, &done);
  auto const* at = reinterpret_cast<unsigned char const*>(text.data()) + done;
  auto const* const end = at + (text.size() - done);
  auto* to = static_cast<char*>(bytes) + done / 4 * 3;
  room_bytes -= done / 4 * 3;
  Tables const& tables = TheTables();
  for (; end - at >= 4 && room_bytes >= 3; at += 4, to += 3, room_bytes -= 3) {
    std::uint32_t const group = Group(tables, at, 4);
    // One test for four characters; which of them it was is found once, below.
    if ((group & kNoValue) != 0) break;
    StoreGroup(group, 3, to);
  }
  std::size_t tail = 0;  // characters of the alphabet that do not fill a group, or more than there is room for
  while (tail < 4 && at + tail != end && (tables.values[0][at[tail]] & kNoValue) == 0) ++tail;
  std::size_t const tail_bytes = std::min(tail * 6 / 8, room_bytes);
  StoreGroup(Group(tables, at, tail), tail_bytes, to);
  return static_cast<std::size_t>(to - static_cast<char*>(bytes)) + tail_bytes;
}

std::string Base64Decode(std::string const& text) {
  std::string result(text.size() / 4 * 3 + 2, '\0');
  result.resize(support::DecodeBase64(text, result.data(), result.size()));
  return result;
}

}  // namespace talvo::runtime
