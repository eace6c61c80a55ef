// A package from a file or from memory, with refusals that say where it is wrong.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "talvo/serialization/model_info.h"
#include "talvo/utility/export.h"

namespace talvo::utility {

/// Reads a ".tlnmodel" or ".json" file once. Throws std::runtime_error: "PATH: " and what is wrong with it, in a binary
/// file with the byte, in a text that does not parse with line and column; std::bad_alloc. Versions are not judged.
TALVO_API std::shared_ptr<runtime::TLNModel> OpenPackage(std::string const& path);

/// The same from `size` bytes, which are read during the call; those that begin with a brace are JSON. `name` stands in
/// refusals where a path would.
TALVO_API std::shared_ptr<runtime::TLNModel> OpenPackage(void const* bytes, std::size_t size, std::string const& name);

/// "no JSON: line L, column C: REASON", or nothing for a text that parses.
TALVO_API std::string JSONProblem(std::string const& text);

}  // namespace talvo::utility
