// Counts what the heap of a program holds and makes it run out. A program that names MemoryMeter gets its own malloc.
#pragma once

#include <cstddef>
#include <cstdint>

#if defined(__SANITIZE_ADDRESS__)
#define TALVO_OWNS_MALLOC 0
#elif defined(__has_feature)
#define TALVO_OWNS_MALLOC !__has_feature(address_sanitizer)
#else
#define TALVO_OWNS_MALLOC 1
#endif

namespace talvo::fuzz {

/// Whether a limit holds: the sanitizers keep malloc for themselves, and let us count alone.
constexpr bool kMemoryRunsOut = TALVO_OWNS_MALLOC;

/// While it lives, an allocation fails that would make the heap hold more than `limit_bytes` above what it held before.
/// One at a time.
class MemoryMeter {
 public:
  explicit MemoryMeter(std::size_t limit_bytes = SIZE_MAX / 4);
  MemoryMeter(MemoryMeter const&) = delete;
  MemoryMeter& operator=(MemoryMeter const&) = delete;
  ~MemoryMeter();

  /// The most that the heap has held above what it held before. A block that grows counts once.
  std::size_t PeakBytes() const;
};

}  // namespace talvo::fuzz
