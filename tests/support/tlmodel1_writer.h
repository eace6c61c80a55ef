// Writes model files of the first generation, which no tool makes any more, from the reader's own records.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "talvo/serialization/tlmodel1.h"

namespace talvo::test {

/// A record of `type` with these inputs; ids of ten slots are filled up with 65535.
template <class Layer>
Layer OldLayer(unsigned short type, unsigned short id, std::vector<unsigned short> inputs) {
  Layer layer;
  layer.type = type;
  layer.id = id;
  layer.input_count = static_cast<unsigned short>(inputs.size());
  layer.input_ids = std::move(inputs);
  if (type == 10 || type == 11) layer.input_ids.resize(10, 65535);
  if (type == 11) layer.input_shapes.resize(10);
  return layer;
}

/// A shape of `height` and `width` as shares of a base size of 64.
talvo1::QZShape OldShape(unsigned short channels, unsigned int height, unsigned int width);

talvo1::QZTensorDescriptor OldTensor(std::initializer_list<unsigned short> dimensions);

/// `count` values that binary16 holds exactly, from [-1, 1).
std::vector<float> HalfFloats(std::uint32_t seed, std::size_t count);

/// One file: its header at first, then what is added. Areas that nobody reads hold 0xDEAD.
class TLModel1Writer {
 public:
  /// Application type 77, model id 88, base size 64 x 64.
  explicit TLModel1Writer(unsigned int version);

  /// Appends the record as files of this version hold it, whether they may or not.
  void Add(talvo1::QZLayerInfo const& layer);
  void Put(std::initializer_list<unsigned int> numbers_of_16_bits);

  std::string bytes;

 private:
  unsigned int version_;
};

/// A layer of each type that files of a version hold, with ids from 1, each number different where it can be.
std::vector<std::unique_ptr<talvo1::QZLayerInfo>> OneOfEachOldLayer(unsigned int version);

/// Loads the bytes through the throwing door.
bool ReadOldModel(std::string const& bytes, talvo1::QZNetLoader& loader);

}  // namespace talvo::test
