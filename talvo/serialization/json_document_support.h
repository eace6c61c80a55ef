// A parsed JSON text. Internal: not installed. Stands behind rapidjson_include.h.
#pragma once

#include <rapidjson/fwd.h>

#include <string>
#include <utility>

#include "talvo/serialization/json_visitors.h"
#include "talvo/utility/log.h"

namespace talvo::runtime::support {

/// Owns the text, in which the values stand, and the document. Its depth costs no stack.
class JSONText {
 public:
  /// A text that does not parse gives a root of null.
  explicit JSONText(std::string text)
      : text_(std::move(text)), allocator_(kChunkBytes), document_(&allocator_, kStackBytes) {
    text_.append(kPaddingBytes, '\0');
    document_.ParseInsitu<rapidjson::kParseIterativeFlag>(text_.data());
  }
  JSONText(JSONText const&) = delete;
  JSONText& operator=(JSONText const&) = delete;

  rapidjson::Value const& Root() const { return document_; }

 private:
  static constexpr std::size_t kChunkBytes = 65536, kStackBytes = 1024;
  static constexpr std::size_t kPaddingBytes = 16;  // the parser looks at whole vectors of characters

  std::string text_;
  JSONAllocator allocator_;
  rapidjson::Document document_;
};

}  // namespace talvo::runtime::support
