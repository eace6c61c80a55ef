// The description of a package that --list prints.
#pragma once

#include <iosfwd>
#include <string>

#include "talvo/serialization/model_info.h"
#include "tools/common/json.h"

namespace run_package {

/// Models with version, base size, date and summary; layers with the fields of their records and the bytes of weights
/// as float32; the kernels of each back end. As text or as JSON.
void Describe(std::string const& path, talvo::runtime::TLNModel const& package, bool as_json, std::ostream& out);

/// When a model was made, "2026-11-22 08:30:00", or nothing where it does not say.
std::string DateOf(talvo::runtime::NetExtraInfo const& extra);

}  // namespace run_package
