// The layers of a package in the making. A value is a dense row-major run of elements with its shape in the graph; the
// dims and layout of the tensor that holds it are a label, which a reshape changes, so that every operation brings its
// operand to what its kernel wants. Refusal in all of these: what a record or a kernel cannot hold.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "talvo/talvo.h"
#include "tools/convert_onnx/node.h"

namespace convert_onnx {

using Floats = std::vector<float>;

struct Layer {
  std::shared_ptr<talvo::runtime::LayerInfo> record;
  std::string kernel;
  std::vector<int> inputs;
  std::string name;     // of the graph's value that it makes; empty for a helper
  std::string node;     // the node that it stems from
  Floats weight, bias;  // of convolutions and dense layers
};

struct Window {  // of a convolution or a pooling; top, left, bottom, right
  long long kernel_y = 1, kernel_x = 1, stride_y = 1, stride_x = 1, dilation_y = 1, dilation_x = 1;
  long long top = 0, left = 0, bottom = 0, right = 0;
};

enum Operator : unsigned short { kAdd, kSub, kMul, kDiv, kMax, kMin };

class Builder {
 public:
  explicit Builder(bool blas) : blas_(blas) {}

  /// The node whose layers are made from now on.
  void Begin(std::string node, std::vector<std::string> foldable);
  Value AddInput(std::string const& name, Shape const& shape);

  /// A layer that makes a tensor of `dims`.
  Value Emit(std::shared_ptr<talvo::runtime::LayerInfo> record, char const* kernel, std::vector<Value> const& inputs,
             Shape const& dims, unsigned int layout, Shape const& shape);

  // The same elements: as another shape, without a layer; in a tensor of other dims; in a tensor of the shape without
  // one leading extent of 1.
  static Value As(Value value, Shape const& shape);
  Value Flat(Value const& value, Shape const& dims);
  Value Flexible(Value const& value, Shape const& dims);
  Value Natural(Value const& value);
  Value Permute(Value const& value, std::vector<std::size_t> const& axes);

  // One activation kernel; alpha and beta are held as halves.
  Value Unary(Value const& value, char const* kernel, unsigned short type = 0, float alpha = 1, float beta = 0);
  Value Slope(Value const& value, float slope);
  Value Linear(Value const& value, float scale, float shift);
  Value Relu(Value const& value) { return Unary(value, "ReLU_Fallback_Float_M1", 2); }
  Value Negative(Value const& value) { return Linear(value, -1, 0); }
  Value Absolute(Value const& value) { return Combine(kMax, value, Negative(value)); }
  /// e^x as sigmoid(x) / sigmoid(-x).
  Value Exponential(Value const& value);
  /// 1 where x > 0, else 0.
  Value Step(Value const& value);
  /// Halves to even, for values below 2^22.
  Value Round(Value const& value);

  /// The value itself if a layer makes it, else layers that make the constant.
  Value Tensor(Value const& value);
  Value Filled(Shape const& shape, float value);

  /// Elementwise with broadcasting, by one kernel.
  Value Combine(Operator op, Value const& a, Value const& b);
  /// scale * x + shift; both have one element or broadcast to the shape of x. Folded into the weights of the layer
  /// before where it alone reads it.
  Value Affine(Value const& value, Array const& scale, Array const& shift);
  /// a op b of which one may be constant.
  Value Binary(Operator op, Value const& a, Value const& b);

  Value Convolve(Value const& planes, Floats weight, Floats bias, long long out, long long groups, Window window);
  Value Transposed(Value const& planes, Floats weight, Floats bias, long long out, long long groups, Window window);
  Value Pool(Value const& planes, bool maximum, Window const& window, bool count_padding);
  Value Dense(Value const& value, Floats weight, Floats bias, long long out);

  /// Sum or mean, maximum; axes stay with extent 1.
  Value Reduce(Value const& value, std::vector<std::size_t> const& axes, bool mean);
  Value Maximum(Value const& value, std::vector<std::size_t> const& axes);
  Value Softmax(Value const& value, std::size_t begin, std::size_t end);

  Value Slice(Value const& value, std::size_t axis, long long begin, long long count, long long step);
  Value Join(std::vector<Value> const& values, std::size_t axis);
  Value Take(Value const& value, std::size_t axis, std::vector<long long> const& indices);
  /// out[.., i, ..] = sum over j of matrix[i, j] x[.., j, ..].
  Value Along(Value const& value, std::size_t axis, Floats const& matrix, long long rows);

  std::vector<Layer> layers;

 private:
  bool Foldable(Value const& value) const;
  bool Fold(Value const& value, Floats const& scale, Floats const& shift);
  Value Root();
  Value First() const;

  bool blas_;
  int root_ = -1;
  std::string node_;
  std::vector<std::string> foldable_;
};

/// `number` as the field of a record holds it. Refusal: it does not fit.
unsigned short Field(long long number, char const* what);

}  // namespace convert_onnx
