// The layers of a conversion as a package: records with their weights, and the kernel of each.
#pragma once

#include <memory>
#include <string>

#include "tools/convert_onnx/convert.h"

namespace convert_onnx {

/// A package of one model, `id`, for x86 and arm. All packages of a conversion share its records; each gives them the
/// weights of the conversion.
std::shared_ptr<talvo::runtime::TLNModel> MakePackage(Conversion const& conversion, std::string const& id);

}  // namespace convert_onnx
