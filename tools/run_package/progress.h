// What a user sees while a run takes its time.
#pragma once

namespace run_package {

/// A line on standard error, where that is a terminal, that is written over as repeats go by, from two seconds on. It
/// is gone when the object goes.
class Progress {
 public:
  explicit Progress(unsigned int repeats);
  Progress(Progress const&) = delete;
  Progress& operator=(Progress const&) = delete;
  ~Progress();

  /// A repeat has ended.
  void Advance();

 private:
  unsigned int const repeats_;
  bool const is_seen_;
  double const start_ms_;
  double last_ms_;
  unsigned int done_ = 0;
  bool is_shown_ = false;
};

}  // namespace run_package
