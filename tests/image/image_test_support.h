// Images for the tests: seeded tensors of any shape between guards, and their bytes.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "talvo/image/image_process_fallback.h"
#include "talvo/kernel/rows/instruction_sets.h"
#include "talvo/runtime/tensor_cpu.h"
#include "tests/support/bits.h"
#include "tests/support/guarded_context.h"
#include "tests/support/log_capture.h"

namespace talvo::test {

using runtime::TensorShape;
using ImagePtr = std::shared_ptr<runtime::Tensor>;
using Dims = std::vector<unsigned int>;
using ByteVector = std::vector<unsigned char>;

/// A tensor that is no CPU tensor.
class Foreign : public runtime::Tensor {
 public:
  explicit Foreign(TensorShape const& tensor_shape) : Tensor(TensorShape(tensor_shape), nullptr, nullptr) {}
  std::function<void(void*)> GetDeleter() const override { return {}; }
};

/// Runs under each instruction set that the machine runs; makes tensors of one guarded context.
class ImageTest : public testing::TestWithParam<kernel::rows::InstructionSet> {
 protected:
  ImagePtr Make(Dims dims, unsigned int layout, unsigned int type, void const* data) {
    TensorShape const shape(std::move(dims), type, layout, TensorShape::MainMemory, TensorShape::Extra());
    return context_->device_cpu->CreateTensor(shape, data);
  }
  /// UINT8 with seeded bytes.
  ImagePtr Image(Dims const& dims, unsigned int layout, std::uint32_t seed = 1) {
    return Make(dims, layout, TensorShape::UINT8, Bytes(seed, runtime::ElementCount(dims)).data());
  }
  /// UINT8 with these bytes.
  ImagePtr Image(Dims const& dims, unsigned int layout, ByteVector const& bytes) {
    EXPECT_EQ(runtime::ElementCount(dims), bytes.size());
    return Make(dims, layout, TensorShape::UINT8, bytes.data());
  }
  /// FLOAT32 with these values.
  ImagePtr FloatImage(Dims const& dims, unsigned int layout, std::vector<float> const& values) {
    return FloatTensor(*context_, dims, layout, values);
  }

  /// The class operation of a code, through the dispatcher.
  void Run(int code, ImagePtr src, ImagePtr dst) { process_.ConvertPixel(src, dst, code, nullptr); }

  std::shared_ptr<runtime::Context> context_ = GuardedContext();
  kernel::ImageProcessFallback process_;
  kernel::rows::ScopedInstructionSet const set_{GetParam()};
};

inline auto const kEverySet = testing::ValuesIn(kernel::rows::RunnableSets());

inline ByteVector BytesOf(ImagePtr const& image) {
  auto const* const first = static_cast<unsigned char const*>(image->data);
  return ByteVector(first, first + runtime::ByteCount(image->shape));
}

/// at(i, j, k) for each place of [a, b, c], the last index fastest.
template <class At>
ByteVector Laid(std::size_t a, std::size_t b, std::size_t c, At const& at) {
  ByteVector bytes;
  for (std::size_t i = 0; i < a; ++i)
    for (std::size_t j = 0; j < b; ++j)
      for (std::size_t k = 0; k < c; ++k) bytes.push_back(static_cast<unsigned char>(at(i, j, k)));
  return bytes;
}

/// The source pixels of an output pixel along one axis of a bilinear resize, with their weights.
struct Tap {
  std::size_t first, second;
  int w0, w1;
};

/// Output pixel i with aligned centres, `scale` source pixels for each, held between the first and the last of `extent`
/// pixels; in a source of one pixel both taps are that pixel.
inline Tap TapAt(std::size_t i, std::size_t extent, double scale, double offset = 0.0) {
  auto const position = static_cast<float>((static_cast<double>(i) + 0.5) * scale + offset - 0.5);
  float const last = static_cast<float>(extent - 1), s = std::min(std::max(position, 0.0f), last);
  float const k = std::max(std::min(std::floor(s), last - 1), 0.0f), f = extent == 1 ? 1.0f : s - k;
  auto const first = static_cast<std::size_t>(k);
  return {first, std::min(first + 1, extent - 1), static_cast<int>(std::lround((1.0f - f) * 2048.0f)),
          static_cast<int>(std::lround(f * 2048.0f))};
}

/// What a refusal with `text` throws; an empty text stands for the refusals without one.
inline std::string Report(std::string const& text) { return "[TLN]: " + text + (text.empty() ? "" : "\n"); }

/// A size from `least` to `most` for step i of a walk over random sizes.
inline unsigned int Size(std::uint32_t i, unsigned int least, unsigned int most) {
  return least + (i * 2654435761u >> 8) % (most - least + 1);
}

}  // namespace talvo::test
