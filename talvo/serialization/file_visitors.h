// The two visitors of the binary stream: a version word, then the values of the walk without keys, tags or padding, in
// the byte order of the processor. Texts and vectors stand behind a 64-bit count; a nested record stands inline.
#pragma once

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>
#include <typeinfo>

#include "talvo/serialization/visitor.h"
#include "talvo/utility/export.h"

namespace talvo::runtime {

namespace support {
std::shared_ptr<Visitor> SkimmingReader(std::FILE* stream);
}  // namespace support

/// Writes records. Assert: bytes that the stream does not take, a null record.
class TALVO_API FILEWriter : public FieldVisitor {
 public:
  /// Opens the file and writes the version word; closes it when it goes. Assert: a path that cannot be opened.
  explicit FILEWriter(char const* path);
  /// Borrows the stream, which must not be null.
  FILEWriter(std::FILE* stream, bool write_version);

 private:
  friend TALVO_API void WriteWeightBlob(FILEWriter& writer, std::string const& text);

  void VisitField(void* value, support::FieldType const& type, char const* key) override;
  TALVO_INTERNAL void Put(void const* data, std::size_t element_bytes, std::size_t count, std::type_info const& type);
  TALVO_INTERNAL void PutCount(std::size_t count);
  TALVO_INTERNAL void PutElements(void* list, support::FieldType const& type);

  std::FILE* stream_;
  std::shared_ptr<std::FILE> owned_;  // empty where the stream is borrowed
};

/// Reads records. What it reads replaces what a field held, but for lists of lists. Assert: a stream that ends early, a
/// count larger than what is left, which is refused before memory is taken for it.
class TALVO_API FILEReader : public FieldVisitor {
 public:
  /// Opens the file and reads the version word, whatever it is; closes it when it goes. Assert: a path that cannot be
  /// opened.
  explicit FILEReader(char const* path);
  /// Borrows the stream. With `version` 0 it reads the version word, which leaves the newest version where the stream
  /// is shorter than that; otherwise it takes `version` and reads nothing. Assert: a null stream, a version word that
  /// is 0 or newer than this library.
  FILEReader(std::FILE* stream, unsigned int version);

 private:
  friend TALVO_API void ReadWeightBlob(FILEReader& reader, std::string& text);
  friend std::shared_ptr<Visitor> support::SkimmingReader(std::FILE* stream);

  void VisitField(void* value, support::FieldType const& type, char const* key) override;
  TALVO_INTERNAL void ReadVersion();
  TALVO_INTERNAL void Get(void* data, std::size_t element_bytes, std::size_t count, std::type_info const& type);
  TALVO_INTERNAL void Require(bool condition, std::type_info const& type) const;
  TALVO_INTERNAL unsigned long long GetCount();
  TALVO_INTERNAL bool EnoughLeft(unsigned long long count, std::size_t element_bytes, bool* known) const;
  TALVO_INTERNAL bool Skims(unsigned long long count, std::size_t element_bytes);
  TALVO_INTERNAL void GetScalar(void* value, support::FieldType const& type);
  TALVO_INTERNAL void GetElements(void* list, support::FieldType const& type);
  TALVO_INTERNAL void Read(std::vector<std::string>* texts);
  TALVO_INTERNAL void Read(std::vector<std::vector<unsigned short>>* rows, support::FieldType const& type);
  TALVO_INTERNAL void Read(Serializable* record);

  std::FILE* stream_;
  std::shared_ptr<std::FILE> owned_;  // empty where the stream is borrowed
  bool skims_weights_ = false;        // leaves long weights out, once it is known that the stream holds them
};

}  // namespace talvo::runtime
