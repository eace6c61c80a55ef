// JSON that programs print for other programs.
#pragma once

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

namespace tools {

/// Writes one object, member by member, indented by two blanks. Texts are UTF-8: each byte that is not becomes U+FFFD.
/// A number that is not finite becomes null, which JSON has for it.
class Json {
 public:
  Json();

  void Put(std::string const& key, std::string const& text) { Key(key), Add(text); }
  void Put(std::string const& key, char const* text) { Key(key), Add(std::string(text)); }
  void Put(std::string const& key, bool flag) { Key(key), writer_.Bool(flag); }
  void Put(std::string const& key, double number) { Key(key), Add(number); }
  template <typename T, std::enable_if_t<std::is_integral_v<T>, int> = 0>
  void Put(std::string const& key, T number) {
    Key(key), Add(number);
  }
  /// A list of texts or numbers.
  template <typename T>
  void Put(std::string const& key, std::vector<T> const& list) {
    Key(key), writer_.StartArray();
    writer_.SetFormatOptions(rapidjson::kFormatSingleLineArray);
    for (T const& element : list) Add(element);
    writer_.EndArray();
    writer_.SetFormatOptions(rapidjson::kFormatDefault);
  }
  /// A member whose value is JSON already.
  void PutRaw(std::string const& key, std::string const& json);

  /// A member that is an object; `fill` puts its members.
  template <class Fill>
  void Object(std::string const& key, Fill const& fill) {
    Key(key), writer_.StartObject();
    fill();
    writer_.EndObject();
  }
  /// A member that is a list of objects, one for each element; `fill` is called with each and puts its members.
  template <class List, class Fill>
  void Objects(std::string const& key, List const& list, Fill const& fill) {
    Key(key), writer_.StartArray();
    for (auto const& element : list) {
      writer_.StartObject();
      fill(element);
      writer_.EndObject();
    }
    writer_.EndArray();
  }

  /// Ends the object and returns its text, with a newline behind it.
  std::string Finish();

 private:
  void Key(std::string const& key);
  void Add(std::string const& text);
  void Add(double number);
  template <typename T, std::enable_if_t<std::is_integral_v<T>, int> = 0>
  void Add(T number) {
    if constexpr (std::is_signed_v<T>) {
      writer_.Int64(number);
    } else {
      writer_.Uint64(number);
    }
  }

  rapidjson::StringBuffer buffer_;
  rapidjson::PrettyWriter<rapidjson::StringBuffer> writer_{buffer_};
};

/// The text with U+FFFD for each byte that is no part of UTF-8.
std::string ValidUtf8(std::string const& text);

}  // namespace tools
