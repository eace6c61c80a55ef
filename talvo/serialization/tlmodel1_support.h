// The kinds of layers in first-generation files, and how their records are read. Internal: not installed.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

#include "talvo/serialization/tlmodel1.h"

/// One row for each kind of layer: its number, the first version whose files hold it, and the NAME under which it is
/// printed and that its class QZLayerInfo_NAME ends in.
#define TALVO1_FOR_EACH_KIND(KIND)          \
  KIND(0, 10000, Input)                     \
  KIND(1, 10000, Conv2D)                    \
  KIND(2, 10000, Conv2DTranspose)           \
  KIND(3, 10000, DepthWiseConv2D)           \
  KIND(4, 10000, PixelShuffle)              \
  KIND(5, 10000, Pooling)                   \
  KIND(6, 10000, InstanceNormalization)     \
  KIND(7, 10000, BatchNormalization)        \
  KIND(8, 10000, Activation)                \
  KIND(9, 10000, Region)                    \
  KIND(10, 10000, ElementWiseOperator)      \
  KIND(11, 10000, Concatenate)              \
  KIND(14, 10000, Upsampling)               \
  KIND(15, 10000, ChannelShuffle)           \
  KIND(16, 10003, DepthWiseConv2DTranspose) \
  KIND(17, 10008, TensorInput)              \
  KIND(18, 10008, TensorReshape)            \
  KIND(19, 10008, TensorTranspose)          \
  KIND(20, 10008, TensorSqueeze)            \
  KIND(21, 10008, FullConnection)           \
  KIND(22, 10008, LSTM)                     \
  KIND(26, 10011, TensorActivation)

/// Throws LoadFailure with the expression's own words.
#define TALVO1_REQUIRE(expression) \
  (static_cast<bool>(expression) ? void(0) : throw LoadFailure(#expression, __func__, __FILE__, __LINE__))

namespace talvo1::support {

/// Reads the fields of records. A file that ends too early fails as the check of the record's end would.
class BodyReader {
 public:
  BodyReader(std::FILE* stream, unsigned int version) : stream_(stream), version_(version) {}

  unsigned int Version() const { return version_; }
  /// False at the end of the file.
  bool Try(unsigned short* value);
  unsigned short Next();
  half_float::half NextHalf();
  QZShape NextShape();
  QZTensorDescriptor NextTensor();
  void Skip(unsigned int values);
  std::vector<half_float::half> Halves(std::uint64_t count);
  /// The same, widened.
  std::vector<float> Floats(std::uint64_t count);

 private:
  bool MayHold(std::uint64_t halves) const;

  std::FILE* stream_;
  unsigned int version_;
};

std::vector<float> Widened(half_float::half const* values, std::size_t count);

/// One kind of layer. `read` makes the record and reads it from its id to the end of its body.
struct RecordForm {
  unsigned short type;
  unsigned int from_version;
  char const* name;
  std::unique_ptr<QZLayerInfo> (*read)(BodyReader& body);
};

/// Null for a type that no file holds.
RecordForm const* FindForm(unsigned short type);

}  // namespace talvo1::support
