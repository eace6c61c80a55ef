#include "talvo/utility/metrics.h"

#include <gtest/gtest.h>

#include <cmath>
#include <thread>

#include "talvo/utility/log.h"
#include "talvo/utility/timer.h"

namespace talvo::utility {
namespace {

TEST(Timer, TicksInMicroseconds) {
  double const ticks = getTickCount(), milliseconds = get_time_in_ms();
  EXPECT_NEAR(milliseconds, ticks / 1000.0, 1000.0);
  EXPECT_EQ(getTickFrequency(), 1e6);
}

TEST(TimerDeathTest, HasNoProcessorFrequency) {
  EXPECT_DEATH(getCurrentCPUFrequency_GHz(),
               "\\(false && \"Not implemented\"\\), function getCurrentCPUFrequency_GHz, file timer, ");
}

TEST(TimeMetrics, IsEmptyAtFirstAndAfterClear) {
  TimeMetrics metrics;
  for (int round = 0; round < 2; ++round) {
    for (double value : {metrics.avg(), metrics.var(), metrics.std(), metrics.sum()}) EXPECT_EQ(value, 0.0);
    EXPECT_EQ(metrics.tmin(), 3.4028234663852886e+38);
    EXPECT_EQ(metrics.tmax(), 1.1754943508222875e-38);
    EXPECT_EQ(metrics.cnt(), 0u);
    metrics.tic();
    metrics.toc();
    metrics.clear();
  }
}

TEST(TimeMetrics, CollectsSecondsBetweenTicAndToc) {
  TimeMetrics metrics;
  for (double seconds : {2.0, 6.0}) {
    metrics.start = getTickCount() - seconds * 1e6;
    EXPECT_NEAR(metrics.toc(), getTickCount(), 1e5) << "the clock, not the time taken";
  }
  EXPECT_EQ(metrics.cnt(), 2u);
  EXPECT_NEAR(metrics.tmin(), 2.0, 0.1);
  EXPECT_NEAR(metrics.tmax(), 6.0, 0.1);
  EXPECT_NEAR(metrics.sum(), 8.0, 0.2);
  EXPECT_NEAR(metrics.avg(), 4.0, 0.1);
  EXPECT_NEAR(metrics.var(), 4.0, 0.4);
  EXPECT_NEAR(metrics.std(), 2.0, 0.1);
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
