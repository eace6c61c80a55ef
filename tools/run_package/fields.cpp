#include "tools/run_package/fields.h"

#include <rapidjson/document.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <set>
#include <sstream>
#include <type_traits>
#include <utility>

#include "talvo/serialization/json_visitors.h"
#include "talvo/serialization/weights.h"
#include "talvo/utility/base64.h"

namespace run_package {
namespace {

using namespace talvo::runtime;

std::string TextOf(double number) {
  std::ostringstream text;
  text.precision(9);
  text << number;
  return text.str();
}
std::string TextOf(float number) { return TextOf(double{number}); }
std::string TextOf(half_float::half number) { return TextOf(static_cast<float>(number)); }
std::string TextOf(bool flag) { return flag ? "true" : "false"; }
template <typename T>
std::string TextOf(T number) {
  return std::to_string(number);
}

template <typename T>
std::string TextOf(std::vector<T> const& list) {
  std::string text;
  for (T const element : list) text += (text.empty() ? "" : ", ") + TextOf(element);
  return "[" + text + "]";
}

template <typename T>
std::string TextOf(std::vector<std::vector<T>> const& lists) {
  std::string text;
  for (auto const& list : lists) text += (text.empty() ? "" : ", ") + TextOf(list);
  return "[" + text + "]";
}

template <typename T>
bool IsSet(std::vector<T> const& list) {
  return !list.empty();
}
bool IsSet(half_float::half number) { return static_cast<float>(number) != 0.0f; }
template <typename T>
bool IsSet(T number) {
  return number != T{};
}

template <typename T>
bool IsFinite(T const& number) {
  if constexpr (std::is_floating_point_v<T>) return std::isfinite(number);
  if constexpr (std::is_same_v<T, half_float::half>) return std::isfinite(static_cast<float>(number));
  return true;
}

// Takes down what would be written. Records hand weights as texts to the JSON visitors alone; this one writes nothing,
// so that numbers which JSON cannot hold are no hindrance.
class FieldReader : private rapidjson::Document, public JSONNodeSetter {
 public:
  FieldReader(std::vector<Field>& fields, std::set<std::string const*> const& weights, std::string prefix)
      : rapidjson::Document(rapidjson::kObjectType),
        JSONNodeSetter(*this, GetAllocator(), false),
        fields_(fields),
        weights_(weights),
        prefix_(std::move(prefix)) {}

#define TALVO_READ(type) \
  void Visit(type* value, char const* key) override { Take(*value, key); }
  TALVO_FOR_EACH_VISITED_TYPE(TALVO_READ)
#undef TALVO_READ

 private:
  template <typename T>
  void Take(T const& value, char const* key) {
    if (IsSet(value)) Add(key, TextOf(value), !IsFinite(value));
  }
  void Take(char const& text, char const* key) { Add(key, &text, true); }  // zero-terminated
  void Take(std::string const& text, char const* key) {
    if (!text.empty() && weights_.count(&text) == 0) Add(key, text, true);
  }
  void Take(std::vector<std::string> const& list, char const* key) {
    for (std::size_t i = 0; i < list.size(); ++i) Take(list[i], (key + ("." + std::to_string(i))).c_str());
  }
  void Take(Serializable& record, char const* key) {
    record.VisitAttr(std::make_shared<FieldReader>(fields_, weights_, prefix_ + key + "."));
  }

  void Add(std::string const& key, std::string text, bool is_string) {
    static std::set<std::string> const kOfEveryLayer = {"serializable_type", "type", "id", "read_count"};
    bool const is_inputs = key.compare(0, 10, "input_ids.") == 0;
    if (prefix_.empty() && (kOfEveryLayer.count(key) != 0 || is_inputs)) return;
    fields_.push_back({prefix_ + key, std::move(text), is_string});
  }

  std::vector<Field>& fields_;
  std::set<std::string const*> const& weights_;
  std::string const prefix_;
};

}  // namespace

std::vector<Field> FieldsOf(LayerInfo& record) {
  std::set<std::string const*> weights;
  ForEachWeight(record, [&](char const*, std::string& text) { weights.insert(&text); });
  std::vector<Field> fields;
  record.VisitAttr(std::make_shared<FieldReader>(fields, weights, ""));
  return fields;
}

void PutFields(std::vector<Field> const& fields, tools::Json& json) {
  for (Field const& field : fields) {
    field.is_string ? json.Put(field.key, field.text) : json.PutRaw(field.key, field.text);
  }
}

std::vector<Weights> WeightsOf(LayerInfo& record) {
  std::vector<Weights> arrays;
  ForEachWeight(record, [&](char const* key, std::string& text) {
    std::string const bytes = Base64Decode(text);
    std::vector<float> values(bytes.size() / sizeof(float));
    std::memcpy(values.data(), bytes.data(), values.size() * sizeof(float));
    if (!values.empty()) arrays.push_back({key, std::move(values)});
  });
  return arrays;
}

}  // namespace run_package
