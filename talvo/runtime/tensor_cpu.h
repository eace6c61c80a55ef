// A tensor in main memory, row-major over its dims, with element access by index.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

#include "talvo/runtime/tensor.h"
#include "talvo/utility/export.h"
#include "talvo/utility/invariant.h"

namespace talvo::runtime {

class DeviceCPU;

/// Made by DeviceCPU alone. Releasing the last reference hands the memory back to the pool that it came from.
class TALVO_API TensorCPU : public Tensor {
 public:
  /// Computes `strides`; takes neither ownership of `first_element` nor of `maker`.
  TensorCPU(TensorShape&& tensor_shape, void* first_element, Device* maker);
  TensorCPU(TensorShape const& tensor_shape, void* first_element, Device* maker);

  /// Gives the memory to the main pool of the device.
  std::function<void(void*)> GetDeleter() const override;
  /// Gives the memory to the dynamic pool of the device.
  std::function<void(void*)> GetDynamicDeleter() const;

  /// A new tensor of these dims with a copy of the leading elements; same data type, layout and location, step size 0.
  /// One entry below 1 stands for all that remains. Assert, without a text: two such entries; a product of the others
  /// that is above the element count or does not divide it. With one: a product over 32 bits, a tensor without memory.
  std::shared_ptr<TensorCPU> Reshape(std::vector<int> const& new_dims) const;

  /// A new FLEXIABLE tensor whose axis i is axis axes[i] of this one. Assert: too few, out of range or repeated axes.
  std::shared_ptr<TensorCPU> Permute(std::vector<unsigned int> const& axes) const;

  /// Address of one element. The indices are not checked against the extents; a wrong rank or data type ends the
  /// process.
  template <typename T = unsigned char>
  T* Locate1D(unsigned int i0) const {
    TALVO_INVARIANT(1 == shape.dims.size());
    return At<T>(i0);
  }
  template <typename T = unsigned char>
  T* Locate2D(unsigned int i0, unsigned int i1) const {
    TALVO_INVARIANT(2 == shape.dims.size());
    return At<T>(i0 * strides[0] + i1);
  }
  template <typename T = unsigned char>
  T* Locate3D(unsigned int i0, unsigned int i1, unsigned int i2) const {
    TALVO_INVARIANT(3 == shape.dims.size());
    return At<T>(i0 * strides[0] + i1 * strides[1] + i2);
  }
  template <typename T = unsigned char>
  T* Locate4D(unsigned int i0, unsigned int i1, unsigned int i2, unsigned int i3) const {
    TALVO_INVARIANT(4 == shape.dims.size());
    return At<T>(i0 * strides[0] + i1 * strides[1] + i2 * strides[2] + i3);
  }
  template <typename T = unsigned char>
  T* Locate5D(unsigned int i0, unsigned int i1, unsigned int i2, unsigned int i3, unsigned int i4) const {
    TALVO_INVARIANT(5 == shape.dims.size());
    return At<T>(i0 * strides[0] + i1 * strides[1] + i2 * strides[2] + i3 * strides[3] + i4);
  }
  template <typename T = unsigned char>
  T* Locate6D(unsigned int i0, unsigned int i1, unsigned int i2, unsigned int i3, unsigned int i4,
              unsigned int i5) const {
    TALVO_INVARIANT(6 == shape.dims.size());
    return At<T>(i0 * strides[0] + i1 * strides[1] + i2 * strides[2] + i3 * strides[3] + i4 * strides[4] + i5);
  }
  template <typename T = unsigned char>
  T* Locate7D(unsigned int i0, unsigned int i1, unsigned int i2, unsigned int i3, unsigned int i4, unsigned int i5,
              unsigned int i6) const {
    TALVO_INVARIANT(7 == shape.dims.size());
    return At<T>(i0 * strides[0] + i1 * strides[1] + i2 * strides[2] + i3 * strides[3] + i4 * strides[4] +
                 i5 * strides[5] + i6);
  }
  template <typename T = unsigned char>
  T* Locate(std::vector<unsigned int> const& dims) const {
    TALVO_INVARIANT(dims.size() == shape.dims.size());
    unsigned int offset = 0;
    for (std::size_t axis = 0; axis < dims.size(); ++axis) offset += dims[axis] * strides[axis];
    return At<T>(offset);
  }

  /// The first element, for code that walks the memory by itself.
  template <typename T>
  T* Data() const {
    return static_cast<T*>(data);
  }

  std::vector<unsigned int> strides;  // in elements, one for each axis; they do not follow later edits of shape.dims

 private:
  // `offset` in elements; computed in 32 bits, then widened.
  template <typename T>
  T* At(unsigned int offset) const {
    return reinterpret_cast<T*>(static_cast<unsigned char*>(data) + std::size_t{offset} * ElementSize(shape.data_type));
  }
};

}  // namespace talvo::runtime
