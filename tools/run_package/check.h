// What a package looks like before it runs.
#pragma once

#include <iosfwd>

#include "talvo/entry/check_model.h"
#include "tools/run_package/arguments.h"

namespace run_package {

/// The findings about the chosen model, a line each. Whether nothing was found that is refused.
bool PrintFindings(std::vector<talvo::ModelFinding> const& findings, std::ostream& out);

/// Checks the package on the shapes that were given as files or as extents.
std::vector<talvo::ModelFinding> Check(Arguments const& arguments);

/// Prints what the dynamic pool takes, layer by layer, for these shapes.
void ReportMemory(Arguments const& arguments, std::ostream& out);

}  // namespace run_package
