// Caching pools: a freed block waits for the next request that it fits, so that work on the same shapes takes nothing
// from the system after its first pass. Nothing here is locked.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "talvo/utility/export.h"

namespace talvo::runtime {

class TALVO_API MemoryPool {
 public:
  MemoryPool() = default;
  MemoryPool(MemoryPool const&) = delete;
  MemoryPool& operator=(MemoryPool const&) = delete;
  virtual ~MemoryPool() = default;

  /// Gives the free blocks back to the system; blocks in use stay.
  virtual void Clear() = 0;
  /// A block of at least `size` bytes; 0 bytes give a block like any other.
  virtual void* Malloc(unsigned long size) = 0;
  /// Takes a block of this pool back.
  virtual void Free(void* pointer) = 0;
  /// Bytes of all blocks that the pool holds, free or in use.
  virtual unsigned long HeapSize() const = 0;
};

namespace support {

/// The blocks of a pool that are in use, with their sizes: a hash table in one array. A look-up costs a multiplication,
/// and an entry no memory of its own.
class UsedBlocks {
 public:
  std::size_t Count() const { return count_; }
  unsigned long TotalBytes() const;
  /// Makes room for so many blocks in all, which then enter without an allocation.
  void Reserve(std::size_t blocks);
  /// `block` is not null and not in the table, and there is room for it.
  void Enter(void* block, unsigned long size);
  /// Removes a block and tells its size. False: it is not in use.
  bool Remove(void* block, unsigned long* size);

 private:
  using Slot = std::pair<void*, unsigned long>;  // null: empty

  std::size_t HomeOf(void* block) const;
  std::size_t Next(std::size_t slot) const { return (slot + 1) & (slots_.size() - 1); }

  std::vector<Slot> slots_;  // a power of two, at most half of them taken
  unsigned int shift_ = 0;   // what of a 64-bit hash is not its place
  std::size_t count_ = 0;
};

}  // namespace support

/// Serves a request from the first free block that it fills to three quarters or more.
class TALVO_API AlignedPool : public MemoryPool {
 public:
  /// `alignment` is a power of two and is kept in 32 bits. Assert: 0 or no power of two.
  explicit AlignedPool(unsigned long alignment);
  /// Ends the process when a block is still in use.
  ~AlignedPool() override;

  void Clear() override;
  /// Ends the process when the system has no memory.
  void* Malloc(unsigned long size) override;
  /// Ends the process on a pointer that is not in use.
  void Free(void* pointer) override;
  unsigned long HeapSize() const override;

  /// The bare allocation, with no entry in the table of blocks.
  void* AlignMalloc(unsigned long size);
  /// Releases what AlignMalloc gave; null is ignored.
  void AlignFree(void* pointer);

 private:
  float reuse_ratio_ = 0.75f;
  std::uint32_t malloc_margin_ = 64;
  std::uint32_t alignment_;
  std::vector<std::pair<unsigned long, void*>> free_blocks_;
  support::UsedBlocks used_blocks_;
};

/// Rounds requests up and serves them from the most recently freed block that is large enough.
class TALVO_API AlignUpPool : public MemoryPool {
 public:
  /// `alignment` is both the alignment of addresses and the rounding unit.
  explicit AlignUpPool(unsigned long const& alignment);
  /// Ends the process when a block is still in use, after "Destory this pool too early!!" has reached the log.
  ~AlignUpPool() override;

  void Clear() override;
  /// Null when the system refuses: no memory, or an alignment that is no power of two or below a pointer's size.
  /// Assert: an alignment of 0.
  void* Malloc(unsigned long size) override;
  /// Assert: a pointer that is not in use.
  void Free(void* pointer) override;
  unsigned long HeapSize() const override;

 private:
  std::uint32_t malloc_margin_ = 64;
  std::uint64_t alignment_;
  std::vector<std::pair<unsigned long, void*>> free_blocks_;
  support::UsedBlocks used_blocks_;
};

}  // namespace talvo::runtime
