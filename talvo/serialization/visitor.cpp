#include "talvo/serialization/visitor.h"

#include <type_traits>

#include "talvo/serialization/field_type_support.h"
#include "talvo/serialization/serializable.h"

namespace talvo::runtime {
namespace {

using support::Elements;
using support::FieldType;
using support::Number;

template <class T>
constexpr Number NumberOf() {
  if constexpr (std::is_same_v<T, half_float::half>) return Number::kHalf;
  if constexpr (std::is_same_v<T, float>) return Number::kFloat;
  if constexpr (std::is_same_v<T, double>) return Number::kDouble;
  if constexpr (std::is_same_v<T, bool>) return Number::kBool;
  constexpr bool kSigned = std::is_signed_v<T>;
  if constexpr (sizeof(T) == 1) return kSigned ? Number::kInt8 : Number::kUInt8;
  if constexpr (sizeof(T) == 2) return kSigned ? Number::kInt16 : Number::kUInt16;
  if constexpr (sizeof(T) == 4) return kSigned ? Number::kInt32 : Number::kUInt32;
  return kSigned ? Number::kInt64 : Number::kUInt64;
}

template <class List>
Elements Look(void* list) {
  List& elements = *static_cast<List*>(list);
  return {elements.data(), elements.size(), elements.capacity()};
}

template <class List>
Elements Resize(void* list, std::size_t count) {
  List& elements = *static_cast<List*>(list);
  if constexpr (!std::is_same_v<List, std::string>) elements.reserve(count);  // which a text does by itself
  elements.resize(count);
  return Look<List>(list);
}

template <class T>
struct Tag {};

template <class T>
constexpr FieldType TypeOf(Tag<T>, char const* spelled) {
  return {std::is_same_v<T, char> ? FieldType::kCharacter : FieldType::kNumber,
          NumberOf<T>(),
          sizeof(T),
          spelled,
          &typeid(T),
          nullptr,
          nullptr};
}

template <class T>
constexpr FieldType TypeOf(Tag<std::vector<T>>, char const* spelled) {
  using List = std::vector<T>;
  return {FieldType::kNumbers, NumberOf<T>(), sizeof(T), spelled, &typeid(List), &Look<List>, &Resize<List>};
}

template <class T>
constexpr FieldType TypeOf(Tag<std::vector<std::vector<T>>>, char const* spelled) {
  FieldType type = TypeOf(Tag<std::vector<T>>(), spelled);
  type.form = FieldType::kRows;
  type.info = &typeid(std::vector<std::vector<T>>);
  return type;
}

constexpr FieldType TypeOf(Tag<std::string>, char const* spelled) {
  return {FieldType::kText, Number::kUInt8, 1, spelled, &typeid(std::string), &Look<std::string>, &Resize<std::string>};
}

constexpr FieldType TypeOf(Tag<std::vector<std::string>>, char const* spelled) {
  return {FieldType::kTexts, Number::kUInt8, 1, spelled, &typeid(std::vector<std::string>), nullptr, nullptr};
}

constexpr FieldType TypeOf(Tag<Serializable>, char const* spelled) {
  return {FieldType::kRecord, Number::kUInt8, 0, spelled, &typeid(Serializable), nullptr, nullptr};
}

}  // namespace

Visitor::~Visitor() = default;

#define TALVO_VISIT(type)                                          \
  void FieldVisitor::Visit(type* value, char const* key) {         \
    static constexpr FieldType kType = TypeOf(Tag<type>(), #type); \
    VisitField(value, kType, key);                                 \
  }
TALVO_FOR_EACH_VISITED_TYPE(TALVO_VISIT)
#undef TALVO_VISIT

}  // namespace talvo::runtime
