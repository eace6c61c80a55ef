#include "talvo/kernel/pooling.h"

#include <cmath>
#include <cstdint>

#include "talvo/kernel/kernel_support.h"
#include "talvo/kernel/rows/saturate.h"
#include "talvo/serialization/layer_info.h"
#include "talvo/serialization/layer_info_plane.h"
#include "talvo/utility/log.h"

namespace talvo::kernel {
namespace {

using functional::PoolingShape;
using functional::PoolingWindow;
using runtime::DimsText;
using runtime::TensorShape;
using utility::Assert;

// The layers' paddings are signed; pooling reads them as unsigned 16-bit numbers.
template <class Info>
PoolingWindow ReadWindow(Info const& info) {
  auto const padding = [](short value) { return std::size_t{static_cast<std::uint16_t>(value)}; };
  return {info.kernel_y,           info.kernel_x,           info.stride_y,           info.stride_x,          1, 1,
          padding(info.padding_t), padding(info.padding_b), padding(info.padding_l), padding(info.padding_r)};
}

// The text of a refusal begins with the kernel's name and its layer.
template <class Kind>
void CheckStride(Kind const& kind) {
  Assert(kind.window.stride_y != 0 && kind.window.stride_x != 0,
         "%s of layer %s: stride %zu x %zu; a stride is 1 or more", Kind::kName, kind.layer_id.c_str(),
         kind.window.stride_y, kind.window.stride_x);
}

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
  float const result = (ceil_mode ? std::ceil(steps) : std::floor(steps)) + 1.0f;
  return rows::Saturated<unsigned int>(result);
}

std::size_t Reach(std::size_t kernel, std::size_t dilation) { return kernel == 0 ? 0 : (kernel - 1) * dilation + 1; }

// What both windowed kinds need of their input before any output is made.
template <class Kind>
void CheckInput(Kind const& kind, runtime::TensorCPU const& input) {
  auto const& dims = input.shape.dims;
  PoolingWindow const& window = kind.window;
  Assert(support::IsInMainMemory(input, TensorShape::FLOAT32, TensorShape::CHW),
         "%s of layer %s: input of dims %s has data type %u and layout %u; needs FLOAT32 CHW", Kind::kName,
         kind.layer_id.c_str(), DimsText(dims).c_str(), input.shape.data_type, input.shape.layout);
  std::size_t const height = dims[1] + window.padding_t + window.padding_b,
                    width = dims[2] + window.padding_l + window.padding_r;
  std::size_t const reach_y = Reach(window.kernel_y, window.dilation_y),
                    reach_x = Reach(window.kernel_x, window.dilation_x);
  Assert(reach_y <= height && reach_x <= width, "%s of layer %s: a window of %zu x %zu on a padded input of %zu x %zu",
         Kind::kName, kind.layer_id.c_str(), reach_y, reach_x, height, width);
}

PoolingShape ShapeOf(runtime::TensorCPU const& input, runtime::TensorCPU const& output) {
  auto const& dims = input.shape.dims;
  return {dims[0], dims[1], dims[2], output.shape.dims[1], output.shape.dims[2]};
}

std::shared_ptr<runtime::TensorCPU> MakeScratch(std::size_t count, runtime::DeviceCPU& device) {
  return device.CreateTensor(TensorShape({static_cast<unsigned int>(count)}, TensorShape::FLOAT32, TensorShape::C,
                                         TensorShape::MainMemory, TensorShape::Extra()),
                             nullptr);
}

int JudgeOne(std::vector<std::shared_ptr<runtime::Tensor>> const& tensors) {
  return support::Judge(tensors, 1, [](runtime::Tensor const& tensor) {
    return support::IsInMainMemory(tensor, TensorShape::FLOAT32, TensorShape::CHW);
  });
}

}  // namespace

void AveragePooling::Read(Info const& info) {
  window = ReadWindow(info);
  count_include_pad = info.count_include_pad;
}

std::vector<unsigned int> AveragePooling::OutputDims(std::vector<unsigned int> const& dims) const {
  CheckStride(*this);
  return {dims[0], AverageExtent(dims[1], window.kernel_y, window.padding_t + window.padding_b, window.stride_y),
          AverageExtent(dims[2], window.kernel_x, window.padding_l + window.padding_r, window.stride_x)};
}

void AveragePooling::Check(runtime::TensorCPU const& input) const { CheckInput(*this, input); }

void AveragePooling::Run(runtime::TensorCPU const& input, runtime::TensorCPU const& output,
                         runtime::DeviceCPU& device) const {
  PoolingShape const shape = ShapeOf(input, output);
  auto const scratch = MakeScratch(functional::average_pool_scratch_f32(shape, window), device);
  functional::average_pool_f32(input.Data<float>(), shape, window, count_include_pad, scratch->Data<float>(),
                               output.Data<float>());
}

void MaximumPooling::Read(Info const& info) {
  window = ReadWindow(info);
  window.dilation_y = info.dilation_y;
  window.dilation_x = info.dilation_x;
  ceil_mode = info.ceil_mode;
}

std::vector<unsigned int> MaximumPooling::OutputDims(std::vector<unsigned int> const& dims) const {
  CheckStride(*this);
  return {dims[0],
          MaximumExtent(dims[1], window.kernel_y, window.dilation_y, window.padding_t + window.padding_b,
                        window.stride_y, ceil_mode),
          MaximumExtent(dims[2], window.kernel_x, window.dilation_x, window.padding_l + window.padding_r,
                        window.stride_x, ceil_mode)};
}

void MaximumPooling::Check(runtime::TensorCPU const& input) const { CheckInput(*this, input); }

void MaximumPooling::Run(runtime::TensorCPU const& input, runtime::TensorCPU const& output,
                         runtime::DeviceCPU& device) const {
  PoolingShape const shape = ShapeOf(input, output);
  auto const scratch = MakeScratch(functional::max_pool_scratch_f32(shape, window), device);
  functional::max_pool_f32(input.Data<float>(), shape, window, scratch->Data<float>(), output.Data<float>());
}

void AdaptiveAveragePooling::Read(Info const& info) {
  Assert(info.output_size.size() >= 2, "%s of layer %s: output_size has %zu entries, needs 2", kName, layer_id.c_str(),
         info.output_size.size());
  out_height = info.output_size[0];
  out_width = info.output_size[1];
}

std::vector<unsigned int> AdaptiveAveragePooling::OutputDims(std::vector<unsigned int> const& dims) const {
  return {dims[0], out_height, out_width};
}

void AdaptiveAveragePooling::Check(runtime::TensorCPU const&) const {}  // the rank is all that it needs

void AdaptiveAveragePooling::Run(runtime::TensorCPU const& input, runtime::TensorCPU const& output,
                                 runtime::DeviceCPU& device) const {
  PoolingShape const shape = ShapeOf(input, output);
  auto const scratch = MakeScratch(functional::adaptive_pool_scratch_f32(shape), device);
  functional::adaptive_average_pool_f32(input.Data<float>(), shape, scratch->Data<float>(), output.Data<float>());
}

template <class Kind>
std::string Pooling<Kind>::GetName() const {
  return Kind::kName;
}

template <class Kind>
int Pooling<Kind>::IsValidParam(std::shared_ptr<runtime::LayerInfo> layer,
                                std::shared_ptr<runtime::InferenceParam> param) const {
  return param == nullptr && std::dynamic_pointer_cast<typename Kind::Info>(layer) != nullptr ? 0 : -1;
}

template <class Kind>
bool Pooling<Kind>::Config(std::shared_ptr<runtime::LayerInfo> layer, std::shared_ptr<runtime::InferenceParam> param,
                           std::shared_ptr<runtime::Context>) {
  configured_ = false;
  if (IsValidParam(layer, param) == -1) return false;
  kind_.layer_id = layer->id;
  kind_.Read(*std::dynamic_pointer_cast<typename Kind::Info>(layer));
  configured_ = true;
  return true;
}

template <class Kind>
bool Pooling<Kind>::IsConfigured() const {
  return configured_;
}

template <class Kind>
std::vector<TensorShape> Pooling<Kind>::GetOutputShapes(std::vector<TensorShape> const& input_shapes) const {
  TensorShape const& shape = support::ShapeAt(*this, input_shapes, 0, 3);
  return {
      TensorShape(kind_.OutputDims(shape.dims), shape.data_type, shape.layout, shape.location, TensorShape::Extra())};
}

template <class Kind>
int Pooling<Kind>::IsValidInput(std::vector<std::shared_ptr<runtime::Tensor>> const& inputs) const {
  return JudgeOne(inputs);
}

template <class Kind>
int Pooling<Kind>::Forward(std::vector<std::shared_ptr<runtime::Tensor>> const& inputs,
                           std::vector<std::shared_ptr<runtime::Tensor>>& outputs,
                           std::shared_ptr<runtime::Context> context) const {
  auto const input = support::Input(*this, inputs, 0, 3);
  kind_.Check(*input);
  auto const output = support::NewOutput(*this, inputs, context);
  kind_.Run(*input, *output, support::Device(*this, context));
  outputs.assign(1, output);
  return 0;
}

template <class Kind>
int Pooling<Kind>::IsValidOutput(std::vector<std::shared_ptr<runtime::Tensor>> const& outputs) const {
  return JudgeOne(outputs);
}

template class Pooling<AveragePooling>;
template class Pooling<MaximumPooling>;
template class Pooling<AdaptiveAveragePooling>;

}  // namespace talvo::kernel
