#include "talvo/utility/timer.h"

#include <sys/time.h>

#include "talvo/utility/invariant.h"

namespace talvo::utility {

double getTickCount() {
  // Wall-clock time: it may jump when the clock is set.
  timeval now = {};
  gettimeofday(&now, nullptr);
  return static_cast<double>(now.tv_usec) + static_cast<double>(now.tv_sec) * 1e6;
}

double getTickFrequency() { return 1e6; }

double getCurrentCPUFrequency_GHz() { InvariantFailed("false && \"Not implemented\"", __func__, __FILE__, __LINE__); }

}  // namespace talvo::utility
