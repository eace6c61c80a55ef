// The description of a package that --list prints.
#pragma once

#include <iosfwd>

#include "talvo/serialization/model_info.h"

namespace run_package {

/// Models, versions, layers, the kernels of each back end, and the bytes of weights as float32.
void Describe(talvo::runtime::TLNModel const& package, std::ostream& out);

}  // namespace run_package
