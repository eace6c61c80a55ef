// Constants of a graph, and what goes wrong with one node. Elements of any type are kept as double, which holds every
// float32 and the whole numbers of shapes and bounds.
#pragma once

#include <onnx/onnx_pb.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace convert_onnx {

/// Why a node or a file cannot be converted; one line, with ? for each control character of a name.
class Refusal : public std::runtime_error {
 public:
  explicit Refusal(std::string const& text);
};

using Shape = std::vector<long long>;

/// "2x3x4"; "scalar" without axes.
std::string Text(Shape const& shape);
/// A number as a message shows it.
std::string Text(double number);

constexpr std::size_t kMostElements = 1u << 27;  // of a constant or a tensor

/// While it lives, shapes of its thread have no more elements than this, nor than kMostElements.
class ElementLimit {
 public:
  explicit ElementLimit(std::size_t most);
  ElementLimit(ElementLimit const&) = delete;
  ElementLimit& operator=(ElementLimit const&) = delete;
  ~ElementLimit();
};

/// The product of the extents, 1 without any. Refusal: a negative extent, more than 64 axes, or more elements than the
/// limit. Whatever takes memory by a model's numbers asks it first.
std::size_t Count(Shape const& shape);
/// a * b. Refusal: beyond 63 bits.
long long Times(long long a, long long b);
/// The product of the extents from axis `begin` to before `end`. Refusal: beyond 63 bits.
long long Product(Shape const& shape, std::size_t begin, std::size_t end);

/// `axis` of -rank .. rank - 1 as a position. Refusal: outside.
std::size_t Axis(long long axis, std::size_t rank);

struct Array {
  Shape shape;
  int type = onnx::TensorProto::FLOAT;  // onnx::TensorProto::DataType
  std::vector<double> values;           // row-major

  std::vector<float> Floats() const;        // Refusal: a number beyond float32
  std::vector<long long> Integers() const;  // saturated
  bool IsFloat() const {
    return type == onnx::TensorProto::FLOAT || type == onnx::TensorProto::DOUBLE || type == onnx::TensorProto::FLOAT16;
  }
};

Array Scalar(double value);  // float32

/// A whole number as int64, saturated; NaN gives 0.
long long ToInteger(double value);

/// The value as an element of `type` holds it. Refusal: a type that is no number.
double Rounded(double value, int type);

/// Indices of `shape` seen through another that broadcasts to it: for each element of `to`, the offset in `from`.
std::vector<std::size_t> BroadcastOffsets(Shape const& from, Shape const& to);
/// The shape to which two broadcast. Refusal: they do not.
Shape BroadcastShape(Shape const& a, Shape const& b);

/// The elements of a tensor; `folder` is where external data lies. Refusal: a type that is no number, fewer or more
/// bytes than the shape needs, external data that is missing or outside the folder.
Array ReadTensor(onnx::TensorProto const& tensor, std::string const& folder);

/// The name of an element type.
std::string TypeName(int type);

}  // namespace convert_onnx
