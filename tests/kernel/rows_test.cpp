#include <gtest/gtest.h>

#include "talvo/kernel/rows/convolution_tile.h"
#include "talvo/kernel/rows/instruction_sets.h"
#include "talvo/kernel/rows/phase_plane.h"
#include "talvo/kernel/rows/transpose.h"
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

// Element (r, c) of the source goes to row c, column r, each counted from the front or from the back. Rows of both
// sides stand apart, so that a byte too many shows.
TEST(Rows, TransposesAndReversesElementsOfAnySize) {
  for (auto const set : RunnableSets()) {
    ScopedInstructionSet const use(set);
    for (std::size_t const size : {1u, 2u, 3u, 4u, 5u, 8u, 12u, 16u, 39u, 260u}) {
      for (std::size_t const rows : {1u, 3u, 4u, 17u, 150u}) {
        for (std::size_t const columns : {1u, 3u, 4u, 5u, 6u, 16u, 67u}) {
          for (int const kind : {0, 1, 2, 3}) {  // from the back, and without gaps
            bool const back = kind % 2 != 0, gaps = kind < 2;
            std::size_t const from_row = columns * size + (gaps ? 3 : 0), to_row = rows * size + (gaps ? 1 : 0);
            auto const from = test::Bytes(1, rows * from_row);
            SCOPED_TRACE(testing::Message() << NameOf(set) << ", " << rows << " by " << columns << " of " << size);
            std::vector<unsigned char> want(columns * to_row + 1, 0xEE), got = want, reversed(columns * size + 1, 0xEE);
            for (std::size_t i = 0; i < rows * columns * size; ++i) {
              std::size_t const byte = i % size, c = i / size % columns, r = i / size / columns;
              std::size_t const to = back ? rows - 1 - r : r;
              want[1 + (back ? columns - 1 - c : c) * to_row + to * size + byte] = from[r * from_row + c * size + byte];
            }
            auto const step = static_cast<std::ptrdiff_t>(size), row = static_cast<std::ptrdiff_t>(to_row);
            unsigned char* const first = got.data() + 1 + (back ? (columns - 1) * to_row + (rows - 1) * size : 0);
            TransposeElements(size, {from.data(), static_cast<std::ptrdiff_t>(from_row), rows, columns, first,
                                     back ? -row : row, back ? -step : step});
            ASSERT_EQ(want, got);
            ReverseElements(size, from.data(), columns, reversed.data());
            for (std::size_t i = 0; i < columns * size; ++i) {
              ASSERT_EQ(from[(columns - 1 - i / size) * size + i % size], reversed[i]) << i;
            }
            ASSERT_EQ(0xEE, reversed.back());
          }
        }
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
