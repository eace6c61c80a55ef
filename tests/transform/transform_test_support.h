// For the tests of transforms: tensors of random bytes between guards.
#pragma once

#include <gtest/gtest.h>

#include <cstring>

#include "talvo/runtime/kernel.h"
#include "tests/support/bits.h"
#include "tests/support/guarded_context.h"
#include "tests/support/log_capture.h"

namespace talvo::test {

using runtime::TensorShape;
using Dims = std::vector<unsigned int>;
using Tensors = std::vector<std::shared_ptr<runtime::Tensor>>;
using TensorPtr = std::shared_ptr<runtime::TensorCPU>;
using DevicePtr = std::shared_ptr<runtime::DeviceCPU>;

class TransformTest : public testing::Test {
 protected:
  /// A tensor of random bytes with step size 9.
  TensorPtr Random(Dims const& dims, unsigned int layout = TensorShape::CHW, unsigned int type = TensorShape::FLOAT32,
                   unsigned int location = TensorShape::MainMemory) const {
    TensorShape shape(dims, type, layout, location, TensorShape::Extra());
    shape.extra.step_size = 9;
    return device_->CreateTensor(shape, Bytes(type + 1, runtime::ByteCount(shape)).data());
  }

  /// What the kernel, or the free form, refuses with.
  static std::string Refusal(runtime::IKernel const& kernel, Tensors const& inputs, Tensors outputs,
                             std::shared_ptr<runtime::Context> const& context) {
    return RefusalOf([&] { kernel.Forward(inputs, outputs, context); });
  }
  template <class Result, class... Params>
  static std::string Refusal(Result (*function)(Params...), std::decay_t<Params>... args) {
    return RefusalOf([&] { function(args...); });
  }

  std::shared_ptr<runtime::Context> const context_ = GuardedContext();
  DevicePtr const device_ = context_->device_cpu;
};

}  // namespace talvo::test
