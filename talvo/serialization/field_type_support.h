// What the library's visitors know of the type of a field, as a value: one body serves all 25. Internal.
#pragma once

#include <cstddef>
#include <typeinfo>

#include "talvo/serialization/visitor.h"

namespace talvo::runtime::support {

enum class Number : unsigned char {
  kFloat,
  kHalf,
  kDouble,
  kInt8,
  kUInt8,
  kInt16,
  kUInt16,
  kInt32,
  kUInt32,
  kInt64,
  kUInt64,
  kBool
};

/// The elements of a list; nothing once the list is resized.
struct Elements {
  void* first;
  std::size_t count, capacity;
};

struct FieldType {
  enum Form : unsigned char { kNumber, kCharacter, kNumbers, kText, kTexts, kRows, kRecord, kWeights, kWeightStack };

  Form form;
  Number number;                // a number itself, or those of a list or of rows
  unsigned char element_bytes;  // of a number or a character, or of those in a list, a text or rows
  char const* spelled;
  std::type_info const* info;
  /// Of a list of numbers or a text, and of one of the rows: what it holds, and the same once it has `count` elements.
  /// Memory is taken for so many and no more.
  Elements (*look)(void* list);
  Elements (*resize)(void* list, std::size_t count);
};

}  // namespace talvo::runtime::support
