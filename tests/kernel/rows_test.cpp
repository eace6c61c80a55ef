#include <gtest/gtest.h>

#include "talvo/kernel/rows/convolution_tile.h"
#include "talvo/kernel/rows/elementwise_rows.h"
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
    for (std::size_t const rows : {1u, 4u, 15u, 16u, 33u}) {
      for (std::size_t const columns : {1u, 7u, 16u, 35u}) {
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

TEST(Rows, CopiesRowsThatStandApart) {
  for (auto const set : RunnableSets()) {
    ScopedInstructionSet const use(set);
    for (std::size_t const rows : {1u, 4u, 9u}) {
      for (std::size_t const n : {1u, 31u, 32u, 33u, 100u}) {
        SCOPED_TRACE(testing::Message() << NameOf(set) << " " << rows << " rows of " << n);
        std::size_t const stride = n + 3;
        auto const x = test::Floats(1, (rows - 1) * stride + n);
        std::vector<float> want, got(rows * n + 1, -9.0f);
        for (std::size_t r = 0; r < rows; ++r) {
          for (std::size_t i = 0; i < n; ++i) want.push_back(x[r * stride + i]);
        }
        want.push_back(-9.0f);
        CopyRows(x.data(), stride, n, rows, got.data());
        test::ExpectSameBits(want, got);
      }
    }
  }
}

TEST(Rows, SplitsRowsIntoEvenAndOdd) {
  constexpr std::size_t kRows = 2;
  for (auto const set : RunnableSets()) {
    ScopedInstructionSet const use(set);
    for (std::size_t const count : {1u, 2u, 31u, 32u, 67u}) {
      SCOPED_TRACE(testing::Message() << NameOf(set) << " " << count);
      auto const from = test::Floats(1, kRows * count);
      std::size_t const stride = count / 2 + 3, odd = kRows * stride;
      std::vector<float> want(2 * odd, -9.0f), got = want;
      for (std::size_t r = 0; r < kRows; ++r) {
        for (std::size_t i = 0; i < count; ++i) want[i % 2 * odd + r * stride + i / 2] = from[r * count + i];
      }
      SplitRows(from.data(), count, kRows, got.data(), got.data() + odd, stride);
      test::ExpectSameBits(want, got);
    }
  }
}

}  // namespace
}  // namespace talvo::kernel::rows
