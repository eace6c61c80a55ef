#include "talvo/kernel/resampling.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "talvo/kernel/functional/resampling.h"
#include "talvo/kernel/kernel_support.h"
#include "talvo/serialization/inference_param.h"
#include "talvo/serialization/layer_info_plane.h"
#include "talvo/utility/log.h"

namespace talvo::kernel {

using functional::ImageSize;
using runtime::TensorShape;
using runtime::Upsample2dInfo;
using support::ContextPtr;
using support::TensorPtr;
using support::Tensors;
using utility::Assert;
using Dims = std::vector<unsigned int>;
using LayerPtr = std::shared_ptr<runtime::LayerInfo>;
using ParamPtr = std::shared_ptr<runtime::InferenceParam>;
using Shapes = std::vector<TensorShape>;

namespace {

constexpr char kNearest[] = "Nearest", kBilinear[] = "Bilinear", kBicubic[] = "Bicubic";
constexpr char kZeros[] = "Zeros", kBorder[] = "Border", kReflection[] = "Reflection";

// The name of number `type`. Assert, with this text: there is none.
char const* NameOf(char const* const (&names)[3], unsigned short type, char const* refusal) {
  Assert(type < 3, "%s", refusal);
  return names[type];
}

std::string UpsampleName(unsigned short type) {
  return NameOf({kNearest, kBilinear, kBicubic}, type, "Invalid upsample2d type");
}

std::string GridMode(unsigned short mode) {
  return NameOf({kNearest, kBilinear, kBicubic}, mode, "Invalid gridsample mode");
}

std::string GridPadding(unsigned short padding_mode) {
  return NameOf({kZeros, kBorder, kReflection}, padding_mode, "Invalid gridsample padding_mode");
}

ImageSize SizeOf(runtime::TensorCPU const& image) {
  return {image.shape.dims[0], image.shape.dims[1], image.shape.dims[2]};
}

int JudgeImage(Tensors const& tensors, unsigned int data_type) {
  return support::Judge(tensors, 1, [data_type](runtime::Tensor const& tensor) {
    return support::IsInMainMemory(tensor, data_type, TensorShape::CHW);
  });
}

// A shape like `input` with other dims and without its Extra.
TensorShape Resized(TensorShape const& input, Dims dims) {
  return TensorShape(std::move(dims), input.data_type, input.layout, input.location, TensorShape::Extra());
}

}  // namespace

struct FloatPlanes {
  using Element = float;
  static constexpr unsigned int kDataType = TensorShape::FLOAT32;
  static constexpr char const* kUpsampling = "Upsampling2D_Fallback_CHW_Float_M1";
  static constexpr char const* kPixelshuffle = "Pixelshuffle_Fallback_CHW_Float_M1";
  static bool TakesParam(ParamPtr const& param) { return param == nullptr; }
  static short StepSize(ParamPtr const&) { return 0; }
};

struct Int16Planes {
  using Element = std::int16_t;
  static constexpr unsigned int kDataType = TensorShape::INT16;
  static constexpr char const* kUpsampling = "Upsampling2D_Fallback_CHW_Int16_M1";
  static constexpr char const* kPixelshuffle = "Pixelshuffle_Fallback_CHW_Int16_M1";
  static bool TakesParam(ParamPtr const& param) {
    auto const quant = std::dynamic_pointer_cast<runtime::InferenceParamUpsampling2DQuant>(param);
    return quant != nullptr && quant->output_step_size >= 8 && quant->output_step_size <= 12;
  }
  static short StepSize(ParamPtr const& param) {
    return static_cast<runtime::InferenceParamUpsampling2DQuant const&>(*param).output_step_size;
  }
};

template <class Planes>
std::string Upsampling2D<Planes>::GetName() const {
  return Planes::kUpsampling;
}

template <class Planes>
int Upsampling2D<Planes>::IsValidParam(LayerPtr layer, ParamPtr param) const {
  auto const upsample = std::dynamic_pointer_cast<Upsample2dInfo>(layer);
  if (!Planes::TakesParam(param) || upsample == nullptr) return -1;
  std::string const name = UpsampleName(upsample->unsample_type);
  return name == kNearest || name == kBilinear ? 0 : -1;
}

template <class Planes>
bool Upsampling2D<Planes>::Config(LayerPtr layer, ParamPtr param, ContextPtr) {
  configured_ = false;
  if (IsValidParam(layer, param) == -1) return false;
  auto const& upsample = static_cast<Upsample2dInfo const&>(*layer);
  if (!(upsample.scale_factor_y >= 0 && upsample.scale_factor_x >= 0)) {
    Assert(false, "%s of layer %s: scale factors %g and %g, need to be 0 or above", Planes::kUpsampling,
           layer->id.c_str(), upsample.scale_factor_y, upsample.scale_factor_x);
  }
  scale_factor_y_ = upsample.scale_factor_y;
  scale_factor_x_ = upsample.scale_factor_x;
  align_corner_ = upsample.align_corner;
  sampling_ = UpsampleName(upsample.unsample_type);
  output_step_size_ = Planes::StepSize(param);
  configured_ = true;
  return true;
}

template <class Planes>
bool Upsampling2D<Planes>::IsConfigured() const {
  return configured_;
}

template <class Planes>
Shapes Upsampling2D<Planes>::GetOutputShapes(Shapes const& input_shapes) const {
  TensorShape const& input = support::ShapeAt(*this, input_shapes, 0, 3);
  TensorShape output = Resized(input, {input.dims[0], functional::UpsampledExtent(input.dims[1], scale_factor_y_),
                                       functional::UpsampledExtent(input.dims[2], scale_factor_x_)});
  output.extra.step_size = output_step_size_;
  return {output};
}

template <class Planes>
int Upsampling2D<Planes>::IsValidInput(Tensors const& inputs) const {
  return JudgeImage(inputs, Planes::kDataType);
}

template <class Planes>
int Upsampling2D<Planes>::Forward(Tensors const& inputs, Tensors& outputs, ContextPtr context) const {
  using Element = typename Planes::Element;
  bool const nearest = sampling_ == kNearest;
  Assert(nearest || sampling_ == kBilinear, nullptr);
  TensorPtr const x = support::Input(*this, inputs, 0, 3, nearest ? 1 : sizeof(Element));
  TensorPtr const y = support::NewOutput(*this, inputs, context);
  std::size_t const height = y->shape.dims[1], width = y->shape.dims[2];
  if (nearest) {
    functional::UpsampleNearest(x->data, SizeOf(*x), runtime::ElementSize(x->shape.data_type), scale_factor_y_,
                                scale_factor_x_, height, width, y->data);
  } else {
    functional::UpsampleBilinear(x->template Data<Element>(), SizeOf(*x), scale_factor_y_, scale_factor_x_,
                                 align_corner_, height, width, y->template Data<Element>());
  }
  outputs.assign(1, y);
  return 0;
}

template <class Planes>
int Upsampling2D<Planes>::IsValidOutput(Tensors const& outputs) const {
  return IsValidInput(outputs);
}

template class Upsampling2D<FloatPlanes>;
template class Upsampling2D<Int16Planes>;

namespace {

// What a factor asks for: channels to pixels, or pixels to channels, by `step` in both directions.
struct Shuffle {
  bool to_pixels;
  std::uint64_t step;
};

// A factor that no kernel can be asked for becomes a step that no extent fits.
Shuffle ShuffleOf(char const* name, float factor) {
  if (!(factor > 0.0f)) Assert(false, "%s: an upscale factor of %g, needs to be above 0", name, factor);
  bool const to_pixels = factor > 1.0f;
  constexpr float kEnd = 0x1p31f;
  float const step = to_pixels ? factor : 1.0f / factor;
  return {to_pixels, step < kEnd ? static_cast<std::uint64_t>(step) : 0x7FFFFFFFu};
}

// a * b. Assert: more than 32 bits hold.
unsigned int CheckedProduct(char const* name, std::uint64_t a, std::uint64_t b) {
  if (a != 0 && b > 0xFFFFFFFFu / a) {
    Assert(false, "%s: an extent of %llu times %llu does not fit 32 bits", name, static_cast<unsigned long long>(a),
           static_cast<unsigned long long>(b));
  }
  return static_cast<unsigned int>(a * b);
}

Dims ShuffledDims(char const* name, Dims const& dims, Shuffle const& shuffle) {
  std::uint64_t const step = shuffle.step, square = step * step;
  if (!shuffle.to_pixels) {
    return {CheckedProduct(name, dims[0], square), static_cast<unsigned int>(dims[1] / step),
            static_cast<unsigned int>(dims[2] / step)};
  }
  if (dims[0] % square != 0) {
    Assert(false, "%s: %u channels, needs a multiple of %llu for a factor of %llu", name, dims[0],
           static_cast<unsigned long long>(square), static_cast<unsigned long long>(step));
  }
  return {static_cast<unsigned int>(dims[0] / square), CheckedProduct(name, dims[1], step),
          CheckedProduct(name, dims[2], step)};
}

}  // namespace

template <class Planes>
std::string Pixelshuffle<Planes>::GetName() const {
  return Planes::kPixelshuffle;
}

template <class Planes>
int Pixelshuffle<Planes>::IsValidParam(LayerPtr layer, ParamPtr param) const {
  auto const shuffle = std::dynamic_pointer_cast<runtime::PixelShuffleInfo>(layer);
  return param != nullptr || shuffle == nullptr || shuffle->upscale_factor < 0 ? -1 : 0;
}

template <class Planes>
bool Pixelshuffle<Planes>::Config(LayerPtr layer, ParamPtr param, ContextPtr) {
  configured_ = false;
  if (IsValidParam(layer, param) == -1) return false;
  upscale_factor_ = static_cast<runtime::PixelShuffleInfo const&>(*layer).upscale_factor;
  configured_ = true;
  return true;
}

template <class Planes>
bool Pixelshuffle<Planes>::IsConfigured() const {
  return configured_;
}

template <class Planes>
Shapes Pixelshuffle<Planes>::GetOutputShapes(Shapes const& input_shapes) const {
  TensorShape const& input = support::ShapeAt(*this, input_shapes, 0, 3);
  Shuffle const shuffle = ShuffleOf(Planes::kPixelshuffle, upscale_factor_);
  return {Resized(input, ShuffledDims(Planes::kPixelshuffle, input.dims, shuffle))};
}

template <class Planes>
int Pixelshuffle<Planes>::IsValidInput(Tensors const& inputs) const {
  return JudgeImage(inputs, Planes::kDataType);
}

template <class Planes>
int Pixelshuffle<Planes>::Forward(Tensors const& inputs, Tensors& outputs, ContextPtr context) const {
  using Element = typename Planes::Element;
  TensorPtr const x = support::Input(*this, inputs, 0, 3, sizeof(Element));
  TensorPtr const y = support::NewOutput(*this, inputs, context);
  Shuffle const shuffle = ShuffleOf(Planes::kPixelshuffle, upscale_factor_);
  auto const* const from = x->template Data<Element>();
  auto* const to = y->template Data<Element>();
  shuffle.to_pixels ? functional::PixelShuffle(from, SizeOf(*x), shuffle.step, to)
                    : functional::PixelUnshuffle(from, SizeOf(*x), shuffle.step, to);
  outputs.assign(1, y);
  return 0;
}

template <class Planes>
int Pixelshuffle<Planes>::IsValidOutput(Tensors const& outputs) const {
  return IsValidInput(outputs);
}

template class Pixelshuffle<FloatPlanes>;
template class Pixelshuffle<Int16Planes>;

std::string GridSample_Fallback_CHW_Float_M1::GetName() const { return "GridSample_Fallback_CHW_Float_M1"; }

int GridSample_Fallback_CHW_Float_M1::IsValidParam(LayerPtr layer, ParamPtr param) const {
  auto const grid = std::dynamic_pointer_cast<runtime::GridSampleInfo>(layer);
  if (param != nullptr || grid == nullptr) return -1;
  std::string const mode = GridMode(grid->mode), padding = GridPadding(grid->padding_mode);
  return (mode == kNearest || mode == kBilinear) && (padding == kZeros || padding == kBorder) ? 0 : -1;
}

bool GridSample_Fallback_CHW_Float_M1::Config(LayerPtr layer, ParamPtr param, ContextPtr) {
  configured_ = false;
  if (IsValidParam(layer, param) == -1) return false;
  auto const& grid = static_cast<runtime::GridSampleInfo const&>(*layer);
  mode_ = GridMode(grid.mode);
  padding_mode_ = GridPadding(grid.padding_mode);
  align_corners_ = grid.align_corners;
  configured_ = true;
  return true;
}

bool GridSample_Fallback_CHW_Float_M1::IsConfigured() const { return configured_; }

Shapes GridSample_Fallback_CHW_Float_M1::GetOutputShapes(Shapes const& input_shapes) const {
  TensorShape const& input = support::ShapeAt(*this, input_shapes, 0, 3);
  Dims const& grid = support::ShapeAt(*this, input_shapes, 1).dims;
  if (grid.size() < 2) {
    Assert(false, "%s: a grid of dims %s, needs rank 2 at least", GetName().c_str(), runtime::DimsText(grid).c_str());
  }
  return {Resized(input, {input.dims[0], grid[0], grid[1]})};
}

int GridSample_Fallback_CHW_Float_M1::IsValidInput(Tensors const& inputs) const {
  auto const is_float = [](runtime::Tensor const& tensor) {
    return support::IsInMainMemory(tensor, TensorShape::FLOAT32);
  };
  if (support::Judge(inputs, 2, is_float) != 0 || inputs[0]->shape.layout != TensorShape::CHW) return -2;
  Dims const& grid = inputs[1]->shape.dims;
  return grid.size() != 3 && (grid.size() < 3 || grid[2] != 2) ? -2 : 0;
}

int GridSample_Fallback_CHW_Float_M1::Forward(Tensors const& inputs, Tensors& outputs, ContextPtr context) const {
  bool const bilinear = mode_ == kBilinear, border = padding_mode_ == kBorder;
  Assert((bilinear || mode_ == kNearest) && (border || padding_mode_ == kZeros), nullptr);
  TensorPtr const x = support::Input(*this, inputs, 0, 3), grid = support::Input(*this, inputs, 1);
  TensorPtr const y = support::NewOutput(*this, inputs, context);
  std::size_t const height = y->shape.dims[1], width = y->shape.dims[2];
  if (support::Count(*grid) < 2 * (height * width)) {
    Assert(false, "%s: a grid of dims %s, needs 2 x %zu x %zu elements", GetName().c_str(),
           runtime::DimsText(grid->shape.dims).c_str(), height, width);
  }
  functional::GridSample(x->Data<float>(), SizeOf(*x), grid->Data<float>(), height, width,
                         {bilinear, border, align_corners_}, y->Data<float>());
  outputs.assign(1, y);
  return 0;
}

int GridSample_Fallback_CHW_Float_M1::IsValidOutput(Tensors const& outputs) const {
  return JudgeImage(outputs, TensorShape::FLOAT32);
}

}  // namespace talvo::kernel
