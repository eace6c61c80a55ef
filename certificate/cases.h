// The cases of the digest table: what they are made of and what becomes of their results. A case is drawn by integer
// arithmetic from its name and number alone, so that every machine computes the same one.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "talvo/runtime/context.h"
#include "talvo/runtime/tensor_cpu.h"
#include "talvo/utility/half.h"

namespace talvo::certificate {

using runtime::TensorShape;
using Dims = std::vector<unsigned int>;
using TensorPtr = std::shared_ptr<runtime::TensorCPU>;
using BaseTensorPtr = std::shared_ptr<runtime::Tensor>;
using Tensors = std::vector<BaseTensorPtr>;

/// A context whose pools cache nothing and fill each block, before it is handed out, with `FillByte()`: a case is run
/// with two of them, and a result that depends on the byte has elements that nothing wrote.
std::shared_ptr<runtime::Context> const& Context();
unsigned char& FillByte();

/// Blocks of these pools that were handed out and have not come back.
long& BlocksInUse();

/// A tensor with that filling.
TensorPtr Blank(Dims dims, unsigned int layout, unsigned int type = TensorShape::FLOAT32, short step = 0);

class Draw {
 public:
  explicit Draw(std::uint64_t seed);

  std::uint32_t Word();
  unsigned int Below(unsigned int end) { return static_cast<unsigned int>((std::uint64_t{Word()} * end) >> 32); }
  unsigned int From(unsigned int low, unsigned int high) { return low + Below(high - low + 1); }
  bool Coin() { return Below(2) == 1; }
  template <class T>
  T Of(std::initializer_list<T> values) {
    return values.begin()[Below(static_cast<unsigned int>(values.size()))];
  }
  /// Around the widths of vectors: 1 to 40.
  unsigned int Width() { return Of({1u, 2u, 3u, 5u, 7u, 8u, 9u, 15u, 16u, 17u, 23u, 31u, 32u, 33u, 40u}); }
  Dims Plane(unsigned int channels);

  /// A multiple of 2^-23 from [-1, 1).
  float Unit() { return static_cast<float>(static_cast<std::int32_t>(Word()) >> 8) * 0x1p-23f; }
  /// Values of the case's own kind: units, up to 16, some of them zeros and denormals, or some NaN and infinite.
  std::vector<float> Floats(std::size_t count);
  half_float::half Half() { return half_float::half(4.0f * Unit()); }
  std::string Weights(std::size_t count);  // as layer records hold them

  /// FLOAT32 gets Floats, FLOAT16 halves of them, every other type bytes.
  TensorPtr Tensor(Dims dims, unsigned int layout, unsigned int type = TensorShape::FLOAT32, short step = 0);

 private:
  std::uint64_t state_;
  unsigned int kind_;
};

/// FNV-1a of 64 bits over bytes; every NaN counts as the same one, since sign and payload are the processor's.
class Digest {
 public:
  void Add(void const* data, std::size_t bytes);
  void Add(std::string const& text) { Add(text.data(), text.size()); }
  void Add(float const* values, std::size_t count);
  void Add(runtime::Tensor const& tensor);  // shape and elements
  std::uint64_t Value() const { return value_; }

 private:
  std::uint64_t value_ = 0xCBF29CE484222325;
};

struct Operation {
  std::string name;    // "kernel/ReLU_Fallback_Float_M1"
  unsigned int cases;  // a number from 0 on and the name give the seed
  std::function<void(Draw&, Digest&)> run;
};

/// Whether an operation of this name calls the matrix product of the platform.
bool IsOnMatrixProduct(std::string const& name);

std::vector<Operation> Kernels();    // every registered one, and those that are public only
std::vector<Operation> Functions();  // free forms and layout conversions
std::vector<Operation> Images();
std::vector<Operation> Files();  // both forms of packages of the kernels' records, and the samples of older versions

inline void Need(bool condition, std::string const& what) {
  if (!condition) throw std::runtime_error(what);
}

}  // namespace talvo::certificate
