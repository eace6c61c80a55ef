// What the image operations share: an argument of a call, bound to the names that refusals give it, and its tests.
// Internal.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>

#include "talvo/runtime/context.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::kernel::image {

using runtime::TensorCPU;
using runtime::TensorShape;
using utility::Refuse;

using TensorPtr = std::shared_ptr<runtime::Tensor>;
using ContextPtr = std::shared_ptr<runtime::Context>;

/// One tensor of a call. Every test refuses where it is reached and not before, so that a function refuses in the order
/// in which it asks. Refers to the tensor: it lives no longer than the call.
class Argument {
 public:
  Argument(char const* function, char const* name, TensorPtr const& tensor)
      : function_(function), name_(name), tensor_(tensor) {}

  char const* function() const { return function_; }
  char const* name() const { return name_; }
  bool is_set() const { return tensor_ != nullptr; }

  // With the texts of the free functions, which begin with the argument's name.

  void ValidateSet(char const* format) const;
  void ValidateTensorCPU(char const* format = kMustBeTensorCPU) const;
  void ValidateLayout(unsigned int layout, char const* layout_name) const;
  void ValidateType(unsigned int type, char const* type_name) const;
  void ValidateMainMemory() const;

  /// For the tests to which the interface gives no text: refuses without one, and logs the argument's dims, data type
  /// and layout with `wrong`.
  void Validate(bool condition, char const* wrong) const {
    if (!condition) RefuseSilently(wrong);
  }

  // What is touched, refused with function, argument and numbers.

  /// Refuses null.
  TensorShape const& shape() const;
  /// Refuses a tensor without such an axis; one with more axes is served.
  std::size_t Extent(std::size_t axis) const;
  /// Volume of the axes `row_axis` and `row_axis` + 1.
  std::size_t Pixels(std::size_t row_axis) const;
  /// Refuses what is no CPU tensor.
  TensorCPU const& tensor() const;
  /// The first of at least `count` elements of T. Refuses a tensor that holds fewer bytes.
  template <class T = unsigned char>
  T* Memory(std::size_t count) const;

  static constexpr char const* kMustBeTensorCPU = "%s must be a TensorCPUPtr.";

 private:
  [[noreturn]] void RefuseSilently(char const* wrong) const;
  void* CheckedMemory(std::size_t bytes) const;

  char const* function_;
  char const* name_;
  TensorPtr const& tensor_;
};

/// Product of the extents, 0 as soon as one is 0, and the largest number where it does not fit.
std::size_t Volume(std::size_t a, std::size_t b, std::size_t c = 1, std::size_t d = 1);

template <class T>
T* Argument::Memory(std::size_t count) const {
  return static_cast<T*>(CheckedMemory(Volume(count, sizeof(T))));
}

/// The pixel that a share of an extent names: their float32 product, truncated. Refuses NaN and what is no int.
std::int64_t PixelOfShare(char const* function, float share, std::size_t extent);

/// Starts of the first three planes of a tensor [planes, rows, columns], of which `pixels` bytes each are touched; null
/// where none is. Refuses shorter planes, and memory for fewer of them.
using Planes = std::array<unsigned char*, 3>;
Planes ThreePlanes(Argument const& image, std::size_t pixels);

}  // namespace talvo::kernel::image
