// What run_package prints after its runs, as lines of text or as JSON.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "tools/common/json.h"
#include "tools/run_package/summary.h"

namespace run_package {

/// Prints the outputs of a run, its times, what it took, and with `layers` a table of its layers.
void PrintRun(RunSummary const& run, bool layers, std::ostream& out);

/// Puts the members of a run into an object.
void PutRun(RunSummary const& run, tools::Json& json);

/// Puts times as an object.
void PutTime(char const* key, TimeSummary const& time, tools::Json& json);

/// What holds for all runs together.
struct ProcessSummary {
  std::string package, model;
  double load_ms;
  unsigned long peak_bytes;  // of the process
};

void PrintProcess(ProcessSummary const& process, std::ostream& out);
void PutProcess(ProcessSummary const& process, tools::Json& json);

}  // namespace run_package
