// What the library says when it refuses something.
#pragma once

#include <exception>
#include <string>

namespace upgrade_model {

/// The text of an exception of the library, without tag and newline; `silent` where there is none.
std::string Message(std::exception const& refusal, std::string const& silent);

}  // namespace upgrade_model
