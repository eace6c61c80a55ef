#include <gtest/gtest.h>

#include "talvo/kernel/rows/convolution_tile.h"
#include "talvo/kernel/rows/instruction_sets.h"
#include "tests/support/bits.h"

namespace talvo::kernel::rows {
namespace {

TEST(InstructionSets, TheWidestIsTakenAndAScopeGivesItBack) {
  auto const sets = RunnableSets();
  ASSERT_FALSE(sets.empty());
  EXPECT_EQ(InstructionSet::kBaseline, sets.front());
  EXPECT_EQ(sets.back(), ActiveSet());
  {
    ScopedInstructionSet const use(sets.front());
    EXPECT_EQ(sets.front(), ActiveSet());
    EXPECT_EQ(Baseline::kLanes, ActiveLanes());
  }
  EXPECT_EQ(sets.back(), ActiveSet());
}

TEST(Rows, TransposesAnyRectangle) {
  for (auto const set : RunnableSets()) {
    ScopedInstructionSet const use(set);
    for (std::size_t const rows : {1, 4, 15, 16, 33}) {
      for (std::size_t const columns : {1, 7, 16, 35}) {
        SCOPED_TRACE(testing::Message() << NameOf(set) << " " << rows << " by " << columns);
        std::size_t const from_stride = columns + 3, to_stride = rows + 2;
        auto const from = test::Floats(1, rows * from_stride);
        std::vector<float> want(columns * to_stride, -9.0f), got = want;
        for (std::size_t r = 0; r < rows; ++r) {
          for (std::size_t c = 0; c < columns; ++c) want[c * to_stride + r] = from[r * from_stride + c];
        }
        TransposeRows(from.data(), from_stride, rows, columns, got.data(), to_stride);
        test::ExpectSameBits(want, got);
      }
    }
  }
}

TEST(Rows, SplitsARowIntoEvenAndOdd) {
  for (auto const set : RunnableSets()) {
    ScopedInstructionSet const use(set);
    for (std::size_t const count : {1, 2, 31, 32, 67}) {
      SCOPED_TRACE(testing::Message() << NameOf(set) << " " << count);
      auto const from = test::Floats(1, count);
      std::vector<float> want(2 * count + 2, -9.0f), got = want;
      for (std::size_t i = 0; i < count; ++i) want[i % 2 * (count + 1) + i / 2] = from[i];
      SplitRow(from.data(), count, got.data(), got.data() + count + 1);
      test::ExpectSameBits(want, got);
    }
  }
}

}  // namespace
}  // namespace talvo::kernel::rows
