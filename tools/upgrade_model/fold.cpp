#include "tools/upgrade_model/fold.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

namespace upgrade_model {
namespace {

using namespace talvo::runtime;
using half_float::half;

struct Channel {
  double factor, mean, shift;
};

std::vector<float> Decoded(std::string const& text) {
  std::string const bytes = Base64Decode(text);
  std::vector<float> values(bytes.size() / sizeof(float));
  if (!values.empty()) std::memcpy(values.data(), bytes.data(), values.size() * sizeof(float));
  return values;
}

std::string Encoded(std::vector<float> const& values) {
  return Base64Encode(reinterpret_cast<unsigned char const*>(values.data()), values.size() * sizeof(float));
}

// half cuts; the neighbour away from zero may be nearer. Ties stay with the cut.
float Rounded(double value, std::string const& layer) {
  half const cut(static_cast<float>(value));
  half const next = half::FromBits(static_cast<std::uint16_t>(cut.Bits() + 1));
  float const result = std::abs(next - value) < std::abs(value - cut) ? next : cut;
  if (!std::isfinite(result))
    throw std::runtime_error(layer + ": the batch normalisation cannot be folded, a result is too large or no number");
  return result;
}

std::vector<Channel> Channels(BatchNorm2dInfo const& normalisation, unsigned short out_channels) {
  std::vector<float> const scale = Decoded(normalisation.scale), shift = Decoded(normalisation.shift);
  std::vector<float> const variance = Decoded(normalisation.variance), mean = Decoded(normalisation.mean);
  if (scale.empty() || scale.size() != out_channels)
    throw std::runtime_error(normalisation.id + ": normalises " + std::to_string(scale.size()) +
                             " channels, the convolution in front of it makes " + std::to_string(out_channels));
  std::vector<Channel> channels;
  for (std::size_t i = 0; i < scale.size(); ++i)
    channels.push_back({scale[i] / std::sqrt(double{variance[i]} + double{normalisation.eps}), mean[i], shift[i]});
  return channels;
}

// The weights of one output channel stand in rows of `row` values; the channels follow each other and start over.
template <class Convolution>
void Fold(std::vector<Channel> const& channels, std::size_t row, std::string const& layer, Convolution& convolution) {
  std::vector<float> weight = Decoded(convolution.weight), bias = Decoded(convolution.bias);
  for (std::size_t i = 0; i < weight.size(); ++i)
    weight[i] = Rounded(channels[i / row % channels.size()].factor * weight[i], layer);
  for (std::size_t i = 0; i < channels.size(); ++i)
    bias[i] = Rounded(channels[i].factor * (bias[i] - channels[i].mean) + channels[i].shift, layer);
  convolution.weight = Encoded(weight);
  convolution.bias = Encoded(bias);
  convolution.if_bias = true;
}

// False for a layer that is no convolution.
bool FoldInto(LayerInfo& layer, BatchNorm2dInfo const& normalisation) {
  if (auto* const direct = dynamic_cast<Conv2dInfo*>(&layer)) {
    auto const channels = Channels(normalisation, direct->out_channels);  // at least one, so there are groups
    std::size_t const row = std::size_t{direct->kernel_x} * direct->kernel_y * (direct->in_channels / direct->groups);
    Fold(channels, row, normalisation.id, *direct);
    return true;
  }
  if (auto* const transposed = dynamic_cast<ConvTranspose2dInfo*>(&layer)) {
    std::size_t const row = std::size_t{transposed->kernel_x} * transposed->kernel_y;
    Fold(Channels(normalisation, transposed->out_channels), row, normalisation.id, *transposed);
    return true;
  }
  return false;
}

// The convolution's record under the normalisation's id, and its own id no more.
void Replace(std::string const& normalisation_id, std::string const& convolution_id, TLModelInfo& model) {
  std::shared_ptr<LayerInfo> const convolution = model.layers.at(convolution_id);
  convolution->id = normalisation_id;
  convolution->read_count = model.layers.at(normalisation_id)->read_count;
  model.layers[normalisation_id] = convolution;
  model.layers.erase(convolution_id);
  for (std::size_t i = model.squential_ids.size(); i-- > 0;) {
    if (model.squential_ids[i] == normalisation_id) model.squential_types[i] = convolution->type;
    if (model.squential_ids[i] != convolution_id) continue;
    model.squential_ids.erase(model.squential_ids.begin() + static_cast<std::ptrdiff_t>(i));
    model.squential_types.erase(model.squential_types.begin() + static_cast<std::ptrdiff_t>(i));
  }
}

}  // namespace

std::map<std::string, std::string> FoldBatchNormalisations(TLModelInfo& model, TLModelCfg const* config) {
  std::map<std::string, std::string> folded;
  for (std::string const& id : std::vector<std::string>(model.squential_ids)) {
    auto const record = model.layers.find(id);
    auto const normalisation =
        std::dynamic_pointer_cast<BatchNorm2dInfo>(record != model.layers.end() ? record->second : nullptr);
    if (normalisation == nullptr) continue;
    std::string const input = normalisation->input_ids.at(0);
    auto const source = model.layers.find(input);
    if (source == model.layers.end() || source->second->read_count != 1 || folded.count(input) != 0) continue;
    if (config != nullptr && config->layers.count(id) != 0 && config->layers.count(input) != 0) continue;
    if (!FoldInto(*source->second, *normalisation)) continue;
    Replace(id, input, model);
    folded[id] = input;
  }
  return folded;
}

}  // namespace upgrade_model
