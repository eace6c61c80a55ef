// The wall clock in ticks of a microsecond. The clock in milliseconds, get_time_in_ms, stands in log.h.
#pragma once

#include "talvo/utility/export.h"

namespace talvo::utility {

/// Wall-clock time in microseconds.
TALVO_API double getTickCount();

/// Ticks in a second: 1e6.
TALVO_API double getTickFrequency();

/// Not supported on any platform: ends the process.
[[noreturn]] TALVO_API double getCurrentCPUFrequency_GHz();

}  // namespace talvo::utility
