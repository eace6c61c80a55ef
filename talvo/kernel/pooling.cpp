#include "talvo/kernel/pooling.h"

#include <cmath>
#include <cstdint>

#include "talvo/kernel/functional/pooling_support.h"
#include "talvo/kernel/kernel_of_support.h"
#include "talvo/kernel/rows/saturate.h"
#include "talvo/serialization/layer_info.h"
#include "talvo/serialization/layer_info_plane.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::kernel {

using functional::PoolingShape;
using functional::PoolingWindow;
using runtime::TensorCPU;

namespace {

using Dims = std::vector<unsigned int>;

// The layers' paddings are signed; pooling reads them as unsigned 16-bit numbers.
template <class Info>
PoolingWindow ReadWindow(Info const& info) {
  auto const padding = [](short value) { return std::size_t{static_cast<std::uint16_t>(value)}; };
  return {info.kernel_y,           info.kernel_x,           info.stride_y,           info.stride_x,          1, 1,
          padding(info.padding_t), padding(info.padding_b), padding(info.padding_l), padding(info.padding_r)};
}

// Wraps where the window is larger than the padded input; Forward refuses that before any output is made.
unsigned int AverageExtent(unsigned int extent, std::size_t kernel, std::size_t padding, std::size_t stride) {
  return (extent - static_cast<unsigned int>(kernel) + static_cast<unsigned int>(padding)) /
             static_cast<unsigned int>(stride) +
         1;
}

// The numerator wraps in 32 bits; the rest is float32 arithmetic.
unsigned int MaximumExtent(unsigned int extent, std::size_t kernel, std::size_t dilation, std::size_t padding,
                           std::size_t stride, bool ceil_mode) {
  unsigned int const reach = static_cast<unsigned int>(dilation) * (static_cast<unsigned int>(kernel) - 1);
  unsigned int const numerator = extent + static_cast<unsigned int>(padding) - reach - 1;
  float const steps = static_cast<float>(numerator) / static_cast<float>(stride);
  return rows::Saturated<unsigned int>((ceil_mode ? std::ceil(steps) : std::floor(steps)) + 1.0f);
}

std::size_t Reach(std::size_t kernel, std::size_t dilation) { return kernel == 0 ? 0 : (kernel - 1) * dilation + 1; }

PoolingShape ShapeOf(TensorCPU const& input, TensorCPU const& output) {
  auto const& dims = input.shape.dims;
  return {dims[0], dims[1], dims[2], output.shape.dims[1], output.shape.dims[2]};
}

// What the three have in common. Each adds what it reads of the layer, the output's dims, what it refuses of its input,
// and the pooling itself.
struct Pooling : support::PlainOperation {
  virtual Dims OutputDims(Dims const& dims) const = 0;
  virtual void Check(TensorCPU const&) const {}  // floats in three axes may be all that it needs
  virtual void Run(TensorCPU const& input, TensorCPU const& output, runtime::DeviceCPU& device) const = 0;

  bool Passes(int judgement) const override { return judgement != -1; }

  Shapes GetOutputShapes(Shapes const& shapes) const override {
    TensorShape const& input = support::ShapeAt(Who(), shapes, 0, 3);
    return support::OneShape(OutputDims(input.dims), input.data_type, input.layout, input.location);
  }

  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    auto const x = support::Input(Who(), inputs, 0, 3);
    Check(*x);
    auto const y = support::NewOutput(kernel, inputs, context);
    Run(*x, *y, support::Device(Who(), context));
    return support::Give(y, outputs);
  }

  int IsValidInput(Tensors const& inputs) const override {
    return support::JudgeOneImage(inputs, TensorShape::FLOAT32);
  }
  int IsValidOutput(Tensors const& outputs) const override { return IsValidInput(outputs); }

  support::Who Who() const { return {CName(), layer_id}; }

  std::string layer_id;
};

// The two kinds with a window.
struct WindowedPooling : Pooling {
  void CheckStride() const {
    if (window.stride_y == 0 || window.stride_x == 0) {
      Refuse("%s: stride %zu x %zu; a stride is 1 or more", Who().Text().c_str(), window.stride_y, window.stride_x);
    }
  }

  // What it needs of the input before any output is made.
  void Check(TensorCPU const& input) const override {
    support::CheckTensor(Who(), "the input", &input, {4, 3, 0, TensorShape::FLOAT32, TensorShape::CHW});
    auto const& dims = input.shape.dims;
    std::size_t const height = dims[1] + window.padding_t + window.padding_b,
                      width = dims[2] + window.padding_l + window.padding_r;
    std::size_t const reach_y = Reach(window.kernel_y, window.dilation_y),
                      reach_x = Reach(window.kernel_x, window.dilation_x);
    if (reach_y > height || reach_x > width) {
      Refuse("%s: a window of %zu x %zu on a padded input of %zu x %zu", Who().Text().c_str(), reach_y, reach_x, height,
             width);
    }
  }

  PoolingWindow window = {};
};

}  // namespace

struct AveragePoolingOperation : WindowedPooling {
  static constexpr char const* kName = "Pooling2D_Avg_Fallback_Float_M1";

  int IsValidParam(LayerPtr const& layer, ParamPtr const& param) const override {
    return support::StrictParam<runtime::AvgPool2dInfo>(layer, param);
  }

  bool Config(LayerPtr const& layer, ParamPtr const&, ContextPtr const&) override {
    layer_id = layer->id;
    auto const& info = support::As<runtime::AvgPool2dInfo>(Who(), layer);
    window = ReadWindow(info);
    count_include_pad = info.count_include_pad;
    return true;
  }

  Dims OutputDims(Dims const& dims) const override {
    CheckStride();
    return {dims[0], AverageExtent(dims[1], window.kernel_y, window.padding_t + window.padding_b, window.stride_y),
            AverageExtent(dims[2], window.kernel_x, window.padding_l + window.padding_r, window.stride_x)};
  }

  void Run(TensorCPU const& input, TensorCPU const& output, runtime::DeviceCPU& device) const override {
    PoolingShape const shape = ShapeOf(input, output);
    auto const scratch = support::NewScratch(device, functional::average_pool_scratch_f32(shape, window));
    functional::average_pool_f32(input.Data<float>(), shape, window, count_include_pad, scratch->Data<float>(),
                                 output.Data<float>());
  }

  bool count_include_pad = false;
};

struct MaximumPoolingOperation : WindowedPooling {
  static constexpr char const* kName = "Pooling2D_Max_Fallback_Float_M1";

  int IsValidParam(LayerPtr const& layer, ParamPtr const& param) const override {
    return support::StrictParam<runtime::MaxPool2dInfo>(layer, param);
  }

  bool Config(LayerPtr const& layer, ParamPtr const&, ContextPtr const&) override {
    layer_id = layer->id;
    auto const& info = support::As<runtime::MaxPool2dInfo>(Who(), layer);
    window = ReadWindow(info);
    window.dilation_y = info.dilation_y;
    window.dilation_x = info.dilation_x;
    ceil_mode = info.ceil_mode;
    return true;
  }

  Dims OutputDims(Dims const& dims) const override {
    CheckStride();
    return {dims[0],
            MaximumExtent(dims[1], window.kernel_y, window.dilation_y, window.padding_t + window.padding_b,
                          window.stride_y, ceil_mode),
            MaximumExtent(dims[2], window.kernel_x, window.dilation_x, window.padding_l + window.padding_r,
                          window.stride_x, ceil_mode)};
  }

  void Run(TensorCPU const& input, TensorCPU const& output, runtime::DeviceCPU& device) const override {
    PoolingShape const shape = ShapeOf(input, output);
    auto const scratch = support::NewScratch(device, functional::max_pool_scratch_f32(shape, window));
    functional::max_pool_f32(input.Data<float>(), shape, window, scratch->Data<float>(), output.Data<float>());
  }

  bool ceil_mode = false;
};

struct AdaptiveAveragePoolingOperation : Pooling {
  static constexpr char const* kName = "AdaptivePooling2D_Avg_Fallback_CHW_Float_M1";

  int IsValidParam(LayerPtr const& layer, ParamPtr const& param) const override {
    return support::StrictParam<runtime::AdaptiveAvgPool2dInfo>(layer, param);
  }

  bool Config(LayerPtr const& layer, ParamPtr const&, ContextPtr const&) override {
    layer_id = layer->id;
    auto const& info = support::As<runtime::AdaptiveAvgPool2dInfo>(Who(), layer);
    if (info.output_size.size() < 2) {
      Refuse("%s: output_size has %zu entries, needs 2", Who().Text().c_str(), info.output_size.size());
    }
    out_height = info.output_size[0];
    out_width = info.output_size[1];
    return true;
  }

  Dims OutputDims(Dims const& dims) const override { return {dims[0], out_height, out_width}; }

  void Run(TensorCPU const& input, TensorCPU const& output, runtime::DeviceCPU& device) const override {
    PoolingShape const shape = ShapeOf(input, output);
    auto const scratch = support::NewScratch(device, functional::adaptive_pool_scratch_f32(shape));
    functional::adaptive_average_pool_f32(input.Data<float>(), shape, scratch->Data<float>(), output.Data<float>());
  }

  unsigned int out_height = 0, out_width = 0;
};

template OperationPtr MakeOperation<AveragePoolingOperation>();
template OperationPtr MakeOperation<MaximumPoolingOperation>();
template OperationPtr MakeOperation<AdaptiveAveragePoolingOperation>();

}  // namespace talvo::kernel
