// Reads the file of a package and says where a damaged one breaks off.
#pragma once

#include <memory>
#include <string>

#include "talvo/serialization/model_info.h"

namespace run_package {

/// The package in a file, whose ending (.tlnmodel or .json) tells its form. Throws std::runtime_error with the path and
/// what is wrong: the byte at which reading the binary form ended, the line and column at which a text is no JSON.
std::shared_ptr<talvo::runtime::TLNModel> ReadPackage(std::string const& path);

}  // namespace run_package
