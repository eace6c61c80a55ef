// The layers of a package in the making. A value is a dense row-major run of elements with its shape in the graph; the
// dims and layout of the tensor that holds it are a label, which a reshape changes, so that every operation brings its
// operand to what its kernel wants. Refusal in all of these: what a record or a kernel cannot hold.
#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "talvo/talvo.h"
#include "tools/convert_onnx/node.h"
#include "tools/convert_onnx/options.h"

namespace convert_onnx {

using Floats = std::vector<float>;

struct Layer {
  std::shared_ptr<talvo::runtime::LayerInfo> record;
  std::string kernel;
  std::vector<int> inputs;
  std::string name;               // of the graph's value that it makes; empty for a helper
  std::string node;               // the node that it stems from
  Floats weight, bias;            // of convolutions and dense layers
  Floats slopes;                  // of PReLU; both forms of a package hold them exactly
  std::vector<Floats> recurrent;  // weight_ih, weight_hh, bias_ih, bias_hh, forward and then reverse

  std::size_t Weights() const;  // elements
};

struct Window {  // of a convolution or a pooling; top, left, bottom, right
  long long kernel_y = 1, kernel_x = 1, stride_y = 1, stride_x = 1, dilation_y = 1, dilation_x = 1;
  long long top = 0, left = 0, bottom = 0, right = 0;
};

enum Operator : unsigned short { kAdd, kSub, kMul, kDiv, kMax, kMin };

class Builder {
 public:
  explicit Builder(Options const& options) : options_(options) {}

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
  Value SquareRoot(Value const& value) { return Unary(value, "Sqrt_Fallback_Float_M1"); }
  Value Logarithm(Value const& value) { return Unary(value, "Log_Fallback_Float_M1"); }
  /// e^x as sigmoid(x) / sigmoid(-x).
  Value Exponential(Value const& value);
  /// e^x - 1 as tanh(x / 2) (e^x + 1), which cancels nothing.
  Value ExponentialMinusOne(Value const& value);
  /// log(1 + x) for x >= 0 with w = 1 + x: log(w) - ((w - 1) - x) / w.
  Value LogarithmOfOneMore(Value const& value);
  /// 1 / x.
  Value Inverse(Value const& value);
  /// min(max(x, low), high); an infinite bound is none.
  Value Clip(Value const& value, float low, float high);
  /// x < 0 ? slope * x : x; the slopes have fewer axes than the value or as many, and broadcast to it.
  Value Slopes(Value const& value, Array const& slopes);
  /// 1 where x > 0, else 0; NaN stays.
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
  /// rows [S, in] to [S, out]; weight [out, in].
  Value Rows(Value const& rows, Floats weight, long long out);
  /// a b, where the leading extents are equal or one has two axes.
  Value Multiply(Value const& a, Value const& b);

  /// Sum or mean, maximum; axes stay with extent 1.
  Value Reduce(Value const& value, std::vector<std::size_t> const& axes, bool mean);
  Value Maximum(Value const& value, std::vector<std::size_t> const& axes);
  Value Softmax(Value const& value, std::size_t begin, std::size_t end);

  Value Slice(Value const& value, std::size_t axis, long long begin, long long count, long long step);
  Value Join(std::vector<Value> const& values, std::size_t axis);
  Value Take(Value const& value, std::size_t axis, std::vector<long long> const& indices);
  /// out[.., i, ..] = sum over j of matrix[i, j] x[.., j, ..].
  Value Along(Value const& value, std::size_t axis, Floats const& matrix, long long rows);

  /// Whether tensors hold elements of this type: float32, and with --narrow double and half.
  bool Holds(int type) const;

  /// A composition that holds but in a range or to a bound, which `what` says. Refusal: without --approximate.
  void Approximate(std::string const& what);

  std::vector<Layer> layers;
  std::set<std::string> notes;  // what is approximate

 private:
  bool Foldable(Value const& value) const;
  bool Fold(Value const& value, Floats const& scale, Floats const& shift);
  bool FoldIntoRows(Value const& value, Array const& scale, Array const& shift);
  Value Root();
  Value First() const;

  void SpendWeights();

  Options const& options_;
  std::size_t weights_ = 0, weighed_ = 0;  // elements; layers in which they are counted
  int root_ = -1;
  std::string node_;
  std::vector<std::string> foldable_;
};

constexpr char kDenseRows[] = "FullConnection_Fallback_SC_Float_M1";

/// `number` as the field of a record holds it. Refusal: it does not fit.
unsigned short Field(long long number, char const* what);

}  // namespace convert_onnx
