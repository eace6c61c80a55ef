#include "talvo/kernel/resampling.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "talvo/kernel/functional/resampling_support.h"
#include "talvo/kernel/kernel_of_support.h"
#include "talvo/serialization/inference_param.h"
#include "talvo/serialization/layer_info_plane.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::kernel {

using functional::ImageSize;

namespace {

using Dims = std::vector<unsigned int>;

constexpr char kNearest[] = "Nearest", kBilinear[] = "Bilinear", kBicubic[] = "Bicubic";
constexpr char kZeros[] = "Zeros", kBorder[] = "Border", kReflection[] = "Reflection";

// The name of number `type`. Assert, with this text: there is none.
char const* NameOf(char const* const (&names)[3], unsigned short type, char const* refusal) {
  if (type >= 3) Refuse("%s", refusal);
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

// A shape like `input` with other dims and without its Extra.
Shapes Resized(TensorShape const& input, Dims dims) {
  return support::OneShape(std::move(dims), input.data_type, input.layout, input.location);
}

// What a factor asks for: channels to pixels, or pixels to channels, by `step` in both directions.
struct Shuffle {
  bool to_pixels;
  std::uint64_t step;
};

// A factor that no kernel can be asked for becomes a step that no extent fits.
Shuffle ShuffleOfFactor(support::Who const& who, float factor) {
  if (!(factor > 0.0f)) Refuse("%s: an upscale factor of %g, needs to be above 0", who.Text().c_str(), factor);
  bool const to_pixels = factor > 1.0f;
  constexpr float kEnd = 0x1p31f;
  float const step = to_pixels ? factor : 1.0f / factor;
  return {to_pixels, step < kEnd ? static_cast<std::uint64_t>(step) : 0x7FFFFFFFu};
}

// a * b. Assert: more than 32 bits hold.
unsigned int CheckedProduct(support::Who const& who, std::uint64_t a, std::uint64_t b) {
  if (a != 0 && b > 0xFFFFFFFFu / a) {
    Refuse("%s: an extent of %llu times %llu does not fit 32 bits", who.Text().c_str(),
           static_cast<unsigned long long>(a), static_cast<unsigned long long>(b));
  }
  return static_cast<unsigned int>(a * b);
}

Dims ShuffledDims(support::Who const& who, Dims const& dims, Shuffle const& shuffle) {
  std::uint64_t const step = shuffle.step, square = step * step;
  if (!shuffle.to_pixels) {
    return {CheckedProduct(who, dims[0], square), static_cast<unsigned int>(dims[1] / step),
            static_cast<unsigned int>(dims[2] / step)};
  }
  if (dims[0] % square != 0) {
    Refuse("%s: %u channels, needs a multiple of %llu for a factor of %llu", who.Text().c_str(), dims[0],
           static_cast<unsigned long long>(square), static_cast<unsigned long long>(step));
  }
  return {static_cast<unsigned int>(dims[0] / square), CheckedProduct(who, dims[1], step),
          CheckedProduct(who, dims[2], step)};
}

// The two element types of upsampling and pixel shuffle.
struct PlaneForm {
  unsigned int data_type;
  unsigned int ElementBytes() const { return runtime::ElementSize(data_type); }
};

// The parameter of the 16-bit form.
using Quant = runtime::InferenceParamUpsampling2DQuant;

struct Upsample : support::Strict<runtime::Upsample2dInfo> {
  using Info = runtime::Upsample2dInfo;

  explicit Upsample(PlaneForm const& form) : planes(form) {}

  bool IsShort() const { return planes.data_type == TensorShape::INT16; }

  bool TakesParam(ParamPtr const& param) const {
    if (!IsShort()) return param == nullptr;
    auto const* const quant = dynamic_cast<Quant const*>(param.get());
    return quant != nullptr && quant->output_step_size >= 8 && quant->output_step_size <= 12;
  }

  int IsValidParam(LayerPtr const& layer, ParamPtr const& param) const override {
    auto const* const info = dynamic_cast<Info const*>(layer.get());
    if (!TakesParam(param) || info == nullptr) return -1;
    std::string const name = UpsampleName(info->unsample_type);
    return name == kNearest || name == kBilinear ? 0 : -1;
  }

  bool Config(LayerPtr const& layer, ParamPtr const& param, ContextPtr const&) override {
    auto const& info = support::As<Info>(CName(), layer);
    if (!(info.scale_factor_y >= 0 && info.scale_factor_x >= 0)) {
      Refuse("%s of layer %s: scale factors %g and %g, need to be 0 or above", CName(), info.id.c_str(),
             info.scale_factor_y, info.scale_factor_x);
    }
    layer_id = info.id;
    scale_factor_y = info.scale_factor_y;
    scale_factor_x = info.scale_factor_x;
    align_corner = info.align_corner;
    sampling = UpsampleName(info.unsample_type);
    output_step_size = IsShort() ? static_cast<Quant const&>(*param).output_step_size : short{0};
    return true;
  }

  Shapes GetOutputShapes(Shapes const& shapes) const override {
    TensorShape const& input = support::ShapeAt(Who(), shapes, 0, 3);
    Shapes outputs = Resized(input, {input.dims[0], functional::UpsampledExtent(input.dims[1], scale_factor_y),
                                     functional::UpsampledExtent(input.dims[2], scale_factor_x)});
    outputs[0].extra.step_size = output_step_size;
    return outputs;
  }

  int IsValidInput(Tensors const& inputs) const override { return support::JudgeOneImage(inputs, planes.data_type); }

  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    bool const nearest = sampling == kNearest;
    if (!nearest && sampling != kBilinear) Refuse(nullptr);
    TensorPtr const x = support::Input(Who(), inputs, 0, 3, nearest ? 1 : planes.ElementBytes());
    TensorPtr const y = support::NewOutput(kernel, inputs, context);
    std::size_t const height = y->shape.dims[1], width = y->shape.dims[2];
    if (nearest) {
      functional::UpsampleNearest(x->data, SizeOf(*x), runtime::ElementSize(x->shape.data_type), scale_factor_y,
                                  scale_factor_x, height, width, y->data);
    } else {
      functional::UpsampleBilinear(x->data, IsShort(), SizeOf(*x),
                                   {scale_factor_y, scale_factor_x, align_corner, height, width}, y->data);
    }
    return support::Give(y, outputs);
  }

  int IsValidOutput(Tensors const& outputs) const override { return IsValidInput(outputs); }

  support::Who Who() const { return {CName(), layer_id}; }

  PlaneForm const planes;
  std::string layer_id, sampling;
  float scale_factor_y = 0.0f, scale_factor_x = 0.0f;
  bool align_corner = false;
  short output_step_size = 0;
};

struct PixelShuffle : support::Strict<runtime::PixelShuffleInfo> {
  using Info = runtime::PixelShuffleInfo;

  explicit PixelShuffle(PlaneForm const& form) : planes(form) {}

  int IsValidParam(LayerPtr const& layer, ParamPtr const& param) const override {
    auto const* const info = dynamic_cast<Info const*>(layer.get());
    return param != nullptr || info == nullptr || info->upscale_factor < 0 ? -1 : 0;
  }

  bool Config(LayerPtr const& layer, ParamPtr const&, ContextPtr const&) override {
    layer_id = layer->id;
    upscale_factor = support::As<Info>(CName(), layer).upscale_factor;
    return true;
  }

  Shapes GetOutputShapes(Shapes const& shapes) const override {
    TensorShape const& input = support::ShapeAt(Who(), shapes, 0, 3);
    return Resized(input, ShuffledDims(Who(), input.dims, ShuffleOfFactor(Who(), upscale_factor)));
  }

  int IsValidInput(Tensors const& inputs) const override { return support::JudgeOneImage(inputs, planes.data_type); }

  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    TensorPtr const x = support::Input(Who(), inputs, 0, 3, planes.ElementBytes());
    TensorPtr const y = support::NewOutput(kernel, inputs, context);
    Shuffle const shuffle = ShuffleOfFactor(Who(), upscale_factor);
    auto const step = static_cast<std::size_t>(shuffle.step);  // at most an extent of x
    (shuffle.to_pixels ? functional::PixelShuffle : functional::PixelUnshuffle)(x->data, SizeOf(*x),
                                                                                planes.ElementBytes(), step, y->data);
    return support::Give(y, outputs);
  }

  int IsValidOutput(Tensors const& outputs) const override { return IsValidInput(outputs); }

  support::Who Who() const { return {CName(), layer_id}; }

  PlaneForm const planes;
  std::string layer_id;
  float upscale_factor = 0.0f;
};

}  // namespace

struct UpsampleFloatOperation {
  using Body = Upsample;
  static constexpr PlaneForm kForm = {TensorShape::FLOAT32};
  static constexpr char const* kName = "Upsampling2D_Fallback_CHW_Float_M1";
};

struct UpsampleInt16Operation {
  using Body = Upsample;
  static constexpr PlaneForm kForm = {TensorShape::INT16};
  static constexpr char const* kName = "Upsampling2D_Fallback_CHW_Int16_M1";
};

struct ShuffleFloatOperation {
  using Body = PixelShuffle;
  static constexpr PlaneForm kForm = {TensorShape::FLOAT32};
  static constexpr char const* kName = "Pixelshuffle_Fallback_CHW_Float_M1";
};

struct ShuffleInt16Operation {
  using Body = PixelShuffle;
  static constexpr PlaneForm kForm = {TensorShape::INT16};
  static constexpr char const* kName = "Pixelshuffle_Fallback_CHW_Int16_M1";
};

struct GridSampleOperation : support::Strict<runtime::GridSampleInfo> {
  static constexpr char const* kName = "GridSample_Fallback_CHW_Float_M1";
  using Info = runtime::GridSampleInfo;

  int IsValidParam(LayerPtr const& layer, ParamPtr const& param) const override {
    if (Strict::IsValidParam(layer, param) == -1) return -1;
    auto const& info = support::As<Info>(kName, layer);
    std::string const sampling = GridMode(info.mode), padding = GridPadding(info.padding_mode);
    return (sampling == kNearest || sampling == kBilinear) && (padding == kZeros || padding == kBorder) ? 0 : -1;
  }

  bool Config(LayerPtr const& layer, ParamPtr const&, ContextPtr const&) override {
    auto const& info = support::As<Info>(kName, layer);
    layer_id = info.id;
    mode = GridMode(info.mode);
    padding_mode = GridPadding(info.padding_mode);
    align_corners = info.align_corners;
    return true;
  }

  Shapes GetOutputShapes(Shapes const& shapes) const override {
    TensorShape const& input = support::ShapeAt(Who(), shapes, 0, 3);
    Dims const& grid = support::ShapeAt(Who(), shapes, 1).dims;
    if (grid.size() < 2) {
      Refuse("%s: a grid of dims %s, needs rank 2 at least", Who().Text().c_str(), runtime::DimsText(grid).c_str());
    }
    return Resized(input, {input.dims[0], grid[0], grid[1]});
  }

  int IsValidInput(Tensors const& inputs) const override {
    auto const is_float = [](runtime::Tensor const& tensor) {
      return support::IsInMainMemory(tensor, TensorShape::FLOAT32);
    };
    if (support::Judge(inputs, 2, is_float) != 0 || inputs[0]->shape.layout != TensorShape::CHW) return -2;
    Dims const& grid = inputs[1]->shape.dims;
    return grid.size() != 3 && (grid.size() < 3 || grid[2] != 2) ? -2 : 0;
  }

  int Forward(IKernel const& kernel, Tensors const& inputs, Tensors& outputs,
              ContextPtr const& context) const override {
    bool const bilinear = mode == kBilinear, border = padding_mode == kBorder;
    if ((!bilinear && mode != kNearest) || (!border && padding_mode != kZeros)) Refuse(nullptr);
    TensorPtr const x = support::Input(Who(), inputs, 0, 3), grid = support::Input(Who(), inputs, 1);
    TensorPtr const y = support::NewOutput(kernel, inputs, context);
    std::size_t const count = std::size_t{y->shape.dims[1]} * y->shape.dims[2];
    support::CheckTensor(Who(), "the grid", grid.get(), {sizeof(float), support::kAnyRank, 2 * count});
    functional::ImageSize const size = SizeOf(*x);
    auto const scratch = support::NewScratch(*context->device_cpu, functional::GridSampleScratch(size, count));
    functional::GridSample(x->Data<float>(), size, grid->Data<float>(), count, {bilinear, border, align_corners},
                           scratch->Data<float>(), y->Data<float>());
    return support::Give(y, outputs);
  }

  int IsValidOutput(Tensors const& outputs) const override {
    return support::JudgeOneImage(outputs, TensorShape::FLOAT32);
  }

  support::Who Who() const { return {kName, layer_id}; }

  std::string layer_id, mode, padding_mode;
  bool align_corners = false;
};

template OperationPtr MakeOperation<UpsampleFloatOperation>();
template OperationPtr MakeOperation<UpsampleInt16Operation>();
template OperationPtr MakeOperation<ShuffleFloatOperation>();
template OperationPtr MakeOperation<ShuffleInt16Operation>();
template OperationPtr MakeOperation<GridSampleOperation>();

}  // namespace talvo::kernel
