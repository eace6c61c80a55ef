#include "talvo/serialization/file_visitors.h"

#include <sys/stat.h>

#include <algorithm>
#include <iterator>
#include <limits>
#include <typeinfo>

#include "talvo/serialization/field_type_support.h"
#include "talvo/serialization/serializable.h"
#include "talvo/serialization/weight_blob.h"
#include "talvo/utility/file_support.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::runtime {
namespace {

using support::FieldType;
using utility::CloseStream;
using utility::Refuse;

// Up to this many bytes memory is taken before it is known whether the stream holds them.
constexpr std::size_t kTrustedBytes = std::size_t{1} << 16;

std::FILE* Open(char const* path, char const* mode) {
  if (path == nullptr) Refuse("cannot open a file without a path");
  std::FILE* const stream = std::fopen(path, mode);
  if (stream == nullptr) Refuse("cannot open the file %s as \"%s\"", path, mode);
  return stream;
}

}  // namespace

FILEWriter::FILEWriter(char const* path) : FILEWriter(Open(path, "wb"), true) { owned_.reset(stream_, CloseStream()); }

FILEWriter::FILEWriter(std::FILE* stream, bool write_version) : stream_(stream) {
  if (stream == nullptr) Refuse("cant construct FILEWriter object using a NULL ptr.");
  if (write_version) std::fwrite(&_serialization_protocol_version, sizeof _serialization_protocol_version, 1, stream);
}

void FILEWriter::Put(void const* data, std::size_t element_bytes, std::size_t count, std::type_info const& type) {
  if (std::fwrite(data, element_bytes, count, stream_) != count)
    Refuse("failed to write a %s value, error code is %d.\n", type.name(), std::ferror(stream_));
}

void FILEWriter::PutCount(std::size_t count) {
  unsigned long long const wide = count;
  if (std::fwrite(&wide, sizeof wide, 1, stream_) != 1)
    Refuse("failed to write the %s value, error code is %d.\n", typeid(wide).name(), std::ferror(stream_));
}

// A list of numbers or a text.
void FILEWriter::PutElements(void* list, FieldType const& type) {
  support::Elements const elements = type.look(list);
  PutCount(elements.count);
  Put(elements.first, type.element_bytes, elements.count, *type.info);
}

void FILEWriter::VisitField(void* value, FieldType const& type, char const*) {
  if (value == nullptr) Refuse("cannot write a %s value from a null pointer", type.spelled);
  switch (type.form) {
    case FieldType::kNumber:
    case FieldType::kCharacter:
      return Put(value, type.element_bytes, 1, *type.info);
    case FieldType::kNumbers:
    case FieldType::kText:
      return PutElements(value, type);
    case FieldType::kTexts: {
      auto& texts = *static_cast<std::vector<std::string>*>(value);
      PutCount(texts.size());
      for (std::string& text : texts) Visit(&text, nullptr);
      return;
    }
    case FieldType::kRows: {
      auto& rows = *static_cast<std::vector<std::vector<unsigned short>>*>(value);
      PutCount(rows.size());
      for (std::vector<unsigned short>& row : rows) PutElements(&row, type);
      return;
    }
    case FieldType::kRecord:
      return static_cast<Serializable*>(value)->VisitAttr(std::make_shared<FILEWriter>(stream_, false));
    case FieldType::kWeights:
      return WriteWeightBlob(*this, *static_cast<std::string const*>(value));
    case FieldType::kWeightStack: {
      auto const& texts = *static_cast<std::vector<std::string> const*>(value);
      unsigned long long count = texts.size();
      Visit(&count, nullptr);
      for (std::string const& text : texts) WriteWeightBlob(*this, text);
    }
  }
}

FILEReader::FILEReader(char const* path) : stream_(Open(path, "rb")), owned_(stream_, CloseStream()) { ReadVersion(); }

FILEReader::FILEReader(std::FILE* stream, unsigned int version) : stream_(stream) {
  if (stream == nullptr) Refuse("cant construct FILEReader object using a NULL ptr.");
  if (version != 0) {
    _serialization_protocol_version = version;
    return;
  }
  ReadVersion();
  if (_serialization_protocol_version > __SERIALIZATION_PROTOCOL_VERSION__)
    Refuse("_serialization_protocol_version > __SERIALIZATION_PROTOCOL_VERSION__.");
  if (_serialization_protocol_version == 0) Refuse("_serialization_protocol_version is 0, no version of a file.");
}

void FILEReader::ReadVersion() {
  unsigned int version;
  if (std::fread(&version, sizeof version, 1, stream_) == 1) _serialization_protocol_version = version;
}

void FILEReader::Require(bool condition, std::type_info const& type) const {
  if (!condition) Refuse("failed to read a %s value, error code is %d.\n", type.name(), std::ferror(stream_));
}

void FILEReader::Get(void* data, std::size_t element_bytes, std::size_t count, std::type_info const& type) {
  Require(std::fread(data, element_bytes, count, stream_) == count, type);
}

unsigned long long FILEReader::GetCount() {
  unsigned long long count;
  Get(&count, sizeof count, 1, typeid(count));
  return count;
}

// Whether the stream may hold `count` elements; `known` tells that it does, and only a regular file can tell.
bool FILEReader::EnoughLeft(unsigned long long count, std::size_t element_bytes, bool* known) const {
  *known = count <= kTrustedBytes / element_bytes;
  struct stat status;
  if (*known || fstat(fileno(stream_), &status) != 0 || !S_ISREG(status.st_mode)) return true;
  off_t const position = ftello(stream_);
  if (position < 0) return true;
  *known = true;
  return position <= status.st_size &&
         count <= static_cast<unsigned long long>(status.st_size - position) / element_bytes;
}

// Passes over elements of a regular file, which EnoughLeft has let pass; false: they are to be read. Short ones are,
// since EnoughLeft trusts their count.
bool FILEReader::Skims(unsigned long long count, std::size_t element_bytes) {
  if (!skims_weights_ || count <= kTrustedBytes / element_bytes) return false;
  struct stat status;
  if (fstat(fileno(stream_), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  return fseeko(stream_, static_cast<off_t>(count * element_bytes), SEEK_CUR) == 0;
}

void FILEReader::GetScalar(void* value, FieldType const& type) {
  Require(std::fread(value, type.element_bytes, 1, stream_) == 1, *type.info);
  if (type.number != support::Number::kBool) return;
  auto& byte = *static_cast<unsigned char*>(value);  // others than 0 and 1 are no bool
  byte = byte != 0;
}

void FILEReader::GetElements(void* list, FieldType const& type) {
  std::size_t const element_bytes = type.element_bytes;
  unsigned long long const count = GetCount();
  bool known;
  Require(EnoughLeft(count, element_bytes, &known), *type.info);
  if (!known || count == 0) type.resize(list, 0);
  // A pipe does not tell its length: memory doubles with what really came, and a count that lies costs no more than it
  // sent.
  for (std::size_t done = 0; done < count;) {
    unsigned long long const piece = std::max(done, kTrustedBytes / element_bytes);
    std::size_t const step = static_cast<std::size_t>(known ? count : std::min(count - done, piece));
    auto* const first = static_cast<unsigned char*>(type.resize(list, done + step).first);
    Get(first + done * element_bytes, element_bytes, step, *type.info);
    done += step;
  }
}

void FILEReader::Read(std::vector<std::string>* texts) {
  unsigned long long const count = GetCount();
  texts->clear();
  bool known;
  if (EnoughLeft(count, sizeof count, &known) && known) texts->reserve(static_cast<std::size_t>(count));
  for (unsigned long long i = 0; i < count; ++i) {
    Visit(&texts->emplace_back(), nullptr);
  }
}

// The stream's lists follow as many others as there are of them, which are empty in a fresh field; empty ones are
// dropped. Files depend on it.
void FILEReader::Read(std::vector<std::vector<unsigned short>>* rows, FieldType const& type) {
  unsigned long long const count = GetCount();
  std::vector<std::vector<unsigned short>> filled;
  for (unsigned long long i = 0; i < count; ++i) {
    std::vector<unsigned short> row;
    GetElements(&row, type);
    if (!row.empty()) filled.push_back(std::move(row));
  }
  rows->reserve(static_cast<std::size_t>(count) + filled.size());
  rows->resize(static_cast<std::size_t>(count));
  rows->insert(rows->end(), std::make_move_iterator(filled.begin()), std::make_move_iterator(filled.end()));
}

void FILEReader::Read(Serializable* record) {
  auto const nested = std::make_shared<FILEReader>(stream_, _serialization_protocol_version);
  nested->skims_weights_ = skims_weights_;
  record->VisitAttr(nested);
}

std::shared_ptr<Visitor> support::SkimmingReader(std::FILE* stream) {
  auto reader = std::make_shared<FILEReader>(stream, 0);
  reader->skims_weights_ = true;
  return reader;
}

void FILEReader::VisitField(void* value, FieldType const& type, char const*) {
  if (value == nullptr) Refuse("cannot read a %s value to a null pointer", type.spelled);
  switch (type.form) {
    case FieldType::kNumber:
    case FieldType::kCharacter:
      return GetScalar(value, type);
    case FieldType::kNumbers:
    case FieldType::kText:
      return GetElements(value, type);
    case FieldType::kTexts:
      return Read(static_cast<std::vector<std::string>*>(value));
    case FieldType::kRows:
      return Read(static_cast<std::vector<std::vector<unsigned short>>*>(value), type);
    case FieldType::kRecord:
      return Read(static_cast<Serializable*>(value));
    case FieldType::kWeights:
      return ReadWeightBlob(*this, *static_cast<std::string*>(value));
    case FieldType::kWeightStack: {
      auto& texts = *static_cast<std::vector<std::string>*>(value);
      texts.clear();
      unsigned long long left;
      for (Visit(&left, nullptr); left > 0; --left) {
        std::string text;
        ReadWeightBlob(*this, text);
        texts.push_back(std::move(text));
      }
    }
  }
}

}  // namespace talvo::runtime
