#include "talvo/runtime/memory_pool.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <utility>

#include "talvo/utility/invariant.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::runtime {
namespace {

using support::UsedBlocks;

using Block = std::pair<unsigned long, void*>;
using Blocks = std::vector<Block>;

constexpr std::size_t kStartBytes = sizeof(void*);  // an aligned block is preceded by the address of its allocation

// Enters a new block in use. Free list and table get the room for every block that there is, so that blocks change
// between them without an allocation: Free runs where tensors are released, and nothing may be thrown there.
[[gnu::cold]] void EnterBlock(void* block, unsigned long size, Blocks& free_blocks, UsedBlocks& used_blocks) {
  std::size_t const blocks = free_blocks.size() + used_blocks.Count() + 1;
  if (free_blocks.capacity() < blocks) free_blocks.reserve(2 * blocks);
  used_blocks.Reserve(blocks);
  used_blocks.Enter(block, size);
}

// Moves entry `at` of the free list to the blocks in use: the last entry takes its place in the list.
void* TakeFreeBlock(Blocks& free_blocks, std::size_t at, UsedBlocks& used_blocks) {
  Block const block = free_blocks[at];
  used_blocks.Enter(block.second, block.first);
  free_blocks[at] = free_blocks.back();
  free_blocks.pop_back();
  return block.second;
}

// False: the pointer is not in use.
bool ReturnBlock(void* pointer, UsedBlocks& used_blocks, Blocks& free_blocks) {
  unsigned long size;
  if (!used_blocks.Remove(pointer, &size)) return false;
  free_blocks.emplace_back(size, pointer);
  return true;
}

unsigned long TotalBytes(Blocks const& free_blocks, UsedBlocks const& used_blocks) {
  unsigned long total = used_blocks.TotalBytes();
  for (auto const& block : free_blocks) total += block.first;
  return total;
}

}  // namespace

namespace support {

unsigned long UsedBlocks::TotalBytes() const {
  unsigned long total = 0;
  for (Slot const& slot : slots_) total += slot.second;
  return total;
}

[[gnu::cold]] void UsedBlocks::Reserve(std::size_t blocks) {
  if (2 * blocks <= slots_.size()) return;
  unsigned int bits = 4;
  while ((std::size_t{1} << bits) < 2 * blocks) ++bits;
  std::vector<Slot> const old = std::exchange(slots_, std::vector<Slot>(std::size_t{1} << bits));
  shift_ = 64 - bits;
  count_ = 0;
  for (Slot const& slot : old) {
    if (slot.first != nullptr) Enter(slot.first, slot.second);
  }
}

// Multiplicative hashing: the high bits of a product with 2^64 over the golden ratio (Knuth, The Art of Computer
// Programming 3, 6.4).
std::size_t UsedBlocks::HomeOf(void* block) const {
  return static_cast<std::size_t>((std::uint64_t{reinterpret_cast<std::uintptr_t>(block)} * 0x9E3779B97F4A7C15u) >>
                                  shift_);
}

void UsedBlocks::Enter(void* block, unsigned long size) {
  std::size_t place = HomeOf(block);
  while (slots_[place].first != nullptr) place = Next(place);
  slots_[place] = {block, size};
  ++count_;
}

bool UsedBlocks::Remove(void* block, unsigned long* size) {
  if (count_ == 0 || block == nullptr) return false;
  std::size_t place = HomeOf(block);
  while (slots_[place].first != block) {
    if (slots_[place].first == nullptr) return false;
    place = Next(place);
  }
  *size = slots_[place].second;
  // The entries behind move up where they may stand at or behind their home, so that each is found from there.
  std::size_t const mask = slots_.size() - 1;
  for (std::size_t from = Next(place); slots_[from].first != nullptr; from = Next(from)) {
    if (((from - HomeOf(slots_[from].first)) & mask) < ((from - place) & mask)) continue;
    slots_[place] = slots_[from];
    place = from;
  }
  slots_[place] = {};
  --count_;
  return true;
}

}  // namespace support

AlignedPool::AlignedPool(unsigned long alignment) : alignment_(static_cast<std::uint32_t>(alignment)) {
  if (alignment_ == 0 || (alignment_ & (alignment_ - 1)) != 0)
    utility::Refuse("AlignedPool: alignment %lu is no power of two", alignment);
}

AlignedPool::~AlignedPool() {
  AlignedPool::Clear();
  TALVO_INVARIANT_TEXT(used_blocks_.Count() == 0, "false && \"alignment memory pool destory too early !\"");
}

void AlignedPool::Clear() {
  for (auto const& block : free_blocks_) AlignFree(block.second);
  free_blocks_.clear();
}

void* AlignedPool::Malloc(unsigned long size) {
  for (std::size_t i = 0; i < free_blocks_.size(); ++i) {
    unsigned long const block_size = free_blocks_[i].first;
    if (block_size >= size && static_cast<unsigned long>(static_cast<float>(block_size) * reuse_ratio_) <= size) {
      return TakeFreeBlock(free_blocks_, i, used_blocks_);
    }
  }
  auto const release = [this](void* pointer) { AlignFree(pointer); };
  std::unique_ptr<void, decltype(release)> block(AlignMalloc(size), release);
  EnterBlock(block.get(), size, free_blocks_, used_blocks_);
  return block.release();
}

void AlignedPool::Free(void* pointer) {
  bool const returned = ReturnBlock(pointer, used_blocks_, free_blocks_);
  TALVO_INVARIANT_TEXT(returned, "false && \"pointer not in alignment memory pool !\"");
}

unsigned long AlignedPool::HeapSize() const { return TotalBytes(free_blocks_, used_blocks_); }

void* AlignedPool::AlignMalloc(unsigned long size) {
  unsigned long const extra = alignment_ + malloc_margin_ + kStartBytes;
  void* const start = size <= std::numeric_limits<unsigned long>::max() - extra ? std::malloc(size + extra) : nullptr;
  TALVO_INVARIANT_TEXT(start != nullptr, "false && \"malloc failed\"");
  auto const address = reinterpret_cast<std::uintptr_t>(start) + alignment_ + kStartBytes - 1;
  auto* const block =
      static_cast<unsigned char*>(start) + (address - address % alignment_ - reinterpret_cast<std::uintptr_t>(start));
  std::memcpy(block - kStartBytes, &start, kStartBytes);
  return block;
}

void AlignedPool::AlignFree(void* pointer) {
  if (pointer == nullptr) return;
  void* start;
  std::memcpy(&start, static_cast<unsigned char*>(pointer) - kStartBytes, kStartBytes);
  std::free(start);
}

AlignUpPool::AlignUpPool(unsigned long const& alignment) : alignment_(alignment) {}

AlignUpPool::~AlignUpPool() {
  if (used_blocks_.Count() != 0) utility::Refuse("Destory this pool too early!!");
  AlignUpPool::Clear();
}

void AlignUpPool::Clear() {
  for (auto const& block : free_blocks_) std::free(block.second);
  free_blocks_.clear();
}

void* AlignUpPool::Malloc(unsigned long size) {
  if (alignment_ == 0) utility::Refuse("AlignUpPool: an alignment of 0 serves no request (%lu bytes asked for)", size);
  auto const alignment = static_cast<unsigned long>(alignment_);  // given as such
  if (size > std::numeric_limits<unsigned long>::max() - malloc_margin_ - alignment) return nullptr;
  unsigned long const with_margin = malloc_margin_ + size + alignment - 1;
  unsigned long const rounded = with_margin & ~(alignment - 1);  // the system serves powers of two alone
  for (std::size_t i = free_blocks_.size(); i-- > 0;) {
    if (free_blocks_[i].first >= rounded) return TakeFreeBlock(free_blocks_, i, used_blocks_);
  }
  void* start = nullptr;
  if (posix_memalign(&start, alignment, rounded) != 0) return nullptr;
  std::unique_ptr<void, decltype(&std::free)> block(start, &std::free);
  EnterBlock(start, rounded, free_blocks_, used_blocks_);
  return block.release();
}

void AlignUpPool::Free(void* pointer) {
  if (!ReturnBlock(pointer, used_blocks_, free_blocks_)) {
    utility::Refuse("pointer(0x%d) not in alignment memory pool !",
                    static_cast<int>(static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(pointer))));
  }
}

unsigned long AlignUpPool::HeapSize() const { return TotalBytes(free_blocks_, used_blocks_); }

}  // namespace talvo::runtime
