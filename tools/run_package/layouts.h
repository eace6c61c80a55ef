// Names of tensor layouts and data types, as the command line and the reports use them.
#pragma once

#include <optional>
#include <string>

namespace run_package {

/// The number of a layout by its name.
std::optional<unsigned int> LayoutNumber(std::string const& name);

/// The name of a layout; "layout N" for a number without one.
std::string LayoutName(unsigned int number);

/// The name of a data type, which is one that a tensor has: "float32".
std::string TypeName(unsigned int number);

}  // namespace run_package
