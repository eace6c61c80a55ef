#include "talvo/serialization/rapidjson_support.h"

#include "talvo/serialization/json_visitors.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string_view>
#include <type_traits>
#include <utility>

#include "talvo/serialization/field_type_support.h"
#include "talvo/serialization/json_text_support.h"
#include "talvo/serialization/record_support.h"
#include "talvo/serialization/serializable.h"
#include "talvo/utility/log.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::runtime {
namespace {

using rapidjson::SizeType;
using rapidjson::Value;
using support::Elements;
using support::FieldType;
using support::Number;

using Texts = std::vector<std::string>;
using Rows = std::vector<std::vector<unsigned short>>;

constexpr char kVersionKey[] = "serialization_protocol_version";
constexpr char kNeedsText[] = "needs a string", kNeedsList[] = "needs an array of values of the field's kind";
constexpr SizeType kIndexedMembers = 32;  // with fewer, members are searched one after the other

// What a text may make records take beyond one reading of each of its values: with all else at most 40 times the text
// and 1 MiB. The text and its strings take 2 of these 40, values and one reading of them 9 times what the values take.
// So little is left beside many small values, which fill up to 31 of the 40, and much beside long strings: a model that
// an id names 8 times has its lists of layers appended and so reads each layer 36 times, weights in lists included.
std::size_t Allowance(support::JSONText const& text) {
  constexpr std::size_t kAtLeast = std::size_t{1} << 19, kForEach = 8, kForStrings = 36, kForValues = 9;
  std::size_t const strings = kForStrings * text.Bytes(), values = kForValues * text.ValueBytes();
  return kAtLeast + std::max(kForEach * text.Bytes(), strings > values ? strings - values : 0);
}

// A message is cut at 2047 characters: what is behind them is left out here, or a long id would be copied for each of
// the records below it.
std::string Joined(std::string const& path, char const* key) {
  constexpr std::size_t kShown = 2048;
  if (path.size() > kShown) return path;
  std::string const shown(key, strnlen(key, kShown));
  return path.empty() ? shown : path + "." + shown;
}

void AssertAt(bool condition, std::string const& path, char const* key, char const* problem) {
  if (!condition) utility::Refuse("JSON: %s: key \"%s\", path \"%s\"", problem, key, Joined(path, key).c_str());
}

void AssertTarget(void const* value, std::string const& path, char const* key) {
  if (key == nullptr) utility::Refuse("JSON: a field needs a key");
  AssertAt(value != nullptr, path, key, "a null pointer is no field");
}

// The value of a number. False: JSON cannot hold it.
bool ToValue(double from, Value& to) {
  to.SetDouble(from);
  return std::isfinite(from);
}

bool ToValue(void const* from, Number number, Value& to) {
  switch (number) {
    case Number::kFloat:
      return ToValue(*static_cast<float const*>(from), to);
    case Number::kHalf:
      return ToValue(*static_cast<half_float::half const*>(from), to);
    case Number::kDouble:
      return ToValue(*static_cast<double const*>(from), to);
    case Number::kInt8:
      return to.SetInt(*static_cast<signed char const*>(from)), true;
    case Number::kUInt8:
      return to.SetUint(*static_cast<unsigned char const*>(from)), true;
    case Number::kInt16:
      return to.SetInt(*static_cast<short const*>(from)), true;
    case Number::kUInt16:
      return to.SetUint(*static_cast<unsigned short const*>(from)), true;
    case Number::kInt32:
      return to.SetInt(*static_cast<int const*>(from)), true;
    case Number::kUInt32:
      return to.SetUint(*static_cast<unsigned int const*>(from)), true;
    case Number::kInt64:
      return to.SetInt64(*static_cast<long long const*>(from)), true;
    case Number::kUInt64:
      return to.SetUint64(*static_cast<unsigned long long const*>(from)), true;
    case Number::kBool:
      return to.SetBool(*static_cast<bool const*>(from)), true;
  }
  return false;
}

bool ToValue(Elements const& from, FieldType const& type, Value& to, JSONAllocator& allocator) {
  to.SetArray().Reserve(static_cast<SizeType>(from.count), allocator);
  auto const* element = static_cast<unsigned char const*>(from.first);
  for (std::size_t i = 0; i < from.count; ++i, element += type.element_bytes) {
    Value value;
    if (!ToValue(element, type.number, value)) return false;
    to.PushBack(value, allocator);
  }
  return true;
}

// Up to the first zero character, which rapidjson by itself looks for byte by byte.
Value TextValue(char const* from, JSONAllocator& allocator) {
  return Value(from, static_cast<SizeType>(std::strlen(from)), allocator);
}

Value TextsValue(Texts const& from, JSONAllocator& allocator) {
  Value texts(rapidjson::kArrayType);
  texts.Reserve(static_cast<SizeType>(from.size()), allocator);
  for (std::string const& text : from) texts.PushBack(TextValue(text.c_str(), allocator), allocator);
  return texts;
}

// The value of any field but a record. False: JSON cannot hold it.
bool ToValue(void* from, FieldType const& type, Value& to, JSONAllocator& allocator) {
  switch (type.form) {
    case FieldType::kNumber:
      return ToValue(from, type.number, to);
    case FieldType::kNumbers:
      return ToValue(type.look(from), type, to, allocator);
    case FieldType::kCharacter:
      to = TextValue(static_cast<char const*>(from), allocator);
      return true;
    case FieldType::kTexts:
    case FieldType::kWeightStack:
      to = TextsValue(*static_cast<Texts const*>(from), allocator);
      return true;
    case FieldType::kRows:
      to.SetArray();
      for (auto& row : *static_cast<Rows*>(from)) {
        Value numbers;
        ToValue(type.look(&row), type, numbers, allocator);
        to.PushBack(numbers, allocator);
      }
      return true;
    case FieldType::kText:
    case FieldType::kWeights:
      to = TextValue(static_cast<std::string const*>(from)->c_str(), allocator);
      return true;
    case FieldType::kRecord:
      break;
  }
  return false;
}

// What a number of each kind needs, and how a value is taken. False: another kind of value.
char const* NeedsOf(Number number) {
  switch (number) {
    case Number::kFloat:
    case Number::kHalf:
    case Number::kDouble:
      return "needs a number";
    case Number::kInt8:
    case Number::kInt16:
    case Number::kInt32:
      return "needs an integer of 32 bits";
    case Number::kUInt8:
    case Number::kUInt16:
    case Number::kUInt32:
      return "needs an unsigned integer of 32 bits";
    case Number::kInt64:
      return "needs an integer of 64 bits";
    case Number::kUInt64:
      return "needs an unsigned integer of 64 bits";
    case Number::kBool:
      break;
  }
  return "needs true or false";
}

template <class T, class Wide>
bool TakeAs(Value const& from, void* to) {
  if (!from.Is<Wide>()) return false;
  *static_cast<T*>(to) = static_cast<T>(from.Get<Wide>());
  return true;
}

template <class T>
bool TakeFloat(Value const& from, void* to) {
  if (!from.IsNumber()) return false;
  if constexpr (std::is_same_v<T, double>)
    *static_cast<T*>(to) = from.GetDouble();
  else
    *static_cast<T*>(to) = static_cast<T>(static_cast<float>(from.GetDouble()));
  return true;
}

bool TakeNumber(Value const& from, Number number, void* to) {
  switch (number) {
    case Number::kFloat:
      return TakeFloat<float>(from, to);
    case Number::kHalf:
      return TakeFloat<half_float::half>(from, to);
    case Number::kDouble:
      return TakeFloat<double>(from, to);
    case Number::kInt8:
      return TakeAs<signed char, int>(from, to);
    case Number::kUInt8:
      return TakeAs<unsigned char, unsigned int>(from, to);
    case Number::kInt16:
      return TakeAs<short, int>(from, to);
    case Number::kUInt16:
      return TakeAs<unsigned short, unsigned int>(from, to);
    case Number::kInt32:
      return TakeAs<int, int>(from, to);
    case Number::kUInt32:
      return TakeAs<unsigned int, unsigned int>(from, to);
    case Number::kInt64:
      return TakeAs<long long, std::int64_t>(from, to);
    case Number::kUInt64:
      return TakeAs<unsigned long long, std::uint64_t>(from, to);
    case Number::kBool:
      return TakeAs<bool, bool>(from, to);
  }
  return false;
}

bool TakeText(Value const& from, std::string& to) {
  return from.IsString() && (to.assign(from.GetString()), true);  // up to the first zero character
}

// These append.
bool TakeTexts(Value const& from, Texts& to) {
  if (!from.IsArray()) return false;
  to.reserve(to.size() + from.Size());
  for (Value const& element : from.GetArray()) {
    if (!TakeText(element, to.emplace_back())) return false;
  }
  return true;
}

bool TakeNumbers(Value const& from, FieldType const& type, void* list) {
  if (!from.IsArray()) return false;
  std::size_t const done = type.look(list).count;
  auto* element = static_cast<unsigned char*>(type.resize(list, done + from.Size()).first) + done * type.element_bytes;
  for (Value const& value : from.GetArray()) {
    if (!TakeNumber(value, type.number, element)) return false;
    element += type.element_bytes;
  }
  return true;
}

// Lists in a list hold numbers that fit int, other than a list of its own.
bool TakeRows(Value const& from, Rows& to) {
  if (!from.IsArray()) return false;
  to.reserve(to.size() + from.Size());
  for (Value const& row : from.GetArray()) {
    if (!row.IsArray()) return false;
    std::vector<unsigned short>& taken = to.emplace_back();
    taken.reserve(row.Size());
    for (Value const& number : row.GetArray()) {
      if (!number.IsInt()) return false;
      taken.push_back(static_cast<unsigned short>(number.GetInt()));
    }
  }
  return true;
}

std::string_view NameOf(Value::Member const& member) {
  return {member.name.GetString(), member.name.GetStringLength()};
}

// The room of a list that is not empty.
std::size_t HeldBytes(void* list, FieldType const& type) {
  if (type.form == FieldType::kTexts) {
    auto const& texts = *static_cast<Texts const*>(list);
    return texts.empty() ? 0 : texts.capacity() * sizeof(std::string);
  }
  if (type.form == FieldType::kRows) {
    auto const& rows = *static_cast<Rows const*>(list);
    return rows.empty() ? 0 : rows.capacity() * sizeof(std::vector<unsigned short>);
  }
  Elements const numbers = type.look(list);
  return numbers.count == 0 ? 0 : numbers.capacity * type.element_bytes;
}

constexpr std::size_t kBlockBytes = 24;  // of memory, at the least and beyond what is in it at the most

// What a list takes for these values; nothing for a field that is replaced.
std::size_t AppendedBytes(Value const& from, FieldType const& type) {
  if (!from.IsArray()) return 0;
  std::size_t bytes = kBlockBytes;
  for (Value const& element : from.GetArray()) {
    if (type.form == FieldType::kNumbers) {
      bytes += type.element_bytes;
    } else if (type.form == FieldType::kRows) {
      bytes += sizeof(std::vector<unsigned short>);
      if (element.IsArray()) bytes += kBlockBytes + element.Size() * type.element_bytes;
    } else {
      bytes += sizeof(std::string);
      if (element.IsString() && element.GetStringLength() > std::string().capacity())
        bytes += kBlockBytes + element.GetStringLength();
    }
  }
  return bytes;
}

}  // namespace

JSONNodeSetter::JSONNodeSetter(Value& node, JSONAllocator& allocator, bool write_version)
    : node_(node), allocator_(allocator) {
  if (!node.IsObject()) utility::Refuse("JSON: a record is written to an object");
  if (write_version) Visit(&_serialization_protocol_version, kVersionKey);
}

void JSONNodeSetter::VisitField(void* value, FieldType const& type, char const* key) {
  AssertTarget(value, path_, key);
  // Texts as any other, for who derives from this class too.
  if (type.form == FieldType::kWeights) return Visit(static_cast<std::string*>(value), key);
  if (type.form == FieldType::kWeightStack) return Visit(static_cast<Texts*>(value), key);
  Value member;
  if (type.form == FieldType::kRecord) {
    member.SetObject();
    auto const nested = std::make_shared<JSONNodeSetter>(member, allocator_, false);
    nested->path_ = Joined(path_, key);
    static_cast<Serializable*>(value)->VisitAttr(nested);
  } else {
    AssertAt(ToValue(value, type, member, allocator_), path_, key, "infinity and NaN cannot be written");
  }
  node_.AddMember(Value(key, allocator_), member, allocator_);
}

struct JSONNodeGetter::Index {
  std::vector<Value::Member const*> members;  // by key, equal ones in the order of the text
};

JSONNodeGetter::JSONNodeGetter(Value const& node, unsigned int version, std::string path)
    : node_(node), path_(std::move(path)) {
  TakeVersion(version);
}

JSONNodeGetter::~JSONNodeGetter() = default;

void JSONNodeGetter::TakeVersion(unsigned int version) {
  if (version != 0) {
    _serialization_protocol_version = version;
    return;
  }
  Value const* const member = FindOrNull(kVersionKey);
  if (member == nullptr) return;
  AssertAt(TakeNumber(*member, Number::kUInt32, &_serialization_protocol_version), path_, kVersionKey,
           NeedsOf(Number::kUInt32));
  if (_serialization_protocol_version > __SERIALIZATION_PROTOCOL_VERSION__)
    utility::Refuse("_serialization_protocol_version > __SERIALIZATION_PROTOCOL_VERSION__.");
}

std::unique_ptr<JSONNodeGetter::Index> JSONNodeGetter::IndexOf(Value const& object) {
  auto index = std::make_unique<Index>();
  index->members.reserve(object.MemberCount());
  for (auto const& member : object.GetObject()) index->members.push_back(&member);
  std::sort(index->members.begin(), index->members.end(), [](auto const* a, auto const* b) {
    int const order = NameOf(*a).compare(NameOf(*b));
    return order != 0 ? order < 0 : a < b;
  });
  return index;
}

Value const* JSONNodeGetter::FindOrNull(char const* key) {
  AssertAt(node_.IsObject(), path_, key, "a record is read from an object");
  if (node_.MemberCount() < kIndexedMembers) {
    auto const member = node_.FindMember(key);
    return member == node_.MemberEnd() ? nullptr : &member->value;
  }
  if (index_ == nullptr) index_ = IndexOf(node_);
  auto const& members = index_->members;
  auto const place = std::lower_bound(members.begin(), members.end(), std::string_view(key),
                                      [](auto const* member, auto name) { return NameOf(*member) < name; });
  return place != members.end() && NameOf(**place) == key ? &(*place)->value : nullptr;
}

Value const& JSONNodeGetter::Find(char const* key) {
  Value const* const value = FindOrNull(key);
  AssertAt(value != nullptr, path_, key, "the key is missing");
  return *value;
}

void JSONNodeGetter::VisitField(void* value, FieldType const& type, char const* key) {
  AssertTarget(value, path_, key);
  if (type.form == FieldType::kWeights && !skims_weights_) return Visit(static_cast<std::string*>(value), key);
  if (type.form == FieldType::kWeightStack) return Visit(static_cast<Texts*>(value), key);
  Value const& from = Find(key);
  switch (type.form) {
    case FieldType::kNumber:
      return AssertAt(TakeNumber(from, type.number, value), path_, key, NeedsOf(type.number));
    case FieldType::kCharacter: {
      std::string taken;
      AssertAt(TakeText(from, taken), path_, key, kNeedsText);
      std::memcpy(value, taken.data(), taken.size());
      return;
    }
    case FieldType::kText:
      return AssertAt(TakeText(from, *static_cast<std::string*>(value)), path_, key, kNeedsText);
    case FieldType::kRecord:
      return TakeRecord(from, static_cast<Serializable*>(value), key);
    case FieldType::kWeights:  // left out
      return AssertAt(from.IsString(), path_, key, kNeedsText);
    case FieldType::kNumbers:
    case FieldType::kTexts:
    case FieldType::kRows:
      return TakeList(from, value, type, key);
    case FieldType::kWeightStack:  // read as texts
      break;
  }
}

void JSONNodeGetter::TakeList(Value const& from, void* list, FieldType const& type, char const* key) {
  if (std::size_t const held = HeldBytes(list, type)) Charge(AppendedBytes(from, type), key, held);
  if (type.form == FieldType::kNumbers) return AssertAt(TakeNumbers(from, type, list), path_, key, kNeedsList);
  if (type.form == FieldType::kTexts)
    return AssertAt(TakeTexts(from, *static_cast<Texts*>(list)), path_, key, kNeedsList);
  AssertAt(TakeRows(from, *static_cast<Rows*>(list)), path_, key, "needs an array of arrays of integers");
}

void JSONNodeGetter::TakeRecord(Value const& value, Serializable* record, char const* key) {
  // A record that stands as null keeps what its constructor gave.
  if (value.IsNull()) return;
  if (!value.IsObject() && !value.IsArray()) utility::Refuse("Created node is a unkown value.");
  auto const nested = std::make_shared<JSONNodeGetter>(value, _serialization_protocol_version, Joined(path_, key));
  nested->bytes_left_ = bytes_left_;
  nested->skims_weights_ = skims_weights_;
  record->VisitAttr(nested);
}

// Reading a record again appends to its lists, and a record that stands as null is made all the same: without a limit
// a small text could fill the memory.
void JSONNodeGetter::Charge(std::size_t bytes, char const* key, std::size_t for_a_moment) {
  if (bytes_left_ == nullptr) return;
  AssertAt(bytes + for_a_moment <= *bytes_left_, path_, key,
           "repeated and null records take more memory than such a text may");
  *bytes_left_ -= bytes;
}

void support::ReadRecord(JSONText const& text, Serializable* record, char const* refusal, bool skims_weights) {
  if (!text.Root().IsObject()) {
    if (refusal != nullptr) utility::Refuse("%s", refusal);
    utility::Refuse(nullptr);
  }
  auto const getter = std::make_shared<JSONNodeGetter>(text.Root(), 0);
  getter->skims_weights_ = skims_weights;
  getter->bytes_left_ = std::make_shared<std::size_t>(Allowance(text));
  record->VisitAttr(getter);
}

void support::ChargeRecord(Visitor& visitor, std::size_t bytes, std::string const& id) {
  if (auto* const getter = dynamic_cast<JSONNodeGetter*>(&visitor)) getter->Charge(bytes, id.c_str());
}

void printjsonvalue(Value const& value) {
  unsigned int mask = 0;
  utility::GetLogLevel(&mask);
  if ((mask & 1) != 0) utility::Log(1, "%s", SerializeJSONValue(value).c_str());
}

std::string SerializeJSONValue(Value const& value) { return support::CompactJSON(value); }

Value ToJSONValue(std::vector<std::string> const& values, JSONAllocator& allocator) {
  return TextsValue(values, allocator);
}

Value ToJSONValue(std::string const& value, JSONAllocator& allocator) { return TextValue(value.c_str(), allocator); }

Value ToJSONValue(Serializable* record, JSONAllocator& allocator) {
  if (record == nullptr) utility::Refuse("JSON: a null record cannot be written");
  Value result(rapidjson::kObjectType);
  record->VisitAttr(std::make_shared<JSONNodeSetter>(result, allocator, true));
  return result;
}

void JSONValueTo(Value const& value, std::vector<std::string>& out) {
  if (!TakeTexts(value, out)) utility::Refuse("JSON: a value needs to be an array of strings");
}

void JSONValueTo(Value const& value, std::string& out) {
  if (!TakeText(value, out)) utility::Refuse("JSON: a value needs to be a string");
}

void JSONValueTo(Value const& value, Serializable* record) {
  if (record == nullptr) utility::Refuse("JSON: a null record cannot be read");
  record->VisitAttr(std::make_shared<JSONNodeGetter>(value, 0));
}

}  // namespace talvo::runtime
