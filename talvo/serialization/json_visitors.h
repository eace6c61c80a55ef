// The two visitors of the JSON form, where each field is a member of an object under its key, in the order of the walk,
// and the handling of single JSON values.
#pragma once

#include <rapidjson/fwd.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "talvo/serialization/visitor.h"
#include "talvo/utility/export.h"

namespace talvo::runtime {

namespace support {
class JSONText;
void ChargeRecord(Visitor& visitor, std::size_t bytes, std::string const& id);
void ReadRecord(JSONText const& text, Serializable* record, char const* refusal, bool skims_weights);
}  // namespace support

using JSONAllocator = rapidjson::MemoryPoolAllocator<rapidjson::CrtAllocator>;

/// Appends members to an object; a key that is visited twice stands twice. A `char` field is written as the
/// zero-terminated text that begins there. Assert, with the key and the path of keys to it: a number that JSON cannot
/// hold, a null record.
class TALVO_API JSONNodeSetter : public FieldVisitor {
 public:
  /// `node` is an object; it and the allocator outlive the visitor. `write_version` adds the member
  /// "serialization_protocol_version" first.
  JSONNodeSetter(rapidjson::Value& node, JSONAllocator& allocator, bool write_version);

 private:
  void VisitField(void* value, support::FieldType const& type, char const* key) override;

  rapidjson::Value& node_;
  JSONAllocator& allocator_;
  std::string path_;  // keys from the root to `node_`
};

/// Fills fields from the members of an object, whatever their order; of members with the same key the first counts.
/// Vectors are appended to, narrow integers keep their low bits, a nested null leaves its record as it is. A `char`
/// field receives the characters of a whole text without a terminator: the caller's memory must hold them. Assert, with
/// the key and the path of keys to it: a missing key, a value of the wrong kind; without them, a nested record that is
/// no object, array or null.
class TALVO_API JSONNodeGetter : public FieldVisitor {
 public:
  /// `node` outlives the visitor. With `version` 0 the member "serialization_protocol_version" of `node` tells the
  /// version, and the newest is taken where it is absent. `path` are the keys from the root to `node`, for refusals.
  /// Assert: a version newer than this library.
  JSONNodeGetter(rapidjson::Value const& node, unsigned int version, std::string path = "");
  ~JSONNodeGetter() override;

 private:
  friend void support::ChargeRecord(Visitor& visitor, std::size_t bytes, std::string const& id);
  friend void support::ReadRecord(support::JSONText const& text, Serializable* record, char const* refusal,
                                  bool skims_weights);
  struct TALVO_INTERNAL Index;

  void VisitField(void* value, support::FieldType const& type, char const* key) override;
  TALVO_INTERNAL static std::unique_ptr<Index> IndexOf(rapidjson::Value const& object);
  TALVO_INTERNAL void TakeVersion(unsigned int version);
  TALVO_INTERNAL rapidjson::Value const* FindOrNull(char const* key);
  TALVO_INTERNAL rapidjson::Value const& Find(char const* key);
  TALVO_INTERNAL void TakeList(rapidjson::Value const& from, void* list, support::FieldType const& type,
                               char const* key);
  TALVO_INTERNAL void TakeRecord(rapidjson::Value const& from, Serializable* record, char const* key);
  TALVO_INTERNAL void Charge(std::size_t bytes, char const* key, std::size_t for_a_moment = 0);

  rapidjson::Value const& node_;
  std::string path_;                         // keys from the root to `node_`
  std::unique_ptr<Index> index_;             // of an object with many members, made at the first search
  std::shared_ptr<std::size_t> bytes_left_;  // what repeated and null records may still take, in all; null: no limit
  bool skims_weights_ = false;               // looks at the kind of weights and leaves them out
};

/// Logs the value as compact JSON at the verbose level, and does nothing where the mask keeps that level back.
TALVO_API void printjsonvalue(rapidjson::Value const& value);

/// The value as compact JSON. Nesting of any depth is served. Assert: a number that JSON cannot hold.
TALVO_API std::string SerializeJSONValue(rapidjson::Value const& value);

/// Copies of texts, up to their first zero character.
TALVO_API rapidjson::Value ToJSONValue(std::vector<std::string> const& values, JSONAllocator& allocator);
TALVO_API rapidjson::Value ToJSONValue(std::string const& value, JSONAllocator& allocator);

/// An object with the version and the fields of the record.
TALVO_API rapidjson::Value ToJSONValue(Serializable* record, JSONAllocator& allocator);

/// Appends the texts of an array. Assert: anything else.
TALVO_API void JSONValueTo(rapidjson::Value const& value, std::vector<std::string>& out);

/// Assert: a value that is no text.
TALVO_API void JSONValueTo(rapidjson::Value const& value, std::string& out);

/// Fills the record from an object. Assert: whatever JSONNodeGetter refuses.
TALVO_API void JSONValueTo(rapidjson::Value const& value, Serializable* record);

}  // namespace talvo::runtime
