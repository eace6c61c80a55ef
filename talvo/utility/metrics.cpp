#include "talvo/utility/metrics.h"

#include <cmath>

#include "talvo/utility/timer.h"

namespace talvo::utility {

void TimeMetrics::clear() {
  min = std::numeric_limits<float>::max();
  // The least positive float, where the lowest may be expected: samples of 0 do not raise it.
  max = std::numeric_limits<float>::min();
  total = 0.0;
  count = 0;
  samples.clear();
  start = 0.0;
}

void TimeMetrics::tic() { start = getTickCount(); }

double TimeMetrics::toc() {
  double const now = getTickCount();
  double const sample = (now - start) / getTickFrequency();
  samples.push_back(sample);
  if (sample > max) max = sample;
  if (sample < min) min = sample;
  total += sample;
  ++count;
  return now;
}

double TimeMetrics::avg() const { return count == 0 ? 0.0 : total / static_cast<double>(count); }

double TimeMetrics::var() const {
  if (count == 0) return 0.0;
  double const mean = avg();
  double squares = 0.0;
  for (double sample : samples) squares += (sample - mean) * (sample - mean);
  return squares / static_cast<double>(count);
}

double TimeMetrics::std() const { return std::sqrt(var()); }

double TimeMetrics::tmin() const { return min; }

double TimeMetrics::tmax() const { return max; }

double TimeMetrics::feq() const { return getTickFrequency(); }

double TimeMetrics::sum() const { return total; }

std::uint64_t TimeMetrics::cnt() const { return count; }

void SumMetricsThreadSafe::clear() {
  std::lock_guard<std::mutex> const lock(mutex_);
  total_ = 0.0;
}

void SumMetricsThreadSafe::update(double value) {
  std::lock_guard<std::mutex> const lock(mutex_);
  total_ += value;
}

double SumMetricsThreadSafe::sum() const { return total_; }

void AverageMetrics::clear() {
  total_ = 0.0;
  count_ = 0;
}

void AverageMetrics::update(double value) {
  total_ += value;
  ++count_;
}

double AverageMetrics::sum() const { return total_; }

double AverageMetrics::avg() const { return total_ / static_cast<double>(count_); }

void AverageMetricsThreadSafe::clear() {
  std::lock_guard<std::mutex> const lock(mutex_);
  AverageMetrics::clear();
}

void AverageMetricsThreadSafe::update(double value) {
  std::lock_guard<std::mutex> const lock(mutex_);
  AverageMetrics::update(value);
}

}  // namespace talvo::utility
