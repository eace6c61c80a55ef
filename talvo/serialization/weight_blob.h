// Weights in their two forms: base64 text of little-endian float32 in memory and in JSON, a count and halves in the
// binary stream.
#pragma once

#include <string>
#include <vector>

#include "talvo/serialization/file_visitors.h"
#include "talvo/utility/export.h"

namespace talvo::runtime {

/// Reads a 64-bit count and that many halves; `text` becomes the base64 text of the floats. Assert: a stream that ends
/// before, found before memory is taken for the count.
TALVO_API void ReadWeightBlob(FILEReader& reader, std::string& text);

/// Writes the count of the floats in `text` and each as half, cut to its precision. One to three bytes behind the last
/// whole float are dropped.
TALVO_API void WriteWeightBlob(FILEWriter& writer, std::string const& text);

/// Visits weights as text or as halves, as the visitor wants them. Assert: a visitor that is no FieldVisitor.
TALVO_API void VisitWeights(Visitor& visitor, std::string* text, char const* key);

/// The same for one text for each layer of a stack; in the stream the count of texts stands in front.
TALVO_API void VisitWeights(Visitor& visitor, std::vector<std::string>* texts, char const* key);

}  // namespace talvo::runtime
