// Packages on their way to a file.
#pragma once

#include <functional>
#include <string>

#include "talvo/serialization/model_info.h"

namespace tools {

/// By the ending: ".tlnmodel" is binary, ".json" is not. Throws std::runtime_error for another one.
bool IsBinary(std::string const& path);

/// Writes a package beside its place, reads it back, and moves it there when `check` passes what was read: what is
/// checked is what is kept. Throws std::runtime_error when it cannot be written, and what `check` throws; then there is
/// what was there before.
void WritePackage(
    talvo::runtime::TLNModel& package, std::string const& path,
    std::function<void(talvo::runtime::TLNModel const& kept)> const& check = [](auto const&) {});

}  // namespace tools
