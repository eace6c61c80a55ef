#include "talvo/runtime/memory_pool.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <memory>

#include "tests/support/log_capture.h"

// Under the address sanitizer: a refused allocation answers null, as the system's does, in place of a report.
extern "C" char const* __asan_default_options();
extern "C" char const* __asan_default_options() { return "allocator_may_return_null=1"; }

namespace talvo::runtime {
namespace {

bool IsAligned(void const* block, std::uintptr_t alignment) {
  return reinterpret_cast<std::uintptr_t>(block) % alignment == 0;
}

TEST(AlignUpPool, RoundsRequestsWithTheirMargin) {
  struct Case {
    unsigned long size, block_size;
  };
  for (Case const& c : {Case{0, 64}, {1, 128}, {64, 128}, {65, 192}}) {
    AlignUpPool pool(64);
    void* const block = pool.Malloc(c.size);
    EXPECT_TRUE(IsAligned(block, 64));
    EXPECT_EQ(pool.HeapSize(), c.block_size) << c.size;
    pool.Free(block);
    EXPECT_EQ(pool.HeapSize(), c.block_size) << c.size;
  }
}

TEST(AlignUpPool, ServesTheMostRecentlyFreedBlockThatIsLargeEnough) {
  AlignUpPool pool(64);
  void* const small = pool.Malloc(1);
  void* const large = pool.Malloc(1000);
  void* const middle = pool.Malloc(100);
  pool.Free(middle);
  pool.Free(large);
  pool.Free(small);
  EXPECT_EQ(pool.Malloc(100), large) << "however large it is";
  EXPECT_EQ(pool.Malloc(0), small);
  EXPECT_EQ(pool.Malloc(1), middle);
  unsigned long const heap = pool.HeapSize();
  void* const fresh = pool.Malloc(1);
  EXPECT_EQ(pool.HeapSize(), heap + 128);
  for (void* block : {small, large, middle, fresh}) pool.Free(block);
}

TEST(AlignUpPool, ClearsFreeBlocksAlone) {
  AlignUpPool pool(64);
  void* const used = pool.Malloc(10);
  pool.Free(pool.Malloc(1000));
  pool.Clear();
  EXPECT_EQ(pool.HeapSize(), 128u);
  std::memset(used, 1, 10);
  pool.Free(used);
  EXPECT_EQ(pool.Malloc(10), used);
  pool.Free(used);
}

TEST(AlignUpPool, RefusesForeignPointers) {
  AlignUpPool pool(64);
  auto* const foreign = reinterpret_cast<void*>(std::uintptr_t{0x500000010});
  EXPECT_EQ(test::RefusalOf([&] { pool.Free(foreign); }), "[TLN]: pointer(0x16) not in alignment memory pool !\n");
  void* const block = pool.Malloc(1);
  pool.Free(block);
  EXPECT_NE(test::RefusalOf([&] { pool.Free(block); }), "") << "freed twice";
}

TEST(AlignUpPool, AnswersWhatTheSystemRefusesWithNull) {
  EXPECT_EQ(AlignUpPool(48).Malloc(1), nullptr) << "no power of two";
  EXPECT_EQ(AlignUpPool(4).Malloc(1), nullptr) << "smaller than a pointer";
  AlignUpPool pool(64);
  EXPECT_EQ(pool.Malloc(std::numeric_limits<unsigned long>::max() - 64), nullptr) << "the margin would wrap";
  EXPECT_EQ(pool.HeapSize(), 0u);
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

TEST(AlignedPool, ReusesBlocksThatTheRequestFillsToThreeQuarters) {
  AlignedPool pool(16);
  void* const block = pool.Malloc(100);
  EXPECT_TRUE(IsAligned(block, 16));
  EXPECT_EQ(pool.HeapSize(), 100u);
  pool.Free(block);
  void* const small = pool.Malloc(74);
  EXPECT_NE(small, block) << "75 > 74";
  EXPECT_EQ(pool.HeapSize(), 174u);
  EXPECT_EQ(pool.Malloc(75), block);
  EXPECT_EQ(pool.HeapSize(), 174u) << "a reused block keeps its size";
  pool.Free(block);
  pool.Free(small);
}

TEST(AlignedPool, ScansFromTheFrontAndMovesTheLastBlockThere) {
  AlignedPool pool(16);
  void* blocks[3];
  for (void*& block : blocks) block = pool.Malloc(100);
  for (void* block : blocks) pool.Free(block);
  EXPECT_EQ(pool.Malloc(100), blocks[0]);
  EXPECT_EQ(pool.Malloc(100), blocks[2]);
  EXPECT_EQ(pool.Malloc(100), blocks[1]);
  for (void* block : blocks) pool.Free(block);
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
  EXPECT_NE(test::RefusalOf([] { AlignedPool pool(0); }), "");
}

TEST(AlignedPoolDeathTest, StopsAtMisuse) {
  EXPECT_DEATH(AlignedPool(16).Free(nullptr),
               "pointer not in alignment memory pool !.*function Free, file memory_pool");
  EXPECT_DEATH(AlignedPool(16).Malloc(100),
               "alignment memory pool destory too early !.*~AlignedPool, file memory_pool");
  EXPECT_DEATH(AlignedPool(16).Malloc(std::numeric_limits<unsigned long>::max()),
               "malloc failed.*function AlignMalloc, file memory_pool");
}

}  // namespace
}  // namespace talvo::runtime
