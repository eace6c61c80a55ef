// Helpers that the sources of the builder share. Internal to them.
#pragma once

#include "tools/convert_onnx/builder.h"

namespace convert_onnx {

constexpr long long kShort = 32767;  // the largest extent in a record of shorts

unsigned int LayoutOf(Shape const& dims);

/// The shape without a leading extent of 1, if it has more; of a scalar {1}.
Shape WithoutBatch(Shape const& shape);

/// `number` as a short field of a record. Refusal: it does not fit.
short Signed(long long number, char const* what);

/// A half holds the value exactly.
bool IsHalf(float value);

bool IsOnly(Floats const& values, float value);

inline std::vector<Value> Only(Value const& value) { return {value}; }

}  // namespace convert_onnx
