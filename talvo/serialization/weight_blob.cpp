#include "talvo/serialization/weight_blob.h"

#include <algorithm>
#include <cstring>
#include <typeinfo>

#include "talvo/serialization/json_visitors.h"
#include "talvo/utility/base64.h"
#include "talvo/utility/half.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::runtime {
namespace {

using half_float::half;

constexpr std::size_t kPiece = 12288;  // values; a multiple of 3, so that the texts of pieces join without padding

}  // namespace

void ReadWeightBlob(FILEReader& reader, std::string& text) {
  unsigned long long const count = reader.GetCount();
  bool known;
  reader.Require(reader.EnoughLeft(count, sizeof(half), &known), typeid(half).name());
  // The record keeps weights as base64 of floats, the stream as halves: they are turned piece by piece, so that no
  // third copy of all of them stands in memory.
  std::string result;
  if (known) result.reserve((static_cast<std::size_t>(count) * sizeof(float) + 2) / 3 * 4);
  std::vector<half> halves(std::min<unsigned long long>(count, kPiece));
  std::vector<float> floats(halves.size());
  for (unsigned long long left = count; left > 0;) {
    std::size_t const piece = static_cast<std::size_t>(std::min<unsigned long long>(left, kPiece));
    reader.Get(halves.data(), sizeof(half), piece, typeid(half).name());
    for (std::size_t i = 0; i < piece; ++i) floats[i] = halves[i];
    result += Base64Encode(reinterpret_cast<unsigned char const*>(floats.data()), piece * sizeof(float));
    left -= piece;
  }
  text = std::move(result);
}

void WriteWeightBlob(FILEWriter& writer, std::string const& text) {
  std::string const bytes = Base64Decode(text);
  unsigned long long count = bytes.size() / sizeof(float);
  writer.Visit(&count, nullptr);
  std::vector<half> halves(std::min<unsigned long long>(count, kPiece));
  for (std::size_t done = 0; done < count;) {
    std::size_t const piece = std::min<std::size_t>(count - done, kPiece);
    for (std::size_t i = 0; i < piece; ++i) {
      float value;
      std::memcpy(&value, bytes.data() + (done + i) * sizeof value, sizeof value);
      halves[i] = half(value);
    }
    writer.Put(halves.data(), sizeof(half), piece, typeid(half).name());
    done += piece;
  }
}

void VisitWeights(Visitor& visitor, std::string* text, char const* key) {
  if (dynamic_cast<JSONNodeSetter*>(&visitor) != nullptr || dynamic_cast<JSONNodeGetter*>(&visitor) != nullptr)
    return visitor.Visit(text, key);
  if (auto* const reader = dynamic_cast<FILEReader*>(&visitor)) return ReadWeightBlob(*reader, *text);
  if (auto* const writer = dynamic_cast<FILEWriter*>(&visitor)) return WriteWeightBlob(*writer, *text);
  utility::Refuse("Not Implemented.");
}

void VisitWeights(Visitor& visitor, std::vector<std::string>* texts, char const* key) {
  if (dynamic_cast<JSONNodeSetter*>(&visitor) != nullptr || dynamic_cast<JSONNodeGetter*>(&visitor) != nullptr)
    return visitor.Visit(texts, key);
  unsigned long long count = texts->size();
  if (auto* const reader = dynamic_cast<FILEReader*>(&visitor)) {
    texts->clear();
    reader->Visit(&count, nullptr);
    for (unsigned long long i = 0; i < count; ++i) {
      std::string text;
      ReadWeightBlob(*reader, text);
      texts->push_back(std::move(text));
    }
  } else if (auto* const writer = dynamic_cast<FILEWriter*>(&visitor)) {
    writer->Visit(&count, nullptr);
    for (std::string const& text : *texts) WriteWeightBlob(*writer, text);
  } else {
    utility::Refuse("Not Implemented.");
  }
}

}  // namespace talvo::runtime
