// Statistics over samples: times of a stretch of code, sums and averages.
#pragma once

#include <cstdint>
#include <limits>
#include <mutex>
#include <vector>

#include "talvo/utility/export.h"

namespace talvo::utility {

/// Times in seconds between tic and toc. Not thread-safe.
class TALVO_API TimeMetrics {
 public:
  /// Forgets all samples; the vector keeps its capacity.
  void clear();
  void tic();
  /// Adds the time since the last tic as a sample. Returns the clock in ticks, not the time taken.
  double toc();

  double avg() const;  // 0 without samples
  double var() const;  // of the population; 0 without samples
  double std() const;
  double tmin() const;  // above tmax without samples
  double tmax() const;
  double feq() const;  // ticks in a second
  double sum() const;
  std::uint64_t cnt() const;

  double min = std::numeric_limits<float>::max();
  double max = std::numeric_limits<float>::min();
  double total = 0.0;
  std::uint64_t count = 0;
  std::vector<double> samples;
  double start = 0.0;  // in ticks
};

class TALVO_API SumMetrics {
 public:
  virtual void clear() = 0;
  virtual void update(double value) = 0;
  virtual double sum() const = 0;
  virtual ~SumMetrics() = default;
};

/// clear and update lock; sum is a plain read.
class TALVO_API SumMetricsThreadSafe : public SumMetrics {
 public:
  void clear() override;
  void update(double value) override;
  double sum() const override;

 private:
  double total_ = 0.0;
  std::mutex mutex_;
};

/// Not thread-safe.
class TALVO_API AverageMetrics {
 public:
  virtual void clear();
  virtual void update(double value);
  virtual double sum() const;
  virtual double avg() const;  // not a number without updates
  virtual ~AverageMetrics() = default;

 private:
  double total_ = 0.0;
  std::uint64_t count_ = 0;
};

/// clear and update lock; sum and avg are plain reads.
class TALVO_API AverageMetricsThreadSafe : public AverageMetrics {
 public:
  void clear() override;
  void update(double value) override;

 private:
  std::mutex mutex_;
};

}  // namespace talvo::utility
