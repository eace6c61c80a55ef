#include "talvo/utility/metrics.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <thread>

#include "talvo/utility/log.h"
#include "talvo/utility/timer.h"

namespace talvo::utility {
namespace {

// Both clocks stand between two readings of another one, and between them they show single microseconds.
TEST(Timer, TicksInMicroseconds) {
  auto const wall = [] {
    return static_cast<double>(
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count());
  };
  bool odd_ticks = false, odd_milliseconds = false;
  for (int i = 0; i < 100; ++i) {
    double const before = wall(), ticks = getTickCount(), milliseconds = get_time_in_ms(), after = wall();
    EXPECT_TRUE(before - 1 <= ticks && ticks <= after + 1) << ticks - before;
    EXPECT_TRUE(before - 1 <= milliseconds * 1000 && milliseconds * 1000 <= after + 1) << milliseconds * 1000 - before;
    odd_ticks |= std::fmod(ticks, 1000.0) != 0;
    odd_milliseconds |= std::fmod(milliseconds, 1.0) != 0;
  }
  EXPECT_TRUE(odd_ticks && odd_milliseconds);
  EXPECT_EQ(getTickFrequency(), 1e6);
}

TEST(TimerDeathTest, HasNoProcessorFrequency) {
  EXPECT_DEATH(getCurrentCPUFrequency_GHz(),
               "\\(false && \"Not implemented\"\\), function getCurrentCPUFrequency_GHz, file timer, ");
}

TEST(TimeMetrics, CollectsSecondsBetweenTicAndTocUntilCleared) {
  TimeMetrics metrics;
  for (int round = 0; round < 2; ++round) {
    for (double value : {metrics.avg(), metrics.var(), metrics.std(), metrics.sum()}) EXPECT_EQ(value, 0.0);
    EXPECT_EQ(metrics.tmin(), 3.4028234663852886e+38);
    EXPECT_EQ(metrics.tmax(), 1.1754943508222875e-38);
    EXPECT_EQ(metrics.cnt(), 0u);
    for (double seconds : {2.0, 6.0}) {
      metrics.tic();
      metrics.start -= seconds * 1e6;
      EXPECT_NEAR(metrics.toc(), getTickCount(), 1e5) << "the clock, not the time taken";
    }
    EXPECT_EQ(metrics.cnt(), 2u);
    EXPECT_EQ(metrics.feq(), 1e6);
    double const got[] = {metrics.tmin(), metrics.tmax(), metrics.sum(), metrics.avg(), metrics.var(), metrics.std()};
    double const want[] = {2, 6, 8, 4, 4, 2};
    for (int i = 0; i < 6; ++i) EXPECT_NEAR(got[i], want[i], 0.4) << i;
    metrics.clear();
  }
}

TEST(SumMetrics, LosesNoUpdateOfAnyThread) {
  SumMetricsThreadSafe sum;
  AverageMetricsThreadSafe average;
  EXPECT_TRUE(std::isnan(average.avg()));
  auto const update = [&] {
    for (int i = 0; i < 10000; ++i) {
      sum.update(1.0);
      average.update(3.0);
    }
  };
  std::thread first(update), second(update);
  first.join();
  second.join();
  EXPECT_EQ(sum.sum(), 20000.0);
  EXPECT_EQ(average.sum(), 60000.0);
  EXPECT_EQ(average.avg(), 3.0);
  sum.clear();
  average.clear();
  EXPECT_EQ(sum.sum(), 0.0);
  EXPECT_TRUE(std::isnan(average.avg()));
}

}  // namespace
}  // namespace talvo::utility
