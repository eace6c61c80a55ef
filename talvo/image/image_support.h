// What the image operations share: tensors cast, their layout, type, place, rank and memory checked. Internal.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>

#include "talvo/runtime/context.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/utility/log.h"

namespace talvo::kernel::image {

using runtime::TensorCPU;
using runtime::TensorShape;
using utility::Assert;

using TensorPtr = std::shared_ptr<runtime::Tensor>;
using ContextPtr = std::shared_ptr<runtime::Context>;

constexpr char const* kMustBeTensorCPU = "%s must be a TensorCPUPtr.";
constexpr char const* kMustNotBeNull = "%s must not be nullptr.";
constexpr char const* kMustBeValidTensorCPU = "%s must be a vaild TensorCPUPtr.";

// The tests of the free functions; `name` is the argument's name, with which the message begins.
TensorCPU const& Cast(TensorPtr const& tensor, char const* name, char const* format = kMustBeTensorCPU);
void NeedLayout(TensorCPU const& tensor, char const* name, unsigned int layout, char const* layout_name);
void NeedType(TensorCPU const& tensor, char const* name, unsigned int type, char const* type_name);
void NeedMainMemory(TensorCPU const& tensor, char const* name);

/// The tensors of one class operation. Assert, with the operation's name: one that is no CPU tensor.
struct Images {
  Images(char const* operation, TensorPtr const& source, TensorPtr const& destination);

  char const* name;
  TensorCPU const& src;
  TensorCPU const& dst;
};

/// Product of the extents, 0 as soon as one is 0, and the largest number where it does not fit.
std::size_t Volume(std::size_t a, std::size_t b, std::size_t c = 1, std::size_t d = 1);

/// Truncated towards zero; NaN gives 0, a value beyond int the nearest int.
inline int TruncateToInt(float value) {
  if (value >= 2147483648.0f) return std::numeric_limits<int>::max();
  if (value <= -2147483648.0f) return std::numeric_limits<int>::min();
  return value == value ? static_cast<int>(value) : 0;
}

/// Extent of an axis. Assert, with function and argument: there is no such axis.
std::size_t Extent(char const* function, char const* name, TensorCPU const& tensor, std::size_t axis);

/// The pixel that a share of an extent names: their float32 product, truncated. Assert: it is NaN or no int.
std::int64_t PixelOfShare(char const* function, float share, std::size_t extent);

/// Assert, with function and argument: another rank.
void NeedRank(char const* function, char const* name, TensorCPU const& tensor, std::size_t rank);

/// The tensor's memory. Assert, with function and argument: fewer than `bytes` bytes.
unsigned char* Memory(char const* function, char const* name, TensorCPU const& tensor, std::size_t bytes);

/// Starts of the first three planes of a tensor [planes, rows, columns], each of at least `pixels` bytes. Assert, with
/// function and argument: fewer planes or shorter ones. A rank other than 3 ends the process.
std::array<unsigned char*, 3> ThreePlanes(char const* function, char const* name, TensorCPU const& tensor,
                                          std::size_t pixels);

}  // namespace talvo::kernel::image
