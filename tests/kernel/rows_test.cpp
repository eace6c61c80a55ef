#include <gtest/gtest.h>

#include "talvo/kernel/rows/convolution_tile.h"
#include "talvo/kernel/rows/elementwise_rows.h"
#include "talvo/kernel/rows/instruction_sets.h"
#include "talvo/kernel/rows/phase_plane.h"
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

TEST(Rows, LaysPlanesSortedByPhase) {
  for (auto const set : RunnableSets()) {
    ScopedInstructionSet const use(set);
    for (std::size_t const width : {1u, 3u, 14u, 31u, 32u, 67u}) {
      for (std::size_t const stride : {1u, 2u, 3u, 70u}) {
        SCOPED_TRACE(testing::Message() << NameOf(set) << " width " << width << ", stride " << stride);
        PhasePlane const plane = {3, width, 2, 1, 6, width + 4, stride, PhasePlane::PhaseWidth(width + 4, stride) + 1};
        auto const from = test::Floats(1, 3 * width);
        std::vector<float> want(plane.Count(), -9.0f), got = want;
        for (std::size_t i = 0; i < from.size(); ++i) {
          std::size_t const y = 2 + i / width, x = 1 + i % width;
          want[(y * std::min(stride, width + 4) + x % stride) * plane.phase_pitch + x / stride] = from[i];
        }
        LayPlane(from.data(), plane, got.data());
        test::ExpectSameBits(want, got);
      }
    }
  }
}

}  // namespace
}  // namespace talvo::kernel::rows
