// Writes model files of the first generation, which no tool makes any more: records laid by hand, or the reader's own.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "talvo/serialization/tlmodel1.h"
#include "talvo/serialization/tlmodel1_support.h"

namespace talvo::test {

/// The number of a record's type.
template <class Layer>
constexpr unsigned short kOldType = 65535;
#define TALVO1_TYPE(type, from_version, name) \
  template <>                                 \
  inline constexpr unsigned short kOldType<talvo1::QZLayerInfo_##name> = type;
TALVO1_FOR_EACH_KIND(TALVO1_TYPE)
#undef TALVO1_TYPE

/// A shape of these extents, as shares of the base height of 128 and the base width of 64.
talvo1::QZShape OldShape(unsigned short channels, unsigned int height, unsigned int width);

talvo1::QZTensorDescriptor OldTensor(std::initializer_list<unsigned short> dimensions);

/// `count` values that binary16 holds exactly, from [-1, 1).
std::vector<float> HalfFloats(std::uint32_t seed, std::size_t count);

/// A record with these inputs, and planes of 8 x 8 of these channels on both sides. Ids of ten slots are filled up with
/// 65535.
template <class Layer>
Layer OldLayer(unsigned short id, std::vector<unsigned short> inputs, unsigned short in = 4, unsigned short out = 4) {
  Layer layer;
  layer.type = kOldType<Layer>;
  layer.id = id;
  layer.input_count = static_cast<unsigned short>(inputs.size());
  layer.input_ids = std::move(inputs);
  bool const has_slots = layer.type == 10 || layer.type == 11;
  if (has_slots) layer.input_ids.resize(10, 65535);
  layer.input_shapes.assign(has_slots ? 10 : 1, OldShape(in, 8, 8));
  layer.output_shapes = {OldShape(out, 8, 8)};
  return layer;
}

/// A convolution of `width` x `height` taps, stride 1, with `weights` seeded values and a bias, which if_bias leaves
/// out.
template <class Layer>
Layer OldConvolution(unsigned short id, unsigned short input, unsigned short in, unsigned short out,
                     unsigned short width, unsigned short height, std::size_t weights) {
  auto layer = OldLayer<Layer>(id, {input}, in, out);
  layer.kernel_x = width;
  layer.kernel_y = height;
  layer.stride_x = layer.stride_y = 1;
  layer.weights = HalfFloats(id, weights);
  layer.bias = HalfFloats(id + 100u, out);
  return layer;
}

/// One file: its header at first, then what is added. Areas that nobody reads hold 0xDEAD.
class TLModel1Writer {
 public:
  /// Application type 77, model id 88, base height 128, base width 64.
  explicit TLModel1Writer(unsigned int version);

  /// Appends the record as files of this version hold it, whether they may or not.
  void Add(talvo1::QZLayerInfo const& layer);

  // A record laid by hand: its head and type; numbers of 16 bits; some that differ from all before; its end.
  TLModel1Writer& Start(unsigned int type) { return Put({0x5555, type}); }
  TLModel1Writer& Put(std::initializer_list<unsigned int> numbers);
  TLModel1Writer& Any(int count);
  TLModel1Writer& Unread(int count);
  void End();

  std::string bytes;
  std::vector<std::size_t> ends = {1000};  // of the header and of each record

 private:
  unsigned int version_, next_ = 100;
};

/// A file with a record of each kind that its version holds, laid by hand.
TLModel1Writer EveryOldLayer(unsigned int version);

/// Loads the bytes through the throwing door.
bool ReadOldModel(std::string const& bytes, talvo1::QZNetLoader& loader);

}  // namespace talvo::test
