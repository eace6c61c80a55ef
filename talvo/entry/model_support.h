// What the front doors share when they name a refusal. Internal.
#pragma once

#include <exception>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "talvo/serialization/model_cfg.h"

namespace talvo::utility::support {

/// The text of a refusal without tag and newline; "there is not enough memory" for std::bad_alloc; empty where the
/// interface leaves it without words.
std::string RefusalText(std::exception const& refusal);

/// What Load_Single_Net takes for a back end; empty when the package has no configuration for it.
std::shared_ptr<runtime::TLModelCfg> ConfigOf(runtime::TLModelMultiBackendCfgs const& configs,
                                              std::string const& backend);

/// A text with blanks for line breaks and other control characters, which ids and paths may hold.
std::string OneLine(std::string text);

/// The parts of a text one after the other, where a chain of + would make and end a text for each.
std::string Joined(std::initializer_list<std::string_view> parts);

/// Throws std::runtime_error with the parts as one line.
[[noreturn]] void RefuseLine(std::initializer_list<std::string_view> parts);

/// "a, b, c", or "none".
std::string Listed(std::vector<std::string> const& texts);

/// The names that differ least from `name`, at most three, the nearest first; none that differs in more than half of
/// its letters, and none where either is longer than 128: the time grows with the product of their lengths.
std::vector<std::string> NearestNames(std::string const& name, std::vector<std::string> candidates);

}  // namespace talvo::utility::support
