#include "talvo/kernel/resampling.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

#include "talvo/kernel/rows/instruction_sets.h"
#include "talvo/serialization/inference_param.h"
#include "talvo/serialization/layer_info_plane.h"
#include "tests/support/bits.h"
#include "tests/support/guarded_context.h"
#include "tests/support/log_capture.h"

namespace talvo {
namespace {

using namespace kernel;  // NOLINT: the long names of five kernels
using runtime::TensorShape;
using Dims = std::vector<unsigned int>;
using Tensors = std::vector<std::shared_ptr<runtime::Tensor>>;

constexpr float kInfinity = std::numeric_limits<float>::infinity(), kNan = std::numeric_limits<float>::quiet_NaN();

std::shared_ptr<runtime::Upsample2dInfo> UpsampleLayer(float scale_y, float scale_x, unsigned short type,
                                                       bool align_corner = false) {
  auto layer = std::make_shared<runtime::Upsample2dInfo>();
  layer->scale_factor_y = scale_y, layer->scale_factor_x = scale_x;
  layer->unsample_type = type, layer->align_corner = align_corner;
  return layer;
}

std::shared_ptr<runtime::PixelShuffleInfo> ShuffleLayer(float factor) {
  auto layer = std::make_shared<runtime::PixelShuffleInfo>();
  layer->upscale_factor = factor;
  return layer;
}

std::shared_ptr<runtime::GridSampleInfo> GridLayer(unsigned short mode, unsigned short padding, bool align_corners) {
  auto layer = std::make_shared<runtime::GridSampleInfo>();
  layer->mode = mode, layer->padding_mode = padding, layer->align_corners = align_corners;
  return layer;
}

std::shared_ptr<runtime::InferenceParamUpsampling2DQuant> Quant(short step) {
  auto param = std::make_shared<runtime::InferenceParamUpsampling2DQuant>();
  param->output_step_size = step;
  return param;
}

class Resampling : public testing::Test {
 protected:
  template <typename T>
  std::shared_ptr<runtime::TensorCPU> Image(Dims const& dims, std::vector<T> const& values) const {
    constexpr unsigned int kType = sizeof(T) == 4 ? TensorShape::FLOAT32 : TensorShape::INT16;
    EXPECT_EQ(runtime::ElementCount(dims), values.size());
    return context_->device_cpu->CreateTensor(TensorShape(dims, kType, TensorShape::CHW, TensorShape::MainMemory, {}),
                                              values.data());
  }

  template <typename T = float>
  std::shared_ptr<runtime::TensorCPU> Run(runtime::IKernel& kernel, std::shared_ptr<runtime::LayerInfo> const& layer,
                                          Tensors const& inputs,
                                          std::shared_ptr<runtime::InferenceParam> const& param = nullptr) const {
    EXPECT_TRUE(kernel.Config(layer, param, context_));
    Tensors outputs;
    EXPECT_EQ(0, kernel.Forward(inputs, outputs, context_));
    EXPECT_EQ(1u, outputs.size());
    return std::static_pointer_cast<runtime::TensorCPU>(outputs[0]);
  }

  // The refusal holds `text`; one that begins with a blank stands behind the names of kernel and layer.
  void ExpectRefusal(runtime::IKernel&& kernel, std::shared_ptr<runtime::LayerInfo> const& layer, Tensors const& inputs,
                     std::string const& text) const {
    layer->id = "r";
    auto const refusal = test::RefusalOf([&] { Run(kernel, layer, inputs); });
    EXPECT_NE(std::string::npos, refusal.find(text)) << refusal;
    EXPECT_EQ(text[0] != ' ', refusal.find(kernel.GetName() + " of layer r:") == std::string::npos) << refusal;
  }

  std::shared_ptr<runtime::Context> const context_ = test::GuardedContext();
};

template <typename T>
std::vector<T> ValuesOf(runtime::Tensor const& tensor) {
  auto const* const first = static_cast<T const*>(tensor.data);
  return std::vector<T>(first, first + runtime::ElementCount(tensor.shape.dims));
}

std::vector<std::int16_t> Shorts(std::uint32_t seed, std::size_t count) {
  std::vector<std::int16_t> values;
  for (float value : test::Floats(seed, count)) values.push_back(static_cast<std::int16_t>(value * 32768.0f));
  return values;
}

// Step by step as the formula stands; a neighbour with weight 0 that lies outside is read inside.
template <typename T>
T Interpolated(T const* plane, unsigned int h, unsigned int w, float fy, float fx) {
  auto const iy = static_cast<unsigned int>(fy), ix = static_cast<unsigned int>(fx);
  float const wy = fy >= 0 ? fy - std::trunc(fy) : 0.0f, wx = fx >= 0 ? fx - std::trunc(fx) : 0.0f;
  bool const two_rows = fy >= 0 && fy <= static_cast<float>(h - 1),
             two_columns = fx > 0 && fx < static_cast<float>(w - 1);
  unsigned int const below = two_rows ? std::min(iy + 1, h - 1) : iy, right = two_columns ? ix + 1 : ix;
  float const a = plane[iy * w + ix], b = plane[iy * w + right], d = plane[below * w + ix],
              e = plane[below * w + right];
  return static_cast<T>((e * wx + d * (1 - wx)) * wy + (b * wx + a * (1 - wx)) * (1 - wy));
}

template <typename T>
std::vector<T> Upsampled(std::vector<T> const& x, Dims const& dims, runtime::Upsample2dInfo const& layer,
                         Dims const& out) {
  std::vector<T> y;
  unsigned int const h = dims[1], w = dims[2];
  float const sy = layer.scale_factor_y, sx = layer.scale_factor_x;
  float ry = 1.0f / sy, rx = 1.0f / sx, oy = ry * 0.5f - 0.5f, ox = rx * 0.5f - 0.5f;
  if (layer.align_corner) {
    ry = out[1] == 1 ? 0.0f : static_cast<float>(h - 1) / static_cast<float>(out[1] - 1);
    rx = out[2] == 1 ? 0.0f : static_cast<float>(w - 1) / static_cast<float>(out[2] - 1);
    oy = ox = 0.0f;
  }
  for (unsigned int c = 0; c < out[0]; ++c) {
    T const* const plane = x.data() + std::size_t{c} * h * w;
    for (unsigned int i = 0; i < out[1]; ++i) {
      for (unsigned int j = 0; j < out[2]; ++j) {
        auto const fi = static_cast<float>(i), fj = static_cast<float>(j);
        y.push_back(layer.unsample_type == 1
                        ? Interpolated(plane, h, w, fi * ry + oy, fj * rx + ox)
                        : plane[static_cast<std::size_t>(fi / sy) * w + static_cast<std::size_t>(fj / sx)]);
      }
    }
  }
  return y;
}

TEST_F(Resampling, UpsamplesFloatsAndIntegersInTheOrderOfTheFormula) {
  struct UpsampleCase {
    char const* why;
    float scale_y, scale_x;
    Dims in, out;
  };
  for (auto const set : rows::RunnableSets()) {
    rows::ScopedInstructionSet const use(set);
    for (UpsampleCase const& c : {UpsampleCase{"doubled, planes side by side and alone", 2, 2, {6, 5, 7}, {6, 10, 14}},
                                  {"doubled, vectors and a tail", 2, 2, {2, 3, 33}, {2, 6, 66}},
                                  {"columns alone", 1, 2, {2, 4, 4}, {2, 4, 8}},
                                  {"8 of 5 columns", 1.5f, 1.5f, {2, 4, 5}, {2, 6, 8}},
                                  {"odd scales", 3, 2.7f, {5, 3, 11}, {5, 9, 30}},
                                  {"smaller", 0.4f, 0.5f, {2, 11, 8}, {2, 4, 4}},
                                  {"to one row and column", 0.2f, 0.2f, {2, 5, 5}, {2, 1, 1}},
                                  {"from one pixel", 4, 3, {2, 1, 1}, {2, 4, 3}},
                                  {"as it is", 1, 1, {1, 6, 6}, {1, 6, 6}},
                                  {"to nothing", 0, 2, {2, 3, 3}, {2, 0, 6}},
                                  {"of nothing", 2, 2, {0, 3, 3}, {0, 6, 6}},
                                  {"planes side by side", 2, 1.5f, {37, 3, 13}, {37, 6, 20}},
                                  {"few columns of many", 1, 0.2f, {17, 2, 35}, {17, 2, 7}}}) {
      for (int kind = 0; kind < 3; ++kind) {
        SCOPED_TRACE(std::string(c.why) + (kind == 0 ? ", nearest" : kind == 1 ? ", half pixels" : ", corners"));
        auto const layer = UpsampleLayer(c.scale_y, c.scale_x, kind == 0 ? 0 : 1, kind == 2);
        Upsampling2D_Fallback_CHW_Float_M1 on_floats;
        // Infinities show a neighbour that takes part with weight 0, and one that does not.
        auto const floats = test::SpecialFloats(1, runtime::ElementCount(c.in));
        auto const y = Run(on_floats, layer, {Image(c.in, floats)});
        ASSERT_EQ(c.out, y->shape.dims);
        test::ExpectSameBits(Upsampled(floats, c.in, *layer, c.out), test::Values(*y));
        Upsampling2D_Fallback_CHW_Int16_M1 on_shorts;
        auto const shorts = Shorts(2, runtime::ElementCount(c.in));
        auto const q = Run(on_shorts, layer, {Image(c.in, shorts)}, Quant(12));
        EXPECT_EQ(Upsampled(shorts, c.in, *layer, c.out), ValuesOf<std::int16_t>(*q));
        EXPECT_EQ(12, q->shape.extra.step_size);
      }
    }
  }
}

// Positions are found for 1024 rows and columns at a time; in a set of 16 planes, 4 and 1.
TEST_F(Resampling, UpsamplesLargePlanesByBlocks) {
  for (Dims const& dims : {Dims{21, 2, 2100}, {1, 2100, 2}}) {
    auto const layer = UpsampleLayer(dims[1] > 2 ? 2 : 1, dims[2] > 2 ? 2 : 1, 1);
    Dims const out = {dims[0], dims[1] > 2 ? 4200u : 2u, dims[2] > 2 ? 4200u : 2u};
    auto const x = test::Floats(5, runtime::ElementCount(dims));
    Upsampling2D_Fallback_CHW_Float_M1 kernel;
    test::ExpectSameBits(Upsampled(x, dims, *layer, out), test::Values(*Run(kernel, layer, {Image(dims, x)})));
  }
}

TEST_F(Resampling, RefusesWhatDoesNotFit) {
  auto const image = Image({1, 2, 3}, test::Floats(1, 6)), deep = Image({6, 2, 2}, test::Floats(1, 24));
  auto const empty = Image<float>({1, 0, 3}, {});
  unsigned char const bytes[] = {1, 2, 3, 4};
  auto const byte_image = context_->device_cpu->CreateU8CHWMainMem({1, 2, 2}, bytes);
  auto const grid = [&](Dims const& dims) {
    return test::FloatTensor(*context_, dims, TensorShape::FLEXIABLE, test::Floats(2, runtime::ElementCount(dims)));
  };
  using Upsampling = Upsampling2D_Fallback_CHW_Float_M1;
  using Pixelshuffle = Pixelshuffle_Fallback_CHW_Float_M1;
  using GridSample = GridSample_Fallback_CHW_Float_M1;
  for (float scale : {-1.0f, kNan}) {
    ExpectRefusal(Upsampling(), UpsampleLayer(scale, 1, 0), {image}, " scale factors");
    ExpectRefusal(Upsampling(), UpsampleLayer(1, scale, 1), {image}, " scale factors");
  }
  for (float scale : {kInfinity, 3e9f}) {
    ExpectRefusal(Upsampling(), UpsampleLayer(scale, 1, 0), {image}, "an extent of 2 does not become one of 32 bits");
    ExpectRefusal(Upsampling(), UpsampleLayer(1, scale, 1), {image}, "an extent of 3 does not become one of 32 bits");
  }
  // 1.8e7 output columns: float32 carries the last ones beyond the plane.
  ExpectRefusal(Upsampling(), UpsampleLayer(1, 6e6f, 0), {image}, "beyond the extent 3");
  ExpectRefusal(Upsampling(), UpsampleLayer(1, 1, 0), {Image({2, 3}, test::Floats(1, 6))}, " input 0 has dims [2, 3]");
  ExpectRefusal(Upsampling(), UpsampleLayer(1, 3, 1), {byte_image}, " input 0 has dims [1, 2, 2], data type 7");
  Upsampling nearest;
  EXPECT_EQ((std::vector<unsigned char>{1, 1, 1, 2, 2, 2, 3, 3, 3, 4, 4, 4}),
            ValuesOf<unsigned char>(*Run(nearest, UpsampleLayer(1, 3, 0), {byte_image})));
  for (float factor : {0.0f, kNan})
    ExpectRefusal(Pixelshuffle(), ShuffleLayer(factor), {deep}, " an upscale factor of");
  for (float factor : {2.0f, kInfinity}) ExpectRefusal(Pixelshuffle(), ShuffleLayer(factor), {deep}, " 6 channels");
  ExpectRefusal(Pixelshuffle(), ShuffleLayer(1e-3f * 1e-3f), {deep}, " an extent of 6 times");
  auto const zeros = GridLayer(1, 0, false);
  ExpectRefusal(GridSample(), zeros, {image, grid({8})}, " a grid of dims [8]");
  for (Dims const& dims : {Dims{3, 4}, {3, 4, 1}}) {
    ExpectRefusal(GridSample(), zeros, {image, grid(dims)}, " the grid has dims [3, 4");
  }
  ExpectRefusal(GridSample(), zeros, {image}, " input 1 is no CPU tensor");
  ExpectRefusal(GridSample(), GridLayer(1, 1, false), {empty, grid({3, 4, 2})}, "planes of 0 x 3 pixels");
  GridSample sampler;
  EXPECT_EQ(std::vector<float>(12), test::Values(*Run(sampler, zeros, {empty, grid({3, 4, 2})})));
  EXPECT_EQ((Dims{1, 3, 4}), Run(sampler, zeros, {image, grid({3, 4, 3, 1})})->shape.dims) << "longer is served";
  for (auto const& [dims, judged] :
       {std::pair<Dims, int>{{3, 4, 5}, 0}, {{3, 4, 2, 1}, 0}, {{3, 4}, -2}, {{3, 4, 1, 2}, -2}}) {
    EXPECT_EQ(judged, sampler.IsValidInput({image, grid(dims)})) << testing::PrintToString(dims);
  }
  Tensors outputs;
  EXPECT_EQ("[TLN]: ", test::RefusalOf([&] { Upsampling().Forward({image}, outputs, context_); })) << "no name yet";
}

TEST_F(Resampling, ShufflesPixelsBothWays) {
  struct Case {
    float factor;
    std::size_t step;
    Dims deep, wide;  // before and after a shuffle to pixels
  };
  for (Case const& c : {Case{2, 2, {8, 3, 37}, {2, 6, 74}},
                        {3.9f, 3, {18, 2, 5}, {2, 6, 15}},
                        {5, 5, {25, 1, 2}, {1, 5, 10}},
                        {2, 2, {0, 3, 3}, {0, 6, 6}}}) {
    SCOPED_TRACE(c.factor);
    std::vector<std::int16_t> const shorts = Shorts(3, runtime::ElementCount(c.deep));
    std::vector<float> const floats(shorts.begin(), shorts.end());
    std::vector<float> want(floats.size());
    std::size_t const r = c.step, h = c.deep[1], w = c.deep[2];
    for (std::size_t i = 0; i < floats.size(); ++i) {
      std::size_t const ic = i / (h * w), p = ic % (r * r), y = i / w % h, x = i % w;
      want[((ic / (r * r)) * h * r + y * r + p / r) * w * r + x * r + p % r] = floats[i];
    }
    Pixelshuffle_Fallback_CHW_Float_M1 on_floats;
    Pixelshuffle_Fallback_CHW_Int16_M1 on_shorts;
    auto const y = Run(on_floats, ShuffleLayer(c.factor), {Image(c.deep, floats)});
    EXPECT_EQ(c.wide, y->shape.dims);
    EXPECT_EQ(want, test::Values(*y));
    auto const q = Run(on_shorts, ShuffleLayer(c.factor), {Image(c.deep, shorts)});
    EXPECT_EQ(std::vector<std::int16_t>(want.begin(), want.end()), ValuesOf<std::int16_t>(*q));
    auto const back = Run(on_floats, ShuffleLayer(1.0f / static_cast<float>(r)), {y});
    EXPECT_EQ(c.deep, back->shape.dims);
    EXPECT_EQ(floats, test::Values(*back));
    EXPECT_EQ(shorts, ValuesOf<std::int16_t>(*Run(on_shorts, ShuffleLayer(1.0f / static_cast<float>(r)), {q})));
  }
  Pixelshuffle_Fallback_CHW_Float_M1 kernel;
  auto const image = Image({1, 3, 5}, test::Floats(1, 15));
  EXPECT_EQ(test::Values(*image), test::Values(*Run(kernel, ShuffleLayer(1), {image})));
  auto const cut = Run(kernel, ShuffleLayer(0.5f), {image});
  EXPECT_EQ((Dims{4, 1, 2}), cut->shape.dims) << "the last row and column are left out";
  auto const x = test::Values(*image);
  EXPECT_EQ((std::vector<float>{x[0], x[2], x[1], x[3], x[5], x[7], x[6], x[8]}), test::Values(*cut));
}

// One value of grid sampling, as the definition tells it case by case.
float GridSampled(float const* plane, int h, int w, float gx, float gy, runtime::GridSampleInfo const& layer) {
  auto const pixel = [&](int y, int x) { return y < 0 || x < 0 || y >= h || x >= w ? 0.0f : plane[y * w + x]; };
  auto const clamp = [](float f, int n) {
    return std::isnan(f) || f < 0 ? 0.0f : std::min(f, static_cast<float>(n - 1));
  };
  bool const border = layer.padding_mode == 1;
  auto const fw = static_cast<float>(w), fh = static_cast<float>(h);
  if (layer.mode == 0) {
    float fx = std::floor((gx + 1) * 0.5f * fw), fy = std::floor((gy + 1) * 0.5f * fh);
    if (border) fx = clamp(fx, w), fy = clamp(fy, h);
    bool const inside = fx >= 0 && fx < fw && fy >= 0 && fy < fh;
    return inside ? pixel(static_cast<int>(fy), static_cast<int>(fx)) : 0.0f;
  }
  bool const corners = layer.align_corners;
  float fx = corners ? (gx + 1) * 0.5f * (fw - 1) : (gx + 1) * 0.5f * fw - 0.5f;
  float fy = corners ? (gy + 1) * 0.5f * (fh - 1) : (gy + 1) * 0.5f * fh - 0.5f;
  if (border) fx = clamp(fx, w), fy = clamp(fy, h);
  float const low = corners ? 0.0f : -1.0f, more = corners ? -1.0f : 0.0f;
  if (!(fx >= low && fy >= low && fx <= fw + more && fy <= fh + more)) return 0.0f;
  int const ix = static_cast<int>(std::floor(fx)), iy = static_cast<int>(std::floor(fy));
  // A truncated negative position is its floor and one more: the weight is the same, position minus whole part plus 1.
  float const wx = fx < 0 ? fx - std::trunc(fx) + 1 : fx - std::trunc(fx);
  float const wy = fy < 0 ? fy - std::trunc(fy) + 1 : fy - std::trunc(fy);
  int const right = border ? std::min(ix + 1, w - 1) : fx == -1.0f ? -1 : ix + 1;
  int const below = border ? std::min(iy + 1, h - 1) : fy == -1.0f ? -1 : iy + 1;
  float const t0 = pixel(iy, ix), t1 = pixel(iy, right), b0 = pixel(below, ix), b1 = pixel(below, right);
  return (b1 * wx + (1 - wx) * b0) * wy + (1 - wy) * (t1 * wx + t0 * (1 - wx));
}

TEST_F(Resampling, SamplesAtPositionsInsideAtAndBeyondTheBorder) {
  std::vector<float> positions = {-1, 1, 0,     -0.999f, 0.999f,    -1.2f,      1.2f, -1.5f,  1.5f,
                                  -2, 2, -3e9f, 3e9f,    kInfinity, -kInfinity, kNan, 1e-30f, -0.0f};
  for (float value : test::Floats(7, 13)) positions.push_back(1.3f * value);
  auto const n = static_cast<unsigned int>(positions.size());
  std::vector<float> pairs;
  for (float gy : positions)
    for (float gx : positions) pairs.insert(pairs.end(), {gx, gy});
  auto const grid = test::FloatTensor(*context_, {n, n, 2}, TensorShape::FLEXIABLE, pairs);
  for (auto const set : rows::RunnableSets()) {
    rows::ScopedInstructionSet const use(set);
    // 16 planes and more go side by side, those of the last size alone again.
    for (Dims const& dims : {Dims{2, 4, 6}, {1, 1, 1}, {3, 2, 5}, {16, 1, 1}, {37, 4, 7}, {17, 70, 70}}) {
      for (int kind = 0; kind < 8; ++kind) {
        auto const layer = GridLayer(kind & 1, kind >> 1 & 1, kind >> 2 != 0);
        SCOPED_TRACE(testing::Message() << "mode " << layer->mode << ", padding " << layer->padding_mode << ", corners "
                                        << layer->align_corners << ", height " << dims[1]);
        auto x = test::Floats(8, runtime::ElementCount(dims));
        x.back() = kInfinity;  // a corner outside is 0, whatever its weight; one inside counts
        GridSample_Fallback_CHW_Float_M1 kernel;
        auto const y = Run(kernel, layer, {Image(dims, x), grid});
        ASSERT_EQ((Dims{dims[0], n, n}), y->shape.dims);
        std::vector<float> want;
        int const h = static_cast<int>(dims[1]), w = static_cast<int>(dims[2]);
        for (unsigned int c = 0; c < dims[0]; ++c)
          for (std::size_t i = 0; i < pairs.size(); i += 2)
            want.push_back(GridSampled(x.data() + c * dims[1] * dims[2], h, w, pairs[i], pairs[i + 1], *layer));
        test::ExpectSameBits(want, test::Values(*y));
      }
    }
  }
}

TEST_F(Resampling, JudgesParameters) {
  Upsampling2D_Fallback_CHW_Float_M1 on_floats;
  Upsampling2D_Fallback_CHW_Int16_M1 on_shorts;
  GridSample_Fallback_CHW_Float_M1 sampler;
  Pixelshuffle_Fallback_CHW_Float_M1 shuffle;
  EXPECT_FALSE(on_floats.Config(UpsampleLayer(1, 1, 2), nullptr, context_)) << "bicubic";
  EXPECT_FALSE(on_shorts.Config(UpsampleLayer(1, 1, 1), std::make_shared<runtime::InferenceParamActQuant>(), context_));
  for (auto const& [step, accepted] : {std::pair<short, bool>{7, false}, {8, true}, {12, true}, {13, false}})
    EXPECT_EQ(accepted, on_shorts.Config(UpsampleLayer(1, 1, 1), Quant(step), context_)) << step;
  EXPECT_FALSE(sampler.Config(GridLayer(2, 0, false), nullptr, context_));
  EXPECT_FALSE(sampler.Config(GridLayer(1, 2, false), nullptr, context_));
  EXPECT_FALSE(shuffle.Config(ShuffleLayer(-2), nullptr, context_));
  EXPECT_TRUE(shuffle.Config(ShuffleLayer(0), nullptr, context_));
  auto const refusal = [&](auto& kernel, auto const& layer) {
    return test::RefusalOf([&] { kernel.Config(layer, nullptr, context_); });
  };
  EXPECT_EQ("[TLN]: Invalid upsample2d type\n", refusal(on_floats, UpsampleLayer(1, 1, 3)));
  EXPECT_EQ("[TLN]: Invalid gridsample mode\n", refusal(sampler, GridLayer(3, 0, false)));
  EXPECT_EQ("[TLN]: Invalid gridsample padding_mode\n", refusal(sampler, GridLayer(0, 9, false)));
}

}  // namespace
}  // namespace talvo
