// What a package looks like before it runs.
#pragma once

#include <iosfwd>

#include "tools/run_package/arguments.h"

namespace run_package {

/// Prints the findings about the chosen model, a line each, or with --memory what its dynamic pool takes, on the shapes
/// that were given as files or as extents. Throws std::runtime_error when a finding says that it is refused.
void LookAt(Arguments const& arguments, std::ostream& out);

}  // namespace run_package
