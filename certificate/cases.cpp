#include "certificate/cases.h"

#include <cstdlib>
#include <cstring>

#include "certificate/memory_sanitizer.h"
#include "talvo/runtime/device_cpu.h"
#include "talvo/runtime/memory_pool.h"
#include "talvo/utility/base64.h"

namespace talvo::certificate {
namespace {

class FillingPool : public runtime::MemoryPool {
 public:
  void Clear() override {}
  void* Malloc(unsigned long size) override {
    void* const block = std::malloc(size);
    if (block == nullptr) return nullptr;
    std::memset(block, FillByte(), size);
    Uninitialise(block, size);
    ++BlocksInUse();
    return block;
  }
  void Free(void* pointer) override {
    if (pointer != nullptr) --BlocksInUse();
    std::free(pointer);
  }
  unsigned long HeapSize() const override { return 0; }
};

TensorShape Shape(Dims dims, unsigned int layout, unsigned int type, short step) {
  TensorShape::Extra extra;
  extra.step_size = step;
  return TensorShape(std::move(dims), type, layout, TensorShape::MainMemory, extra);
}

float FromBits(std::uint32_t bits) {
  float value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

}  // namespace

unsigned char& FillByte() {
  static unsigned char byte = 0xA5;
  return byte;
}

long& BlocksInUse() {
  static long blocks = 0;
  return blocks;
}

std::shared_ptr<runtime::Context> const& Context() {
  static std::shared_ptr<runtime::Context> const context = [] {
    auto const pool = std::make_shared<FillingPool>();
    auto const device = runtime::CreateDeviceCPU(runtime::DetectCPUDevice(), pool, nullptr, pool);
    return runtime::CreateContext(device, nullptr, nullptr, nullptr, nullptr, nullptr);
  }();
  return context;
}

TensorPtr Blank(Dims dims, unsigned int layout, unsigned int type, short step) {
  return Context()->device_cpu->CreateTensor(Shape(std::move(dims), layout, type, step), nullptr);
}

Draw::Draw(std::uint64_t seed) : state_(seed), kind_(Below(5)) {}

// The upper half of a number of splitmix64: Steele, Lea, Flood, Fast Splittable Pseudorandom Number Generators, 2014.
std::uint32_t Draw::Word() {
  std::uint64_t z = state_ += 0x9E3779B97F4A7C15;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
  return static_cast<std::uint32_t>((z ^ (z >> 31)) >> 32);
}

Dims Draw::Plane(unsigned int channels) {
  unsigned int const height = From(1, 12), width = Width();
  return {channels, height, width};
}

std::vector<float> Draw::Floats(std::size_t count) {
  constexpr std::uint32_t kTiny[] = {0, 0x80000000, 1, 0x80000001, 0x007FFFFF, 0x00800000, 0x80800000, 0x0C800000};
  constexpr std::uint32_t kHuge[] = {0x7FC00000, 0x7F800000, 0xFF800000, 0x7F7FFFFF, 0xFF7FFFFF, 0x80000000};
  std::vector<float> values(count);
  for (float& value : values) {
    value = Unit() * (kind_ == 1 ? 16.0f : 1.0f);
    if (kind_ == 3 && Below(4) == 0) value = FromBits(kTiny[Below(std::size(kTiny))]);
    if (kind_ == 4 && Below(24) == 0) value = FromBits(kHuge[Below(std::size(kHuge))]);
  }
  return values;
}

std::string Draw::Weights(std::size_t count) {
  auto const values = Floats(count);
  return runtime::Base64Encode(reinterpret_cast<unsigned char const*>(values.data()), count * sizeof(float));
}

TensorPtr Draw::Tensor(Dims dims, unsigned int layout, unsigned int type, short step) {
  auto const tensor = Blank(std::move(dims), layout, type, step);
  auto const bytes = runtime::ByteCount(tensor->shape);
  if (type == TensorShape::FLOAT32) {
    if (bytes != 0) std::memcpy(tensor->data, Floats(bytes / 4).data(), bytes);
  } else if (type == TensorShape::FLOAT16) {
    auto const values = Floats(bytes / 2);
    for (std::size_t i = 0; i < values.size(); ++i) tensor->Data<half_float::half>()[i] = half_float::half(values[i]);
  } else {
    for (std::size_t i = 0; i < bytes; ++i) tensor->Data<unsigned char>()[i] = static_cast<unsigned char>(Word() >> 24);
  }
  return tensor;
}

bool IsOnMatrixProduct(std::string const& name) {
  for (char const* const part : {"SGEMM", "sgemm", "matrix_product"})
    if (name.find(part) != std::string::npos) return true;
  return false;
}

void Digest::Add(void const* data, std::size_t bytes) {
  NeedInitialised(data, bytes);
  auto const* const values = static_cast<unsigned char const*>(data);
  for (std::size_t i = 0; i < bytes; ++i) value_ = (value_ ^ values[i]) * 0x100000001B3;
}

void Digest::Add(float const* values, std::size_t count) {
  NeedInitialised(values, count * sizeof(float));
  for (std::size_t i = 0; i < count; ++i) {
    std::uint32_t bits;
    std::memcpy(&bits, values + i, sizeof bits);
    if ((bits & 0x7FFFFFFF) > 0x7F800000) bits = 0x7FC00000;
    Add(&bits, sizeof bits);
  }
}

void Digest::Add(runtime::Tensor const& tensor) {
  TensorShape const& shape = tensor.shape;
  Add(shape.dims.data(), shape.dims.size() * sizeof(unsigned int));
  for (unsigned int const number : {shape.data_type, shape.layout, static_cast<unsigned int>(shape.extra.step_size)})
    Add(&number, sizeof number);
  std::size_t const count = runtime::ElementCount(shape.dims);
  NeedInitialised(tensor.data, runtime::ByteCount(shape));
  if (shape.data_type == TensorShape::FLOAT32) {
    Add(static_cast<float const*>(tensor.data), count);
  } else if (shape.data_type == TensorShape::FLOAT16) {
    for (std::size_t i = 0; i < count; ++i) {
      auto const value = static_cast<float>(static_cast<half_float::half const*>(tensor.data)[i]);
      Add(&value, 1);
    }
  } else {
    Add(tensor.data, runtime::ByteCount(shape));
  }
}

}  // namespace talvo::certificate
