// A run as a page for a browser.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/run_package/report.h"

namespace run_package {

/// The data of the page as JSON: the layers of the model with their fields, histograms of their weights and, of those
/// that ran, times and histograms of their first output. `result` is a run with layers and `run` its numbers; `memory`
/// is its report, where that is known.
std::string PageData(Session const& session, RunResult const& result, RunSummary const& run,
                     ProcessSummary const& process, std::optional<talvo::MemoryReport> const& memory,
                     std::vector<std::string> const& warnings);

/// Writes page.html with this data, one file that needs no other. Throws std::runtime_error with the path in the text.
void WritePage(std::string const& path, std::string const& data);

}  // namespace run_package
