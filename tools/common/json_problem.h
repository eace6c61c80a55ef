// Why a text is no JSON: for refusals of the library that come without words.
#pragma once

#include <string>

namespace tools {

/// "no JSON: line L, column C: REASON", or nothing for a text that parses.
std::string ProblemOfJSON(std::string const& text);

}  // namespace tools
