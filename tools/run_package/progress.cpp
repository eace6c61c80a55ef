#include "tools/run_package/progress.h"

#include <unistd.h>

#include <cstdio>

#include "talvo/utility/log.h"

namespace run_package {
namespace {

using talvo::utility::get_time_in_ms;

constexpr double kPatience_ms = 2000, kBetweenLines_ms = 200;

}  // namespace

Progress::Progress(unsigned int repeats)
    : repeats_(repeats), is_seen_(isatty(STDERR_FILENO) != 0), start_ms_(get_time_in_ms()), last_ms_(start_ms_) {}

Progress::~Progress() {
  if (is_shown_) std::fprintf(stderr, "\r\x1B[K");
}

void Progress::Advance() {
  ++done_;
  if (!is_seen_ || done_ == repeats_) return;
  double const now = get_time_in_ms(), gone_ms = now - start_ms_;
  if (gone_ms < kPatience_ms || now - last_ms_ < kBetweenLines_ms) return;
  last_ms_ = now;
  is_shown_ = true;
  double const left_ms = gone_ms / done_ * (repeats_ - done_);
  std::fprintf(stderr, "\r\x1B[Krun %u of %u, %.0f s gone, %.0f s to go", done_, repeats_, gone_ms / 1000,
               left_ms / 1000);
}

}  // namespace run_package
