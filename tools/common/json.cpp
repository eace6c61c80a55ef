#include "tools/common/json.h"

#include <cmath>

namespace tools {
namespace {

constexpr char kReplacement[] = "\xEF\xBF\xBD";

bool IsBetween(std::string const& text, std::size_t at, unsigned int least, unsigned int most) {
  if (at >= text.size()) return false;
  auto const byte = static_cast<unsigned char>(text[at]);
  return byte >= least && byte <= most;
}

// Bytes of the well-formed sequence at a place; 0 where there is none.
// Source: The Unicode Standard, table 3-7, "Well-Formed UTF-8 Byte Sequences".
std::size_t SequenceAt(std::string const& text, std::size_t at) {
  auto const first = static_cast<unsigned char>(text[at]);
  if (first < 0x80) return 1;
  std::size_t const size = first < 0xC2 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : first < 0xF5 ? 4 : 0;
  if (size == 0) return 0;
  unsigned int const least = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
  unsigned int const most = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
  if (!IsBetween(text, at + 1, least, most)) return 0;
  for (std::size_t i = 2; i < size; ++i) {
    if (!IsBetween(text, at + i, 0x80, 0xBF)) return 0;
  }
  return size;
}

}  // namespace

std::string ValidUtf8(std::string const& text) {
  std::string valid;
  for (std::size_t at = 0; at < text.size();) {
    std::size_t const size = SequenceAt(text, at);
    size == 0 ? valid.append(kReplacement) : valid.append(text, at, size);
    at += size == 0 ? 1 : size;
  }
  return valid;
}

Json::Json() {
  writer_.SetIndent(' ', 2);
  writer_.StartObject();
}

void Json::PutRaw(std::string const& key, std::string const& json) {
  Key(key), writer_.RawValue(json.data(), json.size(), rapidjson::kStringType);
}

std::string Json::Finish() {
  writer_.EndObject();
  return std::string(buffer_.GetString(), buffer_.GetSize()) + "\n";
}

void Json::Key(std::string const& key) { Add(key); }

void Json::Add(std::string const& text) {
  std::string const valid = ValidUtf8(text);
  writer_.String(valid.data(), static_cast<rapidjson::SizeType>(valid.size()));
}

void Json::Add(double number) { std::isfinite(number) ? writer_.Double(number) : writer_.Null(); }

}  // namespace tools
