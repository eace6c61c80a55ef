#include "talvo/serialization/rapidjson_include.h"

#include "talvo/serialization/json_visitors.h"

#include <cmath>
#include <cstring>
#include <map>
#include <string_view>
#include <type_traits>
#include <utility>

#include "talvo/serialization/serializable.h"

namespace talvo::runtime {
namespace {

using rapidjson::SizeType;
using rapidjson::Value;

constexpr char kVersionKey[] = "serialization_protocol_version";
constexpr SizeType kIndexedMembers = 32;  // with fewer, members are searched one after the other

template <class T>
constexpr bool kIsFloat = std::is_floating_point_v<T> || std::is_same_v<T, half_float::half>;

std::string Joined(std::string const& path, char const* key) { return path.empty() ? key : path + "." + key; }

void AssertAt(bool condition, std::string const& path, char const* key, char const* problem) {
  if (condition) return;
  utility::Assert(false, "JSON: %s: key \"%s\", path \"%s\"", problem, key, Joined(path, key).c_str());
}

void AssertTarget(void const* value, std::string const& path, char const* key) {
  utility::Assert(key != nullptr, "JSON: a field needs a key");
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

bool ToValue(std::string const& from, Value& to, JSONAllocator& allocator) {
  to.SetString(from.c_str(), allocator);
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
    for (Value const& row : from.GetArray()) {
      std::vector<int> taken;
      if (!Kind<std::vector<int>>::Take(row, taken)) return false;
      std::vector<unsigned short>& narrow = to.emplace_back();
      for (int number : taken) narrow.push_back(static_cast<unsigned short>(number));
    }
    return true;
  }
};

// Hands a value of any depth to a writer; its own Accept would spend stack on each level.
template <class Writer>
bool Render(Value const& root, Writer& writer) {
  struct Level {
    Value const* value;
    SizeType next;
  };
  std::vector<Level> open;
  auto const begin = [&](Value const& value) {
    if (!value.IsObject() && !value.IsArray()) return value.Accept(writer);
    open.push_back({&value, 0});
    return value.IsObject() ? writer.StartObject() : writer.StartArray();
  };
  bool good = begin(root);
  while (good && !open.empty()) {
    Value const& value = *open.back().value;
    SizeType const next = open.back().next++;
    if (value.IsObject() && next < value.MemberCount()) {
      auto const member = value.MemberBegin() + static_cast<std::ptrdiff_t>(next);
      good = writer.Key(member->name.GetString(), member->name.GetStringLength()) && begin(member->value);
    } else if (value.IsArray() && next < value.Size()) {
      good = begin(value[next]);
    } else {
      good = value.IsObject() ? writer.EndObject(value.MemberCount()) : writer.EndArray(value.Size());
      open.pop_back();
    }
  }
  return good;
}

}  // namespace

JSONNodeSetter::JSONNodeSetter(Value& node, JSONAllocator& allocator, bool write_version)
    : node_(node), allocator_(allocator) {
  utility::Assert(node.IsObject(), "JSON: a record is written to an object");
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
  std::map<std::string_view, Value const*> members;
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
  utility::Assert(_serialization_protocol_version <= __SERIALIZATION_PROTOCOL_VERSION__,
                  "_serialization_protocol_version > __SERIALIZATION_PROTOCOL_VERSION__.");
}

Value const* JSONNodeGetter::FindOrNull(char const* key) {
  AssertAt(node_.IsObject(), path_, key, "a record is read from an object");
  if (node_.MemberCount() < kIndexedMembers) {
    auto const member = node_.FindMember(key);
    return member == node_.MemberEnd() ? nullptr : &member->value;
  }
  if (index_ == nullptr) {
    index_ = std::make_unique<Index>();
    for (auto const& member : node_.GetObject())
      index_->members.emplace(std::string_view(member.name.GetString(), member.name.GetStringLength()), &member.value);
  }
  auto const place = index_->members.find(key);
  return place == index_->members.end() ? nullptr : place->second;
}

Value const& JSONNodeGetter::Find(char const* key) {
  Value const* const value = FindOrNull(key);
  AssertAt(value != nullptr, path_, key, "the key is missing");
  return *value;
}

template <class T>
void JSONNodeGetter::Take(T* value, char const* key) {
  AssertAt(Kind<T>::Take(Find(key), *value), path_, key, Kind<T>::kNeeds);
}

void JSONNodeGetter::Take(char* text, char const* key) {
  std::string taken;
  Take(&taken, key);
  std::memcpy(text, taken.data(), taken.size());
}

void JSONNodeGetter::Take(Serializable* record, char const* key) {
  Value const& value = Find(key);
  if (value.IsNull()) return;
  AssertAt(value.IsObject() || value.IsArray(), path_, key, "Created node is a unkown value.");
  record->VisitAttr(std::make_shared<JSONNodeGetter>(value, _serialization_protocol_version, Joined(path_, key)));
}

#define TALVO_VISIT(type)                                    \
  void JSONNodeGetter::Visit(type* value, char const* key) { \
    AssertTarget(value, path_, key);                         \
    Take(value, key);                                        \
  }
TALVO_FOR_EACH_VISITED_TYPE(TALVO_VISIT)
#undef TALVO_VISIT

void printjsonvalue(Value const& value) { utility::Log(1, "%s", SerializeJSONValue(value).c_str()); }

std::string SerializeJSONValue(Value const& value) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  utility::Assert(Render(value, writer), "JSON: infinity and NaN cannot be written");
  return std::string(buffer.GetString(), buffer.GetSize());
}

Value ToJSONValue(std::vector<std::string> const& values, JSONAllocator& allocator) {
  Value result;
  ToValue(values, result, allocator);
  return result;
}

Value ToJSONValue(std::string const& value, JSONAllocator& allocator) { return Value(value.c_str(), allocator); }

Value ToJSONValue(Serializable* record, JSONAllocator& allocator) {
  utility::Assert(record != nullptr, "JSON: a null record cannot be written");
  Value result(rapidjson::kObjectType);
  record->VisitAttr(std::make_shared<JSONNodeSetter>(result, allocator, true));
  return result;
}

void JSONValueTo(Value const& value, std::vector<std::string>& out) {
  utility::Assert(Kind<std::vector<std::string>>::Take(value, out), "JSON: a value needs to be an array of strings");
}

void JSONValueTo(Value const& value, std::string& out) {
  utility::Assert(Kind<std::string>::Take(value, out), "JSON: a value needs to be a string");
}

void JSONValueTo(Value const& value, Serializable* record) {
  utility::Assert(record != nullptr, "JSON: a null record cannot be read");
  record->VisitAttr(std::make_shared<JSONNodeGetter>(value, 0));
}

}  // namespace talvo::runtime
