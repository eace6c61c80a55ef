#include "tests/support/guarded_context.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#if defined(__SANITIZE_ADDRESS__)
#define TALVO_TEST_POISON 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TALVO_TEST_POISON 1
#endif
#endif
#ifdef TALVO_TEST_POISON
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(address, size) (void(address), void(size))
#define ASAN_UNPOISON_MEMORY_REGION(address, size) (void(address), void(size))
#endif

namespace talvo::test {
namespace {

constexpr unsigned long kGuard = 64;
constexpr unsigned long kAlignment = 64;
constexpr unsigned char kPattern = 0xA5;  // as a float -2.87e-16: a result that nobody writes shows

}  // namespace

void* GuardedPool::Malloc(unsigned long size) {
  std::vector<unsigned char> memory(size + 2 * kGuard + kAlignment, kPattern);
  auto const start = reinterpret_cast<std::uintptr_t>(memory.data());
  unsigned char* const block = memory.data() + (kAlignment - start % kAlignment) + kGuard;
  ASAN_POISON_MEMORY_REGION(block - kGuard, kGuard);
  ASAN_POISON_MEMORY_REGION(block + size, kGuard);
  blocks_.emplace(block, std::make_pair(size, std::move(memory)));
  return block;
}

void GuardedPool::Free(void* pointer) {
  auto const found = blocks_.find(pointer);
  ASSERT_NE(found, blocks_.end()) << "a block that this pool did not give";
  auto const* const block = static_cast<unsigned char const*>(pointer);
  unsigned long const size = found->second.first;
  ASAN_UNPOISON_MEMORY_REGION(block - kGuard, kGuard);
  ASAN_UNPOISON_MEMORY_REGION(block + size, kGuard);
  auto const intact = [](unsigned char byte) { return byte == kPattern; };
  EXPECT_TRUE(std::all_of(block - kGuard, block, intact)) << "something wrote before a block of " << size << " bytes";
  EXPECT_TRUE(std::all_of(block + size, block + size + kGuard, intact))
      << "something wrote behind a block of " << size << " bytes";
  blocks_.erase(found);
}

std::shared_ptr<runtime::Context> GuardedContext() {
  auto const device = runtime::CreateDeviceCPU(runtime::DetectCPUDevice(), std::make_shared<GuardedPool>(), nullptr,
                                               std::make_shared<GuardedPool>());
  return runtime::CreateContext(device, nullptr, nullptr, nullptr, nullptr, nullptr);
}

std::shared_ptr<runtime::TensorCPU> FloatTensor(runtime::Context const& context, std::vector<unsigned int> dims,
                                                unsigned int layout, std::vector<float> const& values) {
  using runtime::TensorShape;
  TensorShape const shape(std::move(dims), TensorShape::FLOAT32, layout, TensorShape::MainMemory, TensorShape::Extra());
  EXPECT_EQ(runtime::ElementCount(shape.dims), values.size());
  return context.device_cpu->CreateTensor(shape, values.data());
}

std::vector<float> Values(runtime::Tensor const& tensor) {
  auto const* const first = static_cast<float const*>(tensor.data);
  return std::vector<float>(first, first + runtime::ElementCount(tensor.shape.dims));
}

}  // namespace talvo::test
