#include "fuzz/memory_meter.h"

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>

namespace {

std::atomic<std::ptrdiff_t> held{0}, peak{0}, limit{PTRDIFF_MAX};

void Count(std::ptrdiff_t bytes) {
  std::ptrdiff_t const now = held += bytes;
  for (std::ptrdiff_t most = peak; now > most && !peak.compare_exchange_weak(most, now);) {
  }
}

}  // namespace

#if !TALVO_OWNS_MALLOC
#include <sanitizer/allocator_interface.h>

namespace {

[[maybe_unused]] int const hooks = __sanitizer_install_malloc_and_free_hooks(
    [](void const volatile*, std::size_t bytes) { Count(static_cast<std::ptrdiff_t>(bytes)); },
    [](void const volatile* block) {
      Count(-static_cast<std::ptrdiff_t>(__sanitizer_get_allocated_size(const_cast<void const*>(block))));
    });

}  // namespace
#else
namespace {

bool Fits(std::size_t bytes) { return bytes < PTRDIFF_MAX / 2 && held + static_cast<std::ptrdiff_t>(bytes) <= limit; }

std::ptrdiff_t SizeOf(void* block) { return static_cast<std::ptrdiff_t>(malloc_usable_size(block)); }

void* Counted(void* block, std::ptrdiff_t before) {
  if (block == nullptr) errno = ENOMEM;
  Count(SizeOf(block) - before);
  return block;
}

}  // namespace

extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void __libc_free(void*);

void* malloc(std::size_t bytes) { return Fits(bytes) ? Counted(__libc_malloc(bytes), 0) : nullptr; }

void* calloc(std::size_t count, std::size_t bytes) {
  return Fits(count * bytes) ? Counted(__libc_calloc(count, bytes), 0) : nullptr;
}

void* realloc(void* block, std::size_t bytes) {
  std::ptrdiff_t const before = SizeOf(block);
  if (!Fits(bytes - std::min(bytes, static_cast<std::size_t>(before)))) return nullptr;
  void* const moved = __libc_realloc(block, bytes);
  return moved != nullptr || bytes == 0 ? Counted(moved, before) : nullptr;
}

void free(void* block) {
  Count(-SizeOf(block));
  __libc_free(block);
}
}
#endif

namespace talvo::fuzz {
namespace {

std::ptrdiff_t held_before;

}  // namespace

MemoryMeter::MemoryMeter(std::size_t limit_bytes) {
  held_before = held;
  peak = held_before;
  limit = held_before + static_cast<std::ptrdiff_t>(limit_bytes);
}

MemoryMeter::~MemoryMeter() { limit = PTRDIFF_MAX; }

std::size_t MemoryMeter::PeakBytes() const { return static_cast<std::size_t>(peak - held_before); }

}  // namespace talvo::fuzz
