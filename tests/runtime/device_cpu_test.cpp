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
  DeviceCPU& Device() { return *context_->device_cpu; }

  std::shared_ptr<Context> context_;
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

// A tensor that goes hands its memory back at once; what is left of it to weak pointers is its count.
TEST_F(DeviceCPUTest, ReleasesAtTheLastPointerAndByTheDeletersOfATensor) {
  auto tensor = Device().CreateTensor(Shape({16}), nullptr);
  EXPECT_EQ(tensor->shared_from_this(), tensor);
  std::weak_ptr<Tensor> const weak = tensor;
  void* const block = tensor->data;
  tensor.reset();
  EXPECT_TRUE(weak.expired());
  EXPECT_EQ(Device().memory_pool->Malloc(64), block);
  auto* const own = new TensorCPU(Shape({16}), block, &Device());
  own->GetDeleter()(own);
  auto* const dynamic = new TensorCPU(Shape({16}), Device().dynamic_pool->Malloc(64), &Device());
  dynamic->GetDynamicDeleter()(dynamic);
  EXPECT_EQ(Device().memory_pool->Malloc(64), block);
  Device().memory_pool->Free(block);
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
  for (auto const& [want, tensor] : std::initializer_list<std::pair<Want, TensorPtr>>{
           {{{5}, S::FLOAT16, S::C}, device.CreateZeroF16CMainMem(5)},
           {{{5}, S::FLOAT32, S::C}, device.CreateZeroF32CMainMem(5)},
           {{{2, 3, 4}, S::FLOAT32, S::CHW}, device.CreateZeroF32CHWMainMem(2, 3, 4)},
           {{{2, 3}, S::FLOAT16, S::FLEXIABLE}, device.CreateZeroF16FlexiableMainMem({2, 3})},
           {{{2, 3}, S::FLOAT32, S::FLEXIABLE}, device.CreateZeroF32FlexiableMainMem({2, 3})}}) {
    ExpectShape(want, tensor);
    auto const* const bytes = tensor->Data<unsigned char>();
    EXPECT_EQ(std::count(bytes, bytes + ByteCount(tensor->shape), 0), ByteCount(tensor->shape));
  }
}

TEST(DeviceCPUFactories, CopyOrWrapTheCallersBytes) {
  auto const context = test::GuardedContext();
  auto& cpu = *context->device_cpu;
  auto const original = test::Bytes(1, 400);
  auto bytes = original;
  void* const data = bytes.data();
  Dims const d{2, 3, 4}, blocked{2, 3, 2, 8};
  auto const check = [&](Want const& want, TensorPtr const& copy, TensorPtr const& wrap = nullptr) {
    ExpectShape(want, copy);
    EXPECT_NE(copy->data, data);
    EXPECT_EQ(std::memcmp(copy->data, data, ByteCount(copy->shape)), 0);
    if (wrap == nullptr) return;
    ExpectShape(want, wrap);
    EXPECT_EQ(wrap->data, data);
  };
  check({{5}, S::FLOAT16, S::C}, cpu.CreateF16CMainMemory(5, data));
  check({d, S::FLOAT16, S::CHW}, cpu.CreateF16CHWMainMem(d, data));
  check({blocked, S::FLOAT16, S::C4HW4}, cpu.CreateF16C4HW4MainMem(blocked, data));
  check({blocked, S::FLOAT16, S::C8HW8}, cpu.CreateF16C8HW8MainMem(blocked, data));
  check({{5}, S::FLOAT32, S::C}, cpu.CreateF32CMainMemory(5, data), cpu.CreateF32CMainMemExternal(5, data));
  check({d, S::FLOAT16, S::FLEXIABLE}, cpu.CreateF16FlexiableMainMemory(d, data),
        cpu.CreateF16FlexiableMainMemExternal(d, data));
  check({d, S::FLOAT32, S::FLEXIABLE}, cpu.CreateF32FlexiableMainMemory(d, data),
        cpu.CreateF32FlexiableMainMemExternal(d, data));
  check({d, S::FLOAT32, S::CHW}, cpu.CreateF32CHWMainMem(d, data), cpu.CreateF32CHWMainMemExternal(d, data));
  check({d, S::UINT8, S::CHW}, cpu.CreateU8CHWMainMem(d, data), cpu.CreateU8CHWMainMemExternal(d, data));
  check({d, S::UINT8, S::HWC}, cpu.CreateU8HWCMainMem(d, data), cpu.CreateU8HWCMainMemExternal(d, data));
  check({d, S::INT16, S::CHW}, cpu.CreateS16CHWMainMem(d, data), cpu.CreateS16CHWMainMemExternal(d, data));
  Want const plane{{6, 7, 1}, S::UINT8, S::HWC}, bgr{{6, 7, 3}, S::UINT8, S::HWC}, bgra{{6, 7, 4}, S::UINT8, S::HWC},
      planar{{3, 6, 7}, S::UINT8, S::CHW};
  check(plane, cpu.CreateYPlane8BitTensor(6, 7, data), cpu.CreateYPlane8BitTensorExternal(6, 7, data));
  check({{6, 7, 2}, S::UINT8, S::HWC}, cpu.CreateUVPlane8BitTensor(6, 7, data),
        cpu.CreateUVPlane8BitTensorExternal(6, 7, data));
  check(plane, cpu.CreateGray8Tensor(6, 7, data), cpu.CreateGray8TensorExternal(6, 7, data));
  check(bgr, cpu.CreateBGR888Tensor(6, 7, data), cpu.CreateBGR888TensorExternal(6, 7, data));
  check(bgr, cpu.CreateRGB888Tensor(6, 7, data), cpu.CreateRGB888TensorExternal(6, 7, data));
  check(bgra, cpu.CreateBGRA8888Tensor(6, 7, data), cpu.CreateBGRA8888TensorExternal(6, 7, data));
  check(bgra, cpu.CreateRGBA8888Tensor(6, 7, data), cpu.CreateRGBA8888TensorExternal(6, 7, data));
  check(planar, cpu.CreateBGRUInt8CHWTensor(6, 7, data), cpu.CreateBGRUInt8CHWTensorExternal(6, 7, data));
  check(planar, cpu.CreateRGBUInt8CHWTensor(6, 7, data), cpu.CreateRGBUInt8CHWTensorExternal(6, 7, data));
  EXPECT_EQ(bytes, original);
}

}  // namespace
}  // namespace talvo::runtime
