// The log as a process finds it: a program of its own, since no call brings the first sink back.
#include <gtest/gtest.h>

#include "talvo/utility/log.h"

namespace talvo::utility {
namespace {

TEST(LogStart, WritesToStandardOutput) {
  EXPECT_EQ(Log(1, "masked"), "") << "no text was formatted so far";
  testing::internal::CaptureStdout();
  Log(4, "line");
  Log(16, "error");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "[TLN] (Info): line\n[TLN]: error\n\n");
}

}  // namespace
}  // namespace talvo::utility
