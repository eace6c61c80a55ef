#include "talvo/serialization/weight_blob.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <typeinfo>

#include "talvo/kernel/rows/conversion_rows.h"
#include "talvo/serialization/json_visitors.h"
#include "talvo/utility/base64.h"
#include "talvo/utility/base64_support.h"
#include "talvo/utility/half.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::runtime {
namespace {

using half_float::half;

// Values that stay in the cache from the stream to the text; a multiple of 3, so that the texts of pieces join without
// padding.
constexpr std::size_t kPiece = 12288;

}  // namespace

void ReadWeightBlob(FILEReader& reader, std::string& text) {
  unsigned long long const count = reader.GetCount();
  char const* const type_name = typeid(half).name();
  bool known;
  reader.Require(reader.EnoughLeft(count, sizeof(half), &known), type_name);
  // The record keeps weights as base64 of floats, the stream as halves: they are turned piece by piece, so that no
  // third copy of all of them stands in memory.
  std::string result;
  if (reader.Skims(count, sizeof(half))) return text.swap(result);
  if (known) result.reserve(support::EncodedSize(static_cast<std::size_t>(count) * sizeof(float)));
  std::vector<std::uint16_t> halves(static_cast<std::size_t>(std::min<unsigned long long>(count, kPiece)));
  std::vector<float> floats(halves.size());
  for (unsigned long long left = count; left > 0;) {
    std::size_t const piece = static_cast<std::size_t>(std::min<unsigned long long>(left, kPiece));
    std::size_t const bytes = piece * sizeof(float), done = result.size();
    reader.Get(halves.data(), sizeof(half), piece, type_name);
    kernel::rows::HalfToFloatRow(halves.data(), piece, floats.data());
    result.resize(done + support::EncodedSize(bytes));
    support::EncodeBase64(floats.data(), bytes, result.data() + done);
    left -= piece;
  }
  text = std::move(result);
}

void WriteWeightBlob(FILEWriter& writer, std::string const& text) {
  std::string const bytes = Base64Decode(text);
  std::size_t const count = bytes.size() / sizeof(float);
  unsigned long long written_count = count;
  writer.Visit(&written_count, nullptr);
  std::vector<half> halves(std::min(count, kPiece));
  for (std::size_t done = 0; done < count;) {
    std::size_t const piece = std::min(count - done, kPiece);
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
  if (auto* const getter = dynamic_cast<JSONNodeGetter*>(&visitor))
    return getter->skims_weights_ ? getter->Skim(key) : getter->Visit(text, key);
  if (dynamic_cast<JSONNodeSetter*>(&visitor) != nullptr) return visitor.Visit(text, key);
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
