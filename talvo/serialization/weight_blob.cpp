#include "talvo/serialization/weight_blob.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <typeinfo>

#include "talvo/kernel/rows/conversion_rows.h"
#include "talvo/serialization/field_type_support.h"
#include "talvo/utility/base64.h"
#include "talvo/utility/base64_support.h"
#include "talvo/utility/half.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::runtime {
namespace {

using half_float::half;
using support::FieldType;
using support::Number;

// Values that stay in the cache from the stream to the text; a multiple of 3, so that the texts of pieces join without
// padding.
constexpr std::size_t kPiece = 12288;

// What weights become is the visitor's choice.
void Hand(Visitor& visitor, void* weights, FieldType const& type, char const* key) {
  auto* const taker = dynamic_cast<FieldVisitor*>(&visitor);
  if (taker == nullptr) utility::Refuse("Not Implemented.");
  taker->VisitField(weights, type, key);
}

}  // namespace

void ReadWeightBlob(FILEReader& reader, std::string& text) {
  unsigned long long const count = reader.GetCount();
  bool known;
  reader.Require(reader.EnoughLeft(count, sizeof(half), &known), typeid(half));
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
    reader.Get(halves.data(), sizeof(half), piece, typeid(half));
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
  std::vector<float> floats(std::min(count, kPiece));
  std::vector<std::uint16_t> halves(floats.size());
  for (std::size_t done = 0; done < count;) {
    std::size_t const piece = std::min(count - done, kPiece);
    std::memcpy(floats.data(), bytes.data() + done * sizeof(float), piece * sizeof(float));
    kernel::rows::FloatToHalfRow(floats.data(), piece, halves.data());
    writer.Put(halves.data(), sizeof(half), piece, typeid(half));
    done += piece;
  }
}

void VisitWeights(Visitor& visitor, std::string* text, char const* key) {
  static constexpr FieldType kType = {FieldType::kWeights, Number::kHalf, sizeof(half), "std::string",
                                      &typeid(half),       nullptr,       nullptr};
  Hand(visitor, text, kType, key);
}

void VisitWeights(Visitor& visitor, std::vector<std::string>* texts, char const* key) {
  static constexpr FieldType kType = {FieldType::kWeightStack, Number::kHalf, sizeof(half), "std::vector<std::string>",
                                      &typeid(half),           nullptr,       nullptr};
  Hand(visitor, texts, kType, key);
}

}  // namespace talvo::runtime
