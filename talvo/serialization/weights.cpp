#include "talvo/serialization/weights.h"

#include <memory>
#include <string_view>
#include <utility>

#include "talvo/serialization/field_type_support.h"
#include "talvo/serialization/serializable.h"

namespace talvo::runtime {
namespace {

bool IsWeightKey(std::string_view key) {
  for (std::string_view const start : {"weight", "bias", "shift", "variance", "mean"}) {
    if (key.substr(0, start.size()) == start) return true;
  }
  return key == "scale";
}

class WeightVisitor : public FieldVisitor {
 public:
  using Function = std::function<void(char const*, std::string&)>;

  explicit WeightVisitor(Function function) : function_(std::move(function)) {}

 private:
  void VisitField(void* value, support::FieldType const& type, char const* key) override {
    using Form = support::FieldType::Form;
    bool const is_text = type.form == Form::kText || type.form == Form::kWeights;
    if ((!is_text && type.form != Form::kTexts && type.form != Form::kWeightStack) || !IsWeightKey(key)) return;
    if (is_text) return function_(key, *static_cast<std::string*>(value));
    for (std::string& text : *static_cast<std::vector<std::string>*>(value)) function_(key, text);
  }

  Function const function_;
};

}  // namespace

void ForEachWeight(Serializable& record, std::function<void(char const*, std::string&)> const& visit) {
  record.VisitAttr(std::make_shared<WeightVisitor>(visit));
}

}  // namespace talvo::runtime
