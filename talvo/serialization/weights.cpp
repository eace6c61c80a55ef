#include "talvo/serialization/rapidjson_support.h"

#include "talvo/serialization/weights.h"

#include <memory>
#include <string_view>
#include <utility>

#include "talvo/serialization/field_type_support.h"
#include "talvo/serialization/json_visitors.h"

namespace talvo::runtime {
namespace {

bool IsWeightKey(std::string_view key) {
  for (std::string_view const start : {"weight", "bias", "shift", "variance", "mean"}) {
    if (key.substr(0, start.size()) == start) return true;
  }
  return key == "scale";
}

// Records hand weights as texts to the JSON visitors alone. This one writes nothing, so that numbers which JSON cannot
// hold are no hindrance.
class WeightVisitor : private rapidjson::Document, public JSONNodeSetter {
 public:
  using Function = std::function<void(char const*, std::string&)>;

  explicit WeightVisitor(Function function)
      : rapidjson::Document(rapidjson::kObjectType),
        JSONNodeSetter(*this, GetAllocator(), false),
        function_(std::move(function)) {}

 private:
  void VisitField(void* value, support::FieldType const& type, char const* key) override {
    if (!IsWeightKey(key)) return;
    if (type.form == support::FieldType::kText || type.form == support::FieldType::kWeights) {
      function_(key, *static_cast<std::string*>(value));
    } else if (type.form == support::FieldType::kTexts || type.form == support::FieldType::kWeightStack) {
      for (std::string& text : *static_cast<std::vector<std::string>*>(value)) function_(key, text);
    }
  }

  Function const function_;
};

}  // namespace

void ForEachWeight(Serializable& record, std::function<void(char const*, std::string&)> const& visit) {
  record.VisitAttr(std::make_shared<WeightVisitor>(visit));
}

}  // namespace talvo::runtime
