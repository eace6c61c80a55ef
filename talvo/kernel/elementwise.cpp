#include "talvo/kernel/elementwise.h"

#include <algorithm>
#include <cstddef>
#include <functional>
#include <iterator>
#include <utility>

#include "talvo/kernel/functional/elementwise.h"
#include "talvo/kernel/kernel_of_support.h"
#include "talvo/kernel/rows/elementwise_rows.h"
#include "talvo/serialization/layer_info_tensor.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::kernel {

using runtime::Tensor;

namespace {

using Dims = std::vector<unsigned int>;

constexpr unsigned int kRemoved = 0xFFFFFFFF;  // the mark of an axis that a reduction takes away

constexpr unsigned short kOperationCount = 6;  // of rows::Operation

// The operation with this name, which Config chose.
rows::Operation OperationOf(std::string const& name) {
  if (name == "Add") return rows::Operation::kAdd;
  if (name == "Sub") return rows::Operation::kSub;
  if (name == "Mul") return rows::Operation::kMul;
  return rows::Operation::kDiv;
}

// An axis of a broadcast, with the steps of the operands in elements: 0 where an operand is repeated.
struct Axis {
  std::size_t extent, a_step, b_step;
};

// The axes of the output, innermost first; axes that all three tensors walk without a gap become one. No extent is 0.
std::vector<Axis> BroadcastAxes(Dims const& a, Dims const& b, Dims const& y) {
  std::vector<Axis> axes = {{1, 1, 1}};
  std::size_t a_stride = 1, b_stride = 1;
  for (std::size_t i = y.size(); i-- > 0; a_stride *= a[i], b_stride *= b[i]) {
    if (y[i] == 1) continue;
    Axis const axis = {y[i], a[i] == y[i] ? a_stride : 0, b[i] == y[i] ? b_stride : 0};
    Axis& inner = axes.back();
    if (inner.extent == 1) {
      inner = axis;
    } else if (axis.a_step == inner.a_step * inner.extent && axis.b_step == inner.b_step * inner.extent) {
      inner.extent *= axis.extent;
    } else {
      axes.push_back(axis);
    }
  }
  return axes;
}

constexpr std::size_t kShort = 64, kBlock = 1024;  // elements: of rows that get no call of their own, and of a block

// Lays the elements of `count` axes side by side, `extent` of the last, the outermost, and returns the end.
float* Lay(float const* x, Axis const* axes, std::size_t Axis::*step, std::size_t count, std::size_t extent,
           float* to) {
  std::size_t const outer_step = axes[count - 1].*step, inner = axes[0].extent, inner_step = axes[0].*step;
  for (std::size_t i = 0; i < extent; ++i, x += outer_step) {
    if (count > 2) {
      to = Lay(x, axes, step, count - 1, axes[count - 2].extent, to);
    } else {
      for (std::size_t k = 0; k < inner; ++k) *to++ = x[k * inner_step];
    }
  }
  return to;
}

// An operand over blocks of outputs, which take `count` axes. One that neither follows the output nor repeats one
// element is laid out in memory of its own, which serves for as long as the block of the operand is the same.
class BlockOperand {
 public:
  BlockOperand(Axis const* axes, std::size_t Axis::*step, std::size_t count) : axes_(axes), step_(step), count_(count) {
    std::size_t stride = 1;
    for (std::size_t k = 0; k < count; stride *= axes[k++].extent) {
      follows_ = follows_ && axes[k].*step == stride;
      repeats_ = repeats_ && axes[k].*step == 0;
    }
  }

  // The block from x on, `extent` of its outermost axis.
  rows::Operand At(float const* x, std::size_t extent) {
    if (follows_ || repeats_) return {x, repeats_};
    if (x != held_ || extent > held_extent_) {
      Lay(x, axes_, step_, count_, extent, block_);
      held_ = x;
      held_extent_ = extent;
    }
    return {block_, false};
  }

 private:
  Axis const* axes_;
  std::size_t Axis::*step_;
  std::size_t count_, held_extent_ = 0;
  bool follows_ = true, repeats_ = true;
  float const* held_ = nullptr;
  float block_[kBlock];
};

// The walk over the outputs of a broadcast: by rows, or by blocks of several where they are short.
class Broadcast {
 public:
  Broadcast(rows::Operation operation, std::vector<Axis> const& axes)
      : operation_(operation),
        axes_(axes),
        inner_(InnerAxes(axes)),
        a_(axes.data(), &Axis::a_step, inner_ + 1),
        b_(axes.data(), &Axis::b_step, inner_ + 1) {
    for (std::size_t k = 0; k < inner_; ++k) inner_count_ *= axes[k].extent;
    piece_ = inner_ == 0 ? axes[0].extent : std::min(kBlock / inner_count_, axes[inner_].extent);
  }

  void Run(float const* a, float const* b, float* y) { Walk(axes_.size(), a, b, y); }

 private:
  // Axes that lie in a block as a whole; the next one is cut into pieces.
  static std::size_t InnerAxes(std::vector<Axis> const& axes) {
    std::size_t inner = 0;
    for (std::size_t count = 1; inner + 1 < axes.size() && count * axes[inner].extent < kShort; ++inner) {
      count *= axes[inner].extent;
    }
    return inner;
  }

  // The first `count` axes, the last being the outermost. Returns the end in y.
  float* Walk(std::size_t count, float const* a, float const* b, float* y) {
    Axis const axis = axes_[count - 1];
    if (count == inner_ + 1) return WalkPieces(axis, a, b, y);
    for (std::size_t i = 0; i < axis.extent; ++i, a += axis.a_step, b += axis.b_step) y = Walk(count - 1, a, b, y);
    return y;
  }

  float* WalkPieces(Axis const& axis, float const* a, float const* b, float* y) {
    for (std::size_t i = 0; i < axis.extent; i += piece_) {
      std::size_t const extent = std::min(piece_, axis.extent - i), n = extent * inner_count_;
      rows::CombineRow(operation_, a_.At(a + i * axis.a_step, extent), b_.At(b + i * axis.b_step, extent), n, y);
      y += n;
    }
    return y;
  }

  rows::Operation operation_;
  std::vector<Axis> const& axes_;
  std::size_t inner_, inner_count_ = 1, piece_;
  BlockOperand a_, b_;
};

// `dims` with extents of 1 in front, up to `rank`.
Dims Extended(Dims dims, std::size_t rank) {
  dims.insert(dims.begin(), rank - std::min(rank, dims.size()), 1u);
  return dims;
}

// Whether the extents, aligned at the last, are equal or 1 wherever both are given.
bool AreCompatible(Dims const& a, Dims const& b) {
  for (std::size_t i = 1; i <= std::min(a.size(), b.size()); ++i) {
    unsigned int const a_extent = a[a.size() - i], b_extent = b[b.size() - i];
    if (a_extent != 1 && b_extent != 1 && a_extent != b_extent) return false;
  }
  return true;
}

// The tensor's axis for an axis of the model, which counts a batch; -1 stays for the last.
short TensorAxis(short model_axis) { return model_axis > 0 ? static_cast<short>(model_axis - 1) : model_axis; }

unsigned int LayoutOfRank(std::size_t rank) {
  constexpr unsigned int kLayouts[] = {TensorShape::FLEXIABLE, TensorShape::C, TensorShape::SC, TensorShape::CHW};
  return rank <= 3 ? kLayouts[rank] : static_cast<unsigned int>(TensorShape::FLEXIABLE);
}

bool IsFloatOrInt16(Tensor const& tensor) {
  return support::IsInMainMemory(tensor, TensorShape::FLOAT32) || support::IsInMainMemory(tensor, TensorShape::INT16);
}

bool IsFloat(Tensor const& tensor) { return support::IsInMainMemory(tensor, TensorShape::FLOAT32); }

}  // namespace

struct ElementwiseOperation : support::Strict<runtime::ElementWiseOperatorInfo> {
  static constexpr char const* kName = "Elementwise_Fallback_Float_M1";

  bool Config(LayerPtr const& layer, ParamPtr const&, ContextPtr const&) override {
    constexpr char const* kOperations[] = {"Add", "Sub", "Mul", "Div"};
    layer_id = layer->id;
    unsigned short const op_type = support::As<runtime::ElementWiseOperatorInfo>(kName, layer).op_type;
    if (op_type >= std::size(kOperations)) Refuse("Invalid element wise type");
    name = kOperations[op_type];
    return true;
  }

  Shapes GetOutputShapes(Shapes const& shapes) const override { return {support::ShapeAt(kName, shapes, 0)}; }

  int IsValidInput(Tensors const& inputs) const override { return support::Judge(inputs, 2, IsFloat); }

  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    support::NeedsConfig(kernel);
    support::Who const who = {kName, layer_id};
    auto const a = support::Input(who, inputs, 0), b = support::Input(who, inputs, 1);
    std::size_t const count = support::Count(*a);
    if (support::Count(*b) < count) {
      Refuse("%s: the first operand has %zu elements, the second %zu", who.Text().c_str(), count, support::Count(*b));
    }
    auto const y = support::NewOutput(kernel, inputs, context);
    rows::CombineRow(OperationOf(name), {a->Data<float>(), false}, {b->Data<float>(), false}, count, y->Data<float>());
    return support::Give(y, outputs);
  }

  std::string layer_id, name;
};

// What calling an empty std::function throws, with words: the interface's answer to an unknown operation.
class UnknownOperation : public std::bad_function_call {
 public:
  UnknownOperation(std::string const& who, unsigned int op_type)
      : text_(std::make_shared<std::string>(who + ": there is no operation " + std::to_string(op_type))) {}
  char const* what() const noexcept override { return text_->c_str(); }

 private:
  std::shared_ptr<std::string const> text_;  // shared, as copies of an exception do not throw
};

struct BroadcastOperation : support::Strict<runtime::BroadcastOperatorInfo> {
  static constexpr char const* kName = "BroadcastOperator_Fallback_Float_M1";

  // The one judgement that writes: what it was given last is what Forward reads.
  int IsValidParam(LayerPtr const& given, ParamPtr const& param) const override {
    if (param != nullptr) return -1;
    layer = std::dynamic_pointer_cast<runtime::BroadcastOperatorInfo>(given);
    return layer != nullptr ? 0 : -1;
  }

  Shapes GetOutputShapes(Shapes const& shapes) const override {
    TensorShape const &first = support::ShapeAt(kName, shapes, 0), &second = support::ShapeAt(kName, shapes, 1);
    std::size_t const rank = std::max(first.dims.size(), second.dims.size());
    Dims dims = Extended(first.dims, rank);
    Dims const other = Extended(second.dims, rank);
    for (std::size_t i = 0; i < rank; ++i) dims[i] = std::max(dims[i], other[i]);
    return support::OneShape(dims, first.data_type, first.layout, first.location);
  }

  int IsValidInput(Tensors const& inputs) const override {
    int const floats =
        support::Judge(inputs, 2, [](Tensor const& tensor) { return tensor.shape.data_type == TensorShape::FLOAT32; });
    if (floats != 0) return -2;
    TensorShape const &a = inputs[0]->shape, &b = inputs[1]->shape;
    bool const alike = a.location == b.location && a.extra.step_size == b.extra.step_size;
    return alike && AreCompatible(a.dims, b.dims) ? 0 : -2;
  }

  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    if (layer == nullptr) Refuse("%s: no operation is configured", kName);
    support::Who const who = {kName, layer->id};
    auto const a = support::Input(who, inputs, 0), b = support::Input(who, inputs, 1);
    auto const y = support::NewOutput(kernel, inputs, context);
    if (support::Count(*y) != 0) {
      Dims const &a_dims = a->shape.dims, &b_dims = b->shape.dims, &dims = y->shape.dims;
      if (support::Count(*a) == 0 || support::Count(*b) == 0) {
        Refuse("%s: operands of dims %s and %s, one has no elements", who.Text().c_str(), DimsText(a_dims).c_str(),
               DimsText(b_dims).c_str());
      }
      auto const axes = BroadcastAxes(Extended(a_dims, dims.size()), Extended(b_dims, dims.size()), dims);
      // Only where there is something to combine.
      if (layer->op_type >= kOperationCount) throw UnknownOperation(who.Text(), layer->op_type);
      Broadcast(static_cast<rows::Operation>(layer->op_type), axes)
          .Run(a->Data<float>(), b->Data<float>(), y->Data<float>());
    }
    return support::Give(y, outputs);
  }

  mutable std::shared_ptr<runtime::BroadcastOperatorInfo> layer;
};

struct ReductionOperation : support::Strict<runtime::TensorArithmeticInfo> {
  static constexpr char const* kName = "TensorArithmetic_Fallback_M1";
  using Info = runtime::TensorArithmeticInfo;

  int IsValidParam(LayerPtr const& layer, ParamPtr const& param) const override {
    if (Strict::IsValidParam(layer, param) == -1) return -1;
    auto const& info = support::As<Info>(kName, layer);
    if (info.arith_type > 1) Refuse("Invalid arithmetic type");
    return info.dim.empty() || std::count(info.dim.begin(), info.dim.end(), -1) >= 2 ? -1 : 0;
  }

  bool Config(LayerPtr const& layer, ParamPtr const&, ContextPtr const&) override {
    auto const& info = support::As<Info>(kName, layer);
    layer_id = info.id;
    dim = info.dim;
    name = info.arith_type == 0 ? "Sum" : "Mean";
    return true;
  }

  Shapes GetOutputShapes(Shapes const& shapes) const override {
    TensorShape const& shape = support::ShapeAt(Who(), shapes, 0);
    if (shape.dims.size() < dim.size()) Refuse(nullptr);
    Dims dims = shape.dims;
    for (short const model_axis : dim) {
      short const axis = TensorAxis(model_axis);
      if (axis == -1 && !dims.empty()) {
        dims.pop_back();
      } else {
        if (axis < 0 || static_cast<std::size_t>(axis) >= dims.size()) {
          Refuse("%s: axis %d of dims %s", Who().Text().c_str(), int{model_axis}, DimsText(shape.dims).c_str());
        }
        dims[static_cast<std::size_t>(axis)] = kRemoved;
      }
    }
    dims.erase(std::remove(dims.begin(), dims.end(), kRemoved), dims.end());
    if (dims.empty()) dims.push_back(1);
    unsigned int const layout = LayoutOfRank(dims.size());
    return support::OneShape(std::move(dims), shape.data_type, layout, shape.location);
  }

  int IsValidInput(Tensors const& inputs) const override { return support::Judge(inputs, 1, IsFloatOrInt16); }

  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    support::NeedsConfig(kernel);
    auto const x = support::Input(Who(), inputs, 0);
    Dims const& dims = x->shape.dims;
    if (x->shape.data_type != TensorShape::FLOAT32) {
      Refuse("%s: data type %u, needs FLOAT32", Who().Text().c_str(), x->shape.data_type);
    }
    auto const y = support::NewOutput(kernel, inputs, context);
    std::vector<short> axes;
    for (short const axis : dim) axes.push_back(axis == -1 ? static_cast<short>(dims.size() - 1) : TensorAxis(axis));
    std::sort(axes.begin(), axes.end());
    auto const left = functional::ReducedDims(dims, axes);
    std::size_t const results = runtime::ElementCount(left), elements = support::Count(*y);
    if (results > elements) {
      Refuse("%s: dims %s are reduced to %s, the output has %s", Who().Text().c_str(), DimsText(dims).c_str(),
             DimsText(left).c_str(), DimsText(y->shape.dims).c_str());
    }
    std::fill_n(y->Data<float>() + results, elements - results, 0.0f);
    auto const reduce = name == "Mean" ? functional::Function_TensorTensorArithmetic_Mean_Fallback_Float_M1
                                       : functional::Function_TensorTensorArithmetic_Sum_Fallback_Float_M1;
    reduce(x->Data<float>(), y->Data<float>(), dims, axes);
    return support::Give(y, outputs);
  }

  int IsValidOutput(Tensors const& outputs) const override { return IsValidInput(outputs); }

  support::Who Who() const { return {kName, layer_id}; }

  std::string layer_id, name;
  std::vector<short> dim;
};

template OperationPtr MakeOperation<ElementwiseOperation>();
template OperationPtr MakeOperation<BroadcastOperation>();
template OperationPtr MakeOperation<ReductionOperation>();

}  // namespace talvo::kernel
