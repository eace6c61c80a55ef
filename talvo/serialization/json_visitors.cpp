#include "talvo/serialization/rapidjson_support.h"

#include "talvo/serialization/json_visitors.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string_view>
#include <type_traits>
#include <utility>

#include "talvo/serialization/json_text_support.h"
#include "talvo/serialization/record_support.h"
#include "talvo/serialization/serializable.h"
#include "talvo/utility/log.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::runtime {
namespace {

using rapidjson::SizeType;
using rapidjson::Value;

constexpr char kVersionKey[] = "serialization_protocol_version";
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

template <class T>
constexpr bool kIsFloat = std::is_floating_point_v<T> || std::is_same_v<T, half_float::half>;

template <class T>
constexpr bool kIsList = false;
template <class T>
constexpr bool kIsList<std::vector<T>> = true;

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

// The value of a field. False: JSON cannot hold it.
template <class T>
bool ToValue(T const& from, Value& to, JSONAllocator&) {
  if constexpr (kIsFloat<T>) {
    double const wide = from;
    to.SetDouble(wide);
    return std::isfinite(wide);
  } else {
    to = Value(from);
    return true;
  }
}

bool ToValue(signed char from, Value& to, JSONAllocator&) { return to.SetInt(from), true; }
bool ToValue(unsigned char from, Value& to, JSONAllocator&) { return to.SetUint(from), true; }
bool ToValue(short from, Value& to, JSONAllocator&) { return to.SetInt(from), true; }
bool ToValue(unsigned short from, Value& to, JSONAllocator&) { return to.SetUint(from), true; }
bool ToValue(long long from, Value& to, JSONAllocator&) { return to.SetInt64(from), true; }
bool ToValue(unsigned long long from, Value& to, JSONAllocator&) { return to.SetUint64(from), true; }

// Up to the first zero character, which rapidjson by itself looks for byte by byte.
bool ToValue(std::string const& from, Value& to, JSONAllocator& allocator) {
  to.SetString(from.c_str(), static_cast<SizeType>(std::strlen(from.c_str())), allocator);
  return true;
}

template <class T>
bool ToValue(std::vector<T> const& from, Value& to, JSONAllocator& allocator) {
  to.SetArray().Reserve(static_cast<SizeType>(from.size()), allocator);
  for (T const& element : from) {
    Value value;
    if (!ToValue(element, value, allocator)) return false;
    to.PushBack(value, allocator);
  }
  return true;
}

// What a field of each type needs, and how a value is taken. False: another kind of value.
template <class T>
struct Kind;

template <class T, class Wide>
struct NumberKind {
  static bool Take(Value const& from, T& to) {
    if (!from.Is<Wide>()) return false;
    to = static_cast<T>(from.Get<Wide>());
    return true;
  }
};

struct FloatKind {
  static constexpr char const* kNeeds = "needs a number";
  static bool Take(Value const& from, double& to) { return from.IsNumber() && (to = from.GetDouble(), true); }
  static bool Take(Value const& from, float& to) {
    double wide = 0;
    return Take(from, wide) && (to = static_cast<float>(wide), true);
  }
  static bool Take(Value const& from, half_float::half& to) {
    float narrowed = 0;
    return Take(from, narrowed) && (to = half_float::half(narrowed), true);
  }
};

template <>
struct Kind<float> : FloatKind {};
template <>
struct Kind<double> : FloatKind {};
template <>
struct Kind<half_float::half> : FloatKind {};

template <class T>
struct IntKind : NumberKind<T, int> {
  static constexpr char const* kNeeds = "needs an integer of 32 bits";
};
template <>
struct Kind<signed char> : IntKind<signed char> {};
template <>
struct Kind<short> : IntKind<short> {};
template <>
struct Kind<int> : IntKind<int> {};

template <class T>
struct UnsignedKind : NumberKind<T, unsigned int> {
  static constexpr char const* kNeeds = "needs an unsigned integer of 32 bits";
};
template <>
struct Kind<unsigned char> : UnsignedKind<unsigned char> {};
template <>
struct Kind<unsigned short> : UnsignedKind<unsigned short> {};
template <>
struct Kind<unsigned int> : UnsignedKind<unsigned int> {};

template <>
struct Kind<long long> : NumberKind<long long, std::int64_t> {
  static constexpr char const* kNeeds = "needs an integer of 64 bits";
};
template <>
struct Kind<unsigned long long> : NumberKind<unsigned long long, std::uint64_t> {
  static constexpr char const* kNeeds = "needs an unsigned integer of 64 bits";
};
template <>
struct Kind<bool> : NumberKind<bool, bool> {
  static constexpr char const* kNeeds = "needs true or false";
};

template <>
struct Kind<std::string> {
  static constexpr char const* kNeeds = "needs a string";
  static bool Take(Value const& from, std::string& to) {
    return from.IsString() && (to.assign(from.GetString()), true);  // up to the first zero character
  }
};

// Appends.
template <class T>
struct Kind<std::vector<T>> {
  static constexpr char const* kNeeds = "needs an array of values of the field's kind";
  static bool Take(Value const& from, std::vector<T>& to) {
    if (!from.IsArray()) return false;
    to.reserve(to.size() + from.Size());
    for (Value const& element : from.GetArray()) {
      T taken{};
      if (!Kind<T>::Take(element, taken)) return false;
      to.push_back(std::move(taken));
    }
    return true;
  }
};

// Lists in a list hold numbers that fit int, other than a list of its own.
template <>
struct Kind<std::vector<std::vector<unsigned short>>> {
  static constexpr char const* kNeeds = "needs an array of arrays of integers";
  static bool Take(Value const& from, std::vector<std::vector<unsigned short>>& to) {
    if (!from.IsArray()) return false;
    to.reserve(to.size() + from.Size());
    for (Value const& row : from.GetArray()) {
      std::vector<int> taken;
      if (!Kind<std::vector<int>>::Take(row, taken)) return false;
      std::vector<unsigned short>& narrow = to.emplace_back();
      narrow.reserve(taken.size());
      for (int number : taken) narrow.push_back(static_cast<unsigned short>(number));
    }
    return true;
  }
};

std::string_view NameOf(Value::Member const& member) {
  return {member.name.GetString(), member.name.GetStringLength()};
}

constexpr std::size_t kBlockBytes = 24;  // of memory, at the least and beyond what is in it at the most

// What a list takes for these values; nothing for a field that is replaced.
template <class T>
std::size_t AppendedBytes(Value const&, T const*) {
  return 0;
}
std::size_t AppendedBytes(Value const& from, std::string const*) {
  if (!from.IsString() || from.GetStringLength() <= std::string().capacity()) return 0;
  return kBlockBytes + from.GetStringLength();
}
template <class T>
std::size_t AppendedBytes(Value const& from, std::vector<T> const*) {
  if (!from.IsArray()) return 0;
  std::size_t bytes = kBlockBytes;
  for (Value const& element : from.GetArray())
    bytes += sizeof(T) + AppendedBytes(element, static_cast<T const*>(nullptr));
  return bytes;
}

}  // namespace

JSONNodeSetter::JSONNodeSetter(Value& node, JSONAllocator& allocator, bool write_version)
    : node_(node), allocator_(allocator) {
  if (!node.IsObject()) utility::Refuse("JSON: a record is written to an object");
  if (write_version) Visit(&_serialization_protocol_version, kVersionKey);
}

template <class T>
void JSONNodeSetter::Add(T* value, char const* key) {
  Value member;
  AssertAt(ToValue(*value, member, allocator_), path_, key, "infinity and NaN cannot be written");
  node_.AddMember(Value(key, allocator_), member, allocator_);
}

void JSONNodeSetter::Add(char* text, char const* key) {
  node_.AddMember(Value(key, allocator_), Value(text, allocator_), allocator_);
}

void JSONNodeSetter::Add(Serializable* record, char const* key) {
  Value member(rapidjson::kObjectType);
  auto const nested = std::make_shared<JSONNodeSetter>(member, allocator_, false);
  nested->path_ = Joined(path_, key);
  record->VisitAttr(nested);
  node_.AddMember(Value(key, allocator_), member, allocator_);
}

#define TALVO_VISIT(type)                                    \
  void JSONNodeSetter::Visit(type* value, char const* key) { \
    AssertTarget(value, path_, key);                         \
    Add(value, key);                                         \
  }
TALVO_FOR_EACH_VISITED_TYPE(TALVO_VISIT)
#undef TALVO_VISIT

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
  AssertAt(Kind<unsigned int>::Take(*member, _serialization_protocol_version), path_, kVersionKey,
           Kind<unsigned int>::kNeeds);
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

template <class T>
void JSONNodeGetter::Take(T* value, char const* key) {
  Value const& from = Find(key);
  if constexpr (kIsList<T>) {
    if (!value->empty()) Charge(AppendedBytes(from, value), key, value->capacity() * sizeof value->front());
  }
  AssertAt(Kind<T>::Take(from, *value), path_, key, Kind<T>::kNeeds);
}

void JSONNodeGetter::Take(char* text, char const* key) {
  std::string taken;
  Take(&taken, key);
  std::memcpy(text, taken.data(), taken.size());
}

void JSONNodeGetter::Take(Serializable* record, char const* key) {
  Value const& value = Find(key);
  // A record that stands as null keeps what its constructor gave.
  if (value.IsNull()) return;
  if (!value.IsObject() && !value.IsArray()) utility::Refuse("Created node is a unkown value.");
  auto const nested = std::make_shared<JSONNodeGetter>(value, _serialization_protocol_version, Joined(path_, key));
  nested->bytes_left_ = bytes_left_;
  nested->skims_weights_ = skims_weights_;
  record->VisitAttr(nested);
}

void JSONNodeGetter::Skim(char const* key) { AssertAt(Find(key).IsString(), path_, key, Kind<std::string>::kNeeds); }

// Reading a record again appends to its lists, and a record that stands as null is made all the same: without a limit
// a small text could fill the memory.
void JSONNodeGetter::Charge(std::size_t bytes, char const* key, std::size_t for_a_moment) {
  if (bytes_left_ == nullptr) return;
  AssertAt(bytes + for_a_moment <= *bytes_left_, path_, key,
           "repeated and null records take more memory than such a text may");
  *bytes_left_ -= bytes;
}

#define TALVO_VISIT(type)                                    \
  void JSONNodeGetter::Visit(type* value, char const* key) { \
    AssertTarget(value, path_, key);                         \
    Take(value, key);                                        \
  }
TALVO_FOR_EACH_VISITED_TYPE(TALVO_VISIT)
#undef TALVO_VISIT

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
  Value result;
  ToValue(values, result, allocator);
  return result;
}

Value ToJSONValue(std::string const& value, JSONAllocator& allocator) { return Value(value.c_str(), allocator); }

Value ToJSONValue(Serializable* record, JSONAllocator& allocator) {
  if (record == nullptr) utility::Refuse("JSON: a null record cannot be written");
  Value result(rapidjson::kObjectType);
  record->VisitAttr(std::make_shared<JSONNodeSetter>(result, allocator, true));
  return result;
}

void JSONValueTo(Value const& value, std::vector<std::string>& out) {
  if (!Kind<std::vector<std::string>>::Take(value, out))
    utility::Refuse("JSON: a value needs to be an array of strings");
}

void JSONValueTo(Value const& value, std::string& out) {
  if (!Kind<std::string>::Take(value, out)) utility::Refuse("JSON: a value needs to be a string");
}

void JSONValueTo(Value const& value, Serializable* record) {
  if (record == nullptr) utility::Refuse("JSON: a null record cannot be read");
  record->VisitAttr(std::make_shared<JSONNodeGetter>(value, 0));
}

}  // namespace talvo::runtime
