#include "talvo/runtime/device_cpu.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "talvo/entry/create_context.h"
#include "talvo/runtime/context.h"
#include "talvo/runtime/tensor_cpu.h"
#include "tests/support/bits.h"
#include "tests/support/guarded_context.h"
#include "tests/support/log_capture.h"

namespace talvo::runtime {
namespace {

using Dims = std::vector<unsigned int>;
using TensorPtr = std::shared_ptr<TensorCPU>;

TensorShape Shape(Dims dims, unsigned int data_type = TensorShape::FLOAT32) {
  return TensorShape(std::move(dims), data_type, TensorShape::FLEXIABLE, TensorShape::MainMemory, {});
}

class DeviceCPUTest : public testing::Test {
 protected:
  DeviceCPUTest() { utility::create_context(context_, 64); }

  std::shared_ptr<Context> context_;
  DeviceCPU& Device() { return *context_->device_cpu; }
};

TEST_F(DeviceCPUTest, TakesFromThePoolInUseAndReturnsToThePoolItTookFrom) {
  auto main_tensor = Device().CreateTensor(Shape({16}), nullptr);
  EXPECT_EQ(Device().memory_pool->HeapSize(), 128u);
  Device().use_dynamic_pool = true;
  auto dynamic_tensor = Device().CreateTensor(Shape({16}), nullptr);
  void* const main_block = main_tensor->data;
  void* const dynamic_block = dynamic_tensor->data;
  main_tensor.reset();
  Device().use_dynamic_pool = false;
  dynamic_tensor.reset();
  EXPECT_EQ(Device().CreateTensor(Shape({16}), nullptr)->data, main_block);
  EXPECT_EQ(Device().CreateTensorDynamic(Shape({16}), nullptr)->data, dynamic_block);
  EXPECT_EQ(Device().memory_pool->HeapSize(), 128u);
  EXPECT_EQ(Device().dynamic_pool->HeapSize(), 128u);
}

TEST_F(DeviceCPUTest, WrapsExternalMemoryAndLeavesItAlone) {
  float values[4] = {1, 2, 3, 4};
  EXPECT_EQ(Device().CreateTensorExternal(Shape({4}), values)->data, values);
  EXPECT_EQ(Device().CreateTensorExternal(Shape({4}), nullptr)->data, nullptr);
  EXPECT_EQ(values[3], 4.0f);
  EXPECT_EQ(Device().memory_pool->HeapSize(), 0u);
}

TEST_F(DeviceCPUTest, RefusesSizesThatItCannotServe) {
  auto const refusal = [&](TensorShape const& shape) {
    return test::RefusalOf([&] { Device().CreateTensor(shape, nullptr); });
  };
  EXPECT_NE(refusal(Shape({32768, 32768})).find("[32768, 32768]"), std::string::npos) << "2^32 bytes";
  EXPECT_NE(refusal(Shape({65536, 65536, 65536, 65536, 65536})).find("65536"), std::string::npos) << "2^80 elements";
  EXPECT_NE(refusal(Shape({3}, 8)).find("data type 8"), std::string::npos);
  EXPECT_NE(test::RefusalOf([&] { Device().CreateTensorExternal(Shape({1u << 30}), &context_); }).find("1073741824"),
            std::string::npos);
  utility::create_context(context_, 48);
  EXPECT_NE(refusal(Shape({3, 5})).find("[3, 5]"), std::string::npos) << "the pool answers null";
  utility::create_context(context_, 0);
  EXPECT_NE(refusal(Shape({3})).find("alignment of 0"), std::string::npos);
  auto const lone = CreateDeviceCPU(DetectCPUDevice(), std::make_shared<AlignUpPool>(64), nullptr, nullptr);
  lone->use_dynamic_pool = true;
  EXPECT_NE(lone->CreateTensor(Shape({3}), nullptr), nullptr) << "without a dynamic pool the main pool serves";
  EXPECT_NE(test::RefusalOf([&] { lone->CreateTensorDynamic(Shape({3}), nullptr); }), "");
}

TEST_F(DeviceCPUTest, LinksItselfAndItsTensorsToTheirOwners) {
  auto const tensor = Device().CreateTensor(Shape({}), nullptr);
  EXPECT_EQ(tensor->shared_from_this(), tensor);
  EXPECT_EQ(Device().shared_from_this(), context_->device_cpu);
  EXPECT_EQ(tensor->device, context_->device_cpu.get());
  EXPECT_EQ(Device().memory_pool->HeapSize(), 128u) << "no dims are one element";
}

// What a factory made: of which type and layout, and with which bytes.
struct Want {
  Dims dims;
  unsigned int data_type, layout;
};

void ExpectShape(Want const& want, TensorPtr const& tensor) {
  EXPECT_EQ(tensor->shape.dims, want.dims);
  EXPECT_EQ(tensor->shape.data_type, want.data_type);
  EXPECT_EQ(tensor->shape.layout, want.layout);
  EXPECT_EQ(tensor->shape.location, TensorShape::MainMemory);
  EXPECT_EQ(tensor->shape.extra.step_size, 0);
}

using S = TensorShape;

TEST(DeviceCPUFactories, ClearZeroTensors) {
  auto const context = test::GuardedContext();  // fills new blocks with a pattern
  auto& device = *context->device_cpu;
  std::pair<Want, TensorPtr> const made[] = {
      {{{5}, S::FLOAT16, S::C}, device.CreateZeroF16CMainMem(5)},
      {{{5}, S::FLOAT32, S::C}, device.CreateZeroF32CMainMem(5)},
      {{{2, 3, 4}, S::FLOAT32, S::CHW}, device.CreateZeroF32CHWMainMem(2, 3, 4)},
      {{{2, 3}, S::FLOAT16, S::FLEXIABLE}, device.CreateZeroF16FlexiableMainMem({2, 3})},
      {{{2, 3}, S::FLOAT32, S::FLEXIABLE}, device.CreateZeroF32FlexiableMainMem({2, 3})},
  };
  for (auto const& [want, tensor] : made) {
    ExpectShape(want, tensor);
    auto const* const bytes = tensor->Data<unsigned char>();
    EXPECT_EQ(std::count(bytes, bytes + ByteCount(tensor->shape), 0), ByteCount(tensor->shape));
  }
}

TEST(DeviceCPUFactories, CopyOrWrapTheCallersBytes) {
  auto const context = test::GuardedContext();
  auto& device = *context->device_cpu;
  auto bytes = test::Bytes(1, 400);
  void* const data = bytes.data();
  Dims const d{2, 3, 4}, blocked{2, 3, 2, 8};
  std::pair<Want, TensorPtr> const copies[] = {
      {{{5}, S::FLOAT16, S::C}, device.CreateF16CMainMemory(5, data)},
      {{{5}, S::FLOAT32, S::C}, device.CreateF32CMainMemory(5, data)},
      {{d, S::FLOAT16, S::FLEXIABLE}, device.CreateF16FlexiableMainMemory(d, data)},
      {{d, S::FLOAT32, S::FLEXIABLE}, device.CreateF32FlexiableMainMemory(d, data)},
      {{d, S::FLOAT32, S::CHW}, device.CreateF32CHWMainMem(d, data)},
      {{d, S::FLOAT16, S::CHW}, device.CreateF16CHWMainMem(d, data)},
      {{blocked, S::FLOAT16, S::C4HW4}, device.CreateF16C4HW4MainMem(blocked, data)},
      {{blocked, S::FLOAT16, S::C8HW8}, device.CreateF16C8HW8MainMem(blocked, data)},
      {{d, S::UINT8, S::CHW}, device.CreateU8CHWMainMem(d, data)},
      {{d, S::UINT8, S::HWC}, device.CreateU8HWCMainMem(d, data)},
      {{d, S::INT16, S::CHW}, device.CreateS16CHWMainMem(d, data)},
      {{{6, 7, 1}, S::UINT8, S::HWC}, device.CreateYPlane8BitTensor(6, 7, data)},
      {{{6, 7, 2}, S::UINT8, S::HWC}, device.CreateUVPlane8BitTensor(6, 7, data)},
      {{{6, 7, 1}, S::UINT8, S::HWC}, device.CreateGray8Tensor(6, 7, data)},
      {{{6, 7, 3}, S::UINT8, S::HWC}, device.CreateBGR888Tensor(6, 7, data)},
      {{{6, 7, 3}, S::UINT8, S::HWC}, device.CreateRGB888Tensor(6, 7, data)},
      {{{6, 7, 4}, S::UINT8, S::HWC}, device.CreateBGRA8888Tensor(6, 7, data)},
      {{{6, 7, 4}, S::UINT8, S::HWC}, device.CreateRGBA8888Tensor(6, 7, data)},
      {{{3, 6, 7}, S::UINT8, S::CHW}, device.CreateBGRUInt8CHWTensor(6, 7, data)},
      {{{3, 6, 7}, S::UINT8, S::CHW}, device.CreateRGBUInt8CHWTensor(6, 7, data)},
  };
  for (auto const& [want, tensor] : copies) {
    ExpectShape(want, tensor);
    EXPECT_NE(tensor->data, data);
    EXPECT_EQ(std::memcmp(tensor->data, data, ByteCount(tensor->shape)), 0);
  }
  std::pair<Want, TensorPtr> const wraps[] = {
      {{d, S::FLOAT16, S::FLEXIABLE}, device.CreateF16FlexiableMainMemExternal(d, data)},
      {{d, S::FLOAT32, S::FLEXIABLE}, device.CreateF32FlexiableMainMemExternal(d, data)},
      {{d, S::FLOAT32, S::CHW}, device.CreateF32CHWMainMemExternal(d, data)},
      {{d, S::INT16, S::CHW}, device.CreateS16CHWMainMemExternal(d, data)},
      {{d, S::UINT8, S::CHW}, device.CreateU8CHWMainMemExternal(d, data)},
      {{d, S::UINT8, S::HWC}, device.CreateU8HWCMainMemExternal(d, data)},
      {{{5}, S::FLOAT32, S::C}, device.CreateF32CMainMemExternal(5, data)},
      {{{6, 7, 1}, S::UINT8, S::HWC}, device.CreateYPlane8BitTensorExternal(6, 7, data)},
      {{{6, 7, 2}, S::UINT8, S::HWC}, device.CreateUVPlane8BitTensorExternal(6, 7, data)},
      {{{6, 7, 1}, S::UINT8, S::HWC}, device.CreateGray8TensorExternal(6, 7, data)},
      {{{6, 7, 3}, S::UINT8, S::HWC}, device.CreateBGR888TensorExternal(6, 7, data)},
      {{{6, 7, 3}, S::UINT8, S::HWC}, device.CreateRGB888TensorExternal(6, 7, data)},
      {{{6, 7, 4}, S::UINT8, S::HWC}, device.CreateBGRA8888TensorExternal(6, 7, data)},
      {{{6, 7, 4}, S::UINT8, S::HWC}, device.CreateRGBA8888TensorExternal(6, 7, data)},
      {{{3, 6, 7}, S::UINT8, S::CHW}, device.CreateBGRUInt8CHWTensorExternal(6, 7, data)},
      {{{3, 6, 7}, S::UINT8, S::CHW}, device.CreateRGBUInt8CHWTensorExternal(6, 7, data)},
  };
  for (auto const& [want, tensor] : wraps) {
    ExpectShape(want, tensor);
    EXPECT_EQ(tensor->data, data);
  }
}

}  // namespace
}  // namespace talvo::runtime
