// Runs on a time line that a browser's trace viewer shows.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "talvo/entry/check_model.h"
#include "tools/run_package/session.h"

namespace run_package {

/// Writes the layers of every repeat of every run as events from begin to end, and behind each layer the bytes of
/// tensors that were alive while it ran as a counter, where `memory` is known. Throws std::runtime_error with the path
/// in the text. Source: the Trace Event Format of Chromium's tracing, phases X and C, in microseconds.
void WriteTrace(std::string const& path, std::vector<RunResult> const& runs,
                std::optional<talvo::MemoryReport> const& memory);

}  // namespace run_package
