// JSON texts to values and values to texts. Internal. Stands behind rapidjson_support.h.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <iosfwd>
#include <new>
#include <string>

#include "talvo/serialization/json_visitors.h"

namespace talvo::runtime::support {

/// Memory of rapidjson's stacks. Throws std::bad_alloc where it is not to be had.
class StackAllocator {
 public:
  static constexpr bool kNeedFree = true;

  void* Malloc(std::size_t size) { return Realloc(nullptr, 0, size); }
  void* Realloc(void* block, std::size_t, std::size_t size) {
    if (size == 0) return Free(block), nullptr;
    void* const moved = std::realloc(block, size);
    if (moved == nullptr) throw std::bad_alloc();
    return moved;
  }
  static void Free(void* block) { std::free(block); }
};

/// Owns the text, in which the values stand, and the document. Its depth costs no stack.
class JSONText {
 public:
  /// A text that does not parse gives a root of null.
  explicit JSONText(std::string text);
  JSONText(JSONText const&) = delete;
  JSONText& operator=(JSONText const&) = delete;

  rapidjson::Value const& Root() const { return document_; }
  /// Why and at which byte the text stops to be JSON, if it does.
  rapidjson::ParseResult Result() const { return document_; }
  std::size_t Bytes() const { return text_.size(); }
  /// What the values take beside the text.
  std::size_t ValueBytes() const { return allocator_.Size(); }

 private:
  std::string text_;
  JSONAllocator allocator_;
  rapidjson::GenericDocument<rapidjson::UTF8<>, JSONAllocator, StackAllocator> document_;
};

/// Fills the record from a text whose root is an object; `refusal` is the message for any other, or null. Assert:
/// whatever JSONNodeGetter refuses, and lists that grow beyond measure because the text has them read many times. Texts
/// of weights, alone and not in lists, are left out where they are skimmed.
void ReadRecord(JSONText const& text, Serializable* record, char const* refusal, bool skims_weights = false);

/// The value as text of one line, or with a line for each value and four blanks for each level. Nesting of any depth is
/// served. Assert: a number that JSON cannot hold.
std::string CompactJSON(rapidjson::Value const& value);
std::string PrettyJSON(rapidjson::Value const& value);

/// Writes PrettyJSON of the value piece by piece. Returns its length, whether or not the stream took it.
std::size_t WritePrettyJSON(rapidjson::Value const& value, std::ostream& to);

}  // namespace talvo::runtime::support
