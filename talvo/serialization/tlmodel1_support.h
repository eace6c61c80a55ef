// How the records of a first-generation file are read. Internal: not installed.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

#include "talvo/serialization/tlmodel1.h"

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

/// One type of layer. `read` makes the record and reads it from its id to the end of its body.
struct RecordForm {
  unsigned short type;
  unsigned int from_version;
  std::unique_ptr<QZLayerInfo> (*read)(BodyReader& body);
};

/// Null for a type that no file holds.
RecordForm const* FindForm(unsigned short type);

}  // namespace talvo1::support
