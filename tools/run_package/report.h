// What run_package prints and writes after a run.
#pragma once

#include <iosfwd>
#include <string>

#include "tools/run_package/session.h"

namespace run_package {

/// Prints id, dims, layout, minimum, maximum and mean of each requested output, and the time; writes each to
/// `directory` as LAYER.npy when that is not empty (further outputs of one layer as LAYER.1.npy and so on, and with _2,
/// _3 ... behind it where ids would share a file).
void ReportOutputs(Session const& session, RunResult const& result, std::string const& directory, std::ostream& out);

/// Prints the layers that ran with kernel, output dims and median time over the repeats.
void ReportProfile(Session const& session, RunResult const& result, std::ostream& out);

}  // namespace run_package
