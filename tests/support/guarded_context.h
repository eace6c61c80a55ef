// A context whose pools cache nothing and surround every block with guards, so that a write outside a tensor shows.
#pragma once

#include <initializer_list>
#include <memory>
#include <unordered_map>
#include <vector>

#include "talvo/runtime/context.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/memory_pool.h"
#include "talvo/runtime/tensor_cpu.h"

namespace talvo::test {

/// Blocks of exactly the requested size, filled with a pattern, between guards that are poisoned under the address
/// sanitizer and compared in Free otherwise.
class GuardedPool : public runtime::MemoryPool {
 public:
  void Clear() override {}
  void* Malloc(unsigned long size) override;
  void Free(void* pointer) override;
  unsigned long HeapSize() const override { return 0; }  // nothing is kept

 private:
  std::unordered_map<void*, std::pair<unsigned long, std::vector<unsigned char>>> blocks_;
};

/// A context on two guarded pools.
std::shared_ptr<runtime::Context> GuardedContext();

/// A FLOAT32 tensor in main memory with a copy of `values`, as many as the dims say.
std::shared_ptr<runtime::TensorCPU> FloatTensor(runtime::Context const& context, std::vector<unsigned int> dims,
                                                unsigned int layout, std::vector<float> const& values);

/// The elements of a tensor of 4-byte floats.
std::vector<float> Values(runtime::Tensor const& tensor);

}  // namespace talvo::test
