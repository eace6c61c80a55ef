// What the record of a layer says, whatever its class.
#pragma once

#include <string>
#include <vector>

#include "talvo/serialization/layer_info.h"
#include "tools/common/json.h"

namespace run_package {

struct Field {
  std::string key;
  std::string text;  // JSON of the value, but the bare text of a string
  bool is_string;
};

/// The fields of a record that are set, in the order of the format: numbers but 0, texts and lists but empty ones,
/// true. Weights and what every layer has (type, id, inputs) are left out; fields of inner records stand as
/// OUTER.INNER.
std::vector<Field> FieldsOf(talvo::runtime::LayerInfo& record);

/// Puts fields as members of an object.
void PutFields(std::vector<Field> const& fields, tools::Json& json);

struct Weights {
  std::string key;
  std::vector<float> values;
};

/// The arrays of weights of a record, decoded, those that hold something.
std::vector<Weights> WeightsOf(talvo::runtime::LayerInfo& record);

}  // namespace run_package
