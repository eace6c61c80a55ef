#include "talvo/serialization/rapidjson_support.h"

#include "talvo/serialization/weights.h"

#include <memory>
#include <string_view>
#include <utility>

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

#define TALVO_VISIT(type) \
  void Visit(type* value, char const* key) override { Look(value, key); }
  TALVO_FOR_EACH_VISITED_TYPE(TALVO_VISIT)
#undef TALVO_VISIT

 private:
  void Look(void const*, char const*) {}
  void Look(std::string* text, char const* key) {
    if (IsWeightKey(key)) function_(key, *text);
  }
  void Look(std::vector<std::string>* texts, char const* key) {
    for (std::string& text : *texts) Look(&text, key);
  }

  Function const function_;
};

}  // namespace

void ForEachWeight(Serializable& record, std::function<void(char const*, std::string&)> const& visit) {
  record.VisitAttr(std::make_shared<WeightVisitor>(visit));
}

}  // namespace talvo::runtime
