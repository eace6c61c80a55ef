#include "talvo/runtime/memory_pool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "tests/support/bits.h"
#include "tests/support/log_capture.h"

// Under the address sanitizer: a refused allocation answers null, as the system's does, in place of a report.
extern "C" char const* __asan_default_options();
extern "C" char const* __asan_default_options() { return "allocator_may_return_null=1"; }

namespace talvo::runtime {
namespace {

constexpr unsigned long kEndless = std::numeric_limits<unsigned long>::max();

bool IsAligned(void const* block, std::uintptr_t alignment) {
  return reinterpret_cast<std::uintptr_t>(block) % alignment == 0;
}

TEST(AlignUpPool, RoundsRequestsWithTheirMargin) {
  for (auto const& [size, block_size] : {std::pair{0ul, 64ul}, {1ul, 128ul}, {64ul, 128ul}, {65ul, 192ul}}) {
    AlignUpPool pool(64);
    void* const block = pool.Malloc(size);
    EXPECT_TRUE(IsAligned(block, 64));
    EXPECT_EQ(pool.HeapSize(), block_size) << size;
    pool.Free(block);
    EXPECT_EQ(pool.HeapSize(), block_size) << size;
  }
}

TEST(AlignUpPool, ClearsFreeBlocks) {
  AlignUpPool pool(64);
  void* const kept = pool.Malloc(1);
  pool.Free(pool.Malloc(1000));
  pool.Clear();
  EXPECT_EQ(pool.HeapSize(), 128u);
  std::memset(kept, 1, 1);
  pool.Free(kept);
  EXPECT_EQ(pool.Malloc(10), kept);
  pool.Free(kept);
}

// Against the rule written out, over many blocks that come and go in any order.
TEST(AlignUpPool, KeepsTrackOfEveryBlock) {
  AlignUpPool pool(64);
  std::vector<std::pair<unsigned long, void*>> free_list, used;
  auto const numbers = test::Bytes(1, 30000);
  for (std::size_t i = 0; i + 2 < numbers.size(); i += 3) {
    if (!used.empty() && numbers[i] < (i < 15000 ? 96 : 160)) {
      std::swap(used[numbers[i + 1] * used.size() / 256], used.back());
      pool.Free(used.back().second);
      free_list.push_back(used.back());
      used.pop_back();
      continue;
    }
    unsigned long const size = numbers[i + 1] * 16u, rounded = (64 + size + 63) / 64 * 64;
    auto const found =
        std::find_if(free_list.rbegin(), free_list.rend(), [&](auto const& block) { return block.first >= rounded; });
    void* const block = pool.Malloc(size);
    if (found == free_list.rend()) {
      used.emplace_back(rounded, block);
      continue;
    }
    ASSERT_EQ(block, found->second);
    used.push_back(*found);
    *found = free_list.back();
    free_list.pop_back();
  }
  unsigned long held = 0;
  for (auto const* list : {&free_list, &used})
    for (auto const& block : *list) held += block.first;
  EXPECT_EQ(pool.HeapSize(), held);
  for (auto const& block : used) pool.Free(block.second);
  EXPECT_EQ(pool.HeapSize(), held);
}

TEST(AlignUpPool, RefusesForeignPointersAndAnswersWhatTheSystemRefusesWithNull) {
  AlignUpPool pool(64);
  auto* const foreign = reinterpret_cast<void*>(std::uintptr_t{0x500000010});
  EXPECT_EQ(test::RefusalOf([&] { pool.Free(foreign); }), "[TLN]: pointer(0x16) not in alignment memory pool !\n");
  EXPECT_EQ(pool.Malloc(kEndless - 64), nullptr) << "the margin would wrap";
  EXPECT_EQ(pool.HeapSize(), 0u);
  void* const block = pool.Malloc(1);
  pool.Free(block);
  EXPECT_NE(test::RefusalOf([&] { pool.Free(block); }).find("not in alignment"), std::string::npos) << "freed twice";
  EXPECT_EQ(AlignUpPool(48).Malloc(1), nullptr) << "no power of two";
  EXPECT_EQ(AlignUpPool(4).Malloc(1), nullptr) << "smaller than a pointer";
  EXPECT_NE(test::RefusalOf([] { AlignUpPool(0).Malloc(1); }).find("alignment of 0"), std::string::npos);
}

TEST(AlignUpPoolDeathTest, EndsTheProcessWhenItGoesBeforeItsBlocks) {
  EXPECT_DEATH(
      {
        testing::internal::CaptureStdout();
        std::set_terminate([] {
          std::fputs(testing::internal::GetCapturedStdout().c_str(), stderr);
          std::abort();
        });
        AlignUpPool pool(64);
        pool.Malloc(1);
      },
      "\\[TLN\\]: Destory this pool too early!!");
}

TEST(AlignedPool, ReusesTheFirstBlockThatTheRequestFillsToThreeQuarters) {
  AlignedPool pool(16);
  void* blocks[3];
  for (void*& block : blocks) block = pool.Malloc(100);
  EXPECT_EQ(pool.HeapSize(), 300u);
  for (void* block : blocks) pool.Free(block);
  void* const small = pool.Malloc(74);
  EXPECT_EQ(pool.HeapSize(), 374u) << "75 > 74";
  EXPECT_EQ(pool.Malloc(75), blocks[0]);
  EXPECT_EQ(pool.Malloc(100), blocks[2]) << "the last block moves to where one was taken";
  EXPECT_EQ(pool.Malloc(80), blocks[1]);
  EXPECT_EQ(pool.HeapSize(), 374u) << "a reused block keeps its size";
  for (void* block : {blocks[0], blocks[1], blocks[2], small}) pool.Free(block);
}

TEST(AlignedPool, AlignsEveryBlockInsideItsAllocation) {
  for (unsigned long alignment : {1ul, 8ul, 64ul, 4096ul}) {
    AlignedPool pool(alignment);
    for (unsigned long size : {0ul, 1ul, 100ul, 5000ul}) {
      void* const block = pool.Malloc(size);
      EXPECT_TRUE(IsAligned(block, alignment));
      std::memset(block, 0xFF, size);
      pool.Free(block);
      pool.Clear();
      EXPECT_EQ(pool.HeapSize(), 0u);
    }
    void* const bare = pool.AlignMalloc(10);
    EXPECT_EQ(pool.HeapSize(), 0u) << "no entry in the tables";
    pool.AlignFree(bare);
    pool.AlignFree(nullptr);
  }
  for (unsigned long alignment : {0ul, 48ul})
    EXPECT_NE(test::RefusalOf([=] { AlignedPool pool(alignment); }).find("alignment " + std::to_string(alignment)),
              std::string::npos);
}

TEST(AlignedPoolDeathTest, StopsAtMisuse) {
  EXPECT_DEATH(AlignedPool(16).Free(nullptr),
               "pointer not in alignment memory pool !.*function Free, file memory_pool");
  EXPECT_DEATH(AlignedPool(16).Malloc(100), "memory pool destory too early !.*~AlignedPool, file memory_pool");
  EXPECT_DEATH(AlignedPool(16).Malloc(kEndless), "malloc failed.*function AlignMalloc, file memory_pool");
}

}  // namespace
}  // namespace talvo::runtime
