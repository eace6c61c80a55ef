#include <algorithm>

#include "talvo/serialization/tlmodel1_weights_support.h"
#include "talvo/utility/base64.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::runtime::support {
namespace {

// Turns [outer, place, inner] to [outer, inner, place]; `from` and `to` do not overlap.
void SwapInner(float const* from, std::size_t outer, std::size_t places, std::size_t inner, float* to) {
  for (std::size_t o = 0; o < outer; ++o, from += places * inner, to += places * inner) {
    for (std::size_t p = 0; p < places; ++p) {
      for (std::size_t i = 0; i < inner; ++i) to[i * places + p] = from[p * inner + i];
    }
  }
}

std::size_t Places(talvo1::QZConvolution const& convolution) {
  return std::size_t{convolution.kernel_x} * convolution.kernel_y;
}

}  // namespace

std::string WeightText(std::vector<float> const& values, std::size_t count) {
  std::vector<float> blob(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(std::min(count, values.size())));
  blob.resize(count);
  return Base64Encode(reinterpret_cast<unsigned char const*>(blob.data()), count * sizeof(float));
}

std::string WeightText(std::vector<float> const& values) { return WeightText(values, values.size()); }

std::string ConvolutionWeight(talvo1::QZLayerInfo_Conv2D const& layer) {
  std::vector<float> blob(layer.weights.size());
  std::size_t const group_outputs = layer.output_shapes[0].channels / layer.groups;
  std::size_t const group_inputs = layer.input_shapes[0].channels / layer.groups;
  // Groups follow each other without a gap, so all outputs are walked as one row of blocks.
  if (!blob.empty())
    SwapInner(layer.weights.data(), layer.groups * group_outputs, Places(layer), group_inputs, blob.data());
  return WeightText(blob);
}

std::string TransposedConvolutionWeight(talvo1::QZLayerInfo_Conv2DTranspose const& layer) {
  std::size_t const in = layer.input_shapes[0].channels, out = layer.output_shapes[0].channels;
  std::size_t const places = Places(layer), count = in * out * places;
  if (layer.weights.size() < count)
    utility::Refuse(
        "first-generation layer %u: transposed convolution holds %zu weights, shape [%zu, %u, %u, %zu] needs %zu",
        layer.id, layer.weights.size(), out, layer.kernel_y, layer.kernel_x, in, count);
  std::vector<float> blob(count);
  float const* from = layer.weights.data();
  for (std::size_t o = 0; o < out && count > 0; ++o) {
    for (std::size_t p = 0; p < places; ++p) {
      for (std::size_t i = 0; i < in; ++i) blob[(i * out + o) * places + p] = *from++;
    }
  }
  return WeightText(blob);
}

std::string DepthWiseWeight(talvo1::QZLayerInfo_DepthWiseConv2D const& layer) {
  std::size_t const channels = layer.input_shapes[0].channels, places = Places(layer);
  std::vector<float> blob(channels * places);
  if (!blob.empty()) SwapInner(layer.weights.data(), 1, places, channels, blob.data());
  return WeightText(blob);
}

}  // namespace talvo::runtime::support
