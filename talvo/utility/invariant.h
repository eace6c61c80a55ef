// The platform assertion: for broken invariants that are programming errors. It is on in every build, whatever NDEBUG
// says. Bad input of any kind goes through Assert of log.h instead.
#pragma once

#include "talvo/utility/export.h"

namespace talvo::utility {

/// Writes expression, function, the stem of `file` and the line to standard error and aborts.
[[noreturn]] TALVO_API void InvariantFailed(char const* expression, char const* function, char const* file, int line);

}  // namespace talvo::utility

/// Aborts with `text` in place of the expression's own words.
#define TALVO_INVARIANT_TEXT(expression, text) \
  (static_cast<bool>(expression) ? void(0) : ::talvo::utility::InvariantFailed(text, __func__, __FILE__, __LINE__))

/// Aborts with the expression's words.
#define TALVO_INVARIANT(expression) TALVO_INVARIANT_TEXT(expression, #expression)
