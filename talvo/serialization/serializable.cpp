#include "talvo/serialization/rapidjson_support.h"

#include "talvo/serialization/serializable.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string_view>
#include <typeinfo>

#include "talvo/serialization/file_visitors.h"
#include "talvo/serialization/json_text_support.h"
#include "talvo/serialization/json_visitors.h"
#include "talvo/serialization/record_support.h"
#include "talvo/utility/file_support.h"
#include "talvo/utility/log.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::runtime {
namespace {

using utility::Refuse;
using utility::Stream;

// The values stand before the file is touched.
void WriteJSON(Serializable* record, char const* path) {
  JSONAllocator allocator(65536);
  rapidjson::Value root(rapidjson::kObjectType);
  record->VisitAttr(std::make_shared<JSONNodeSetter>(root, allocator, true));
  std::ofstream stream(path, std::ios::binary);
  // The interface's own: a path that cannot be opened is passed over in silence. The text stands already, so that a
  // number that JSON cannot hold leaves an old file as it was.
  if (!stream.is_open()) return;
  std::size_t const bytes = support::WritePrettyJSON(root, stream);
  if (!stream.flush().good()) Refuse("failed to write the file %s: %zu bytes", path, bytes);
}

bool ReadBinary(Serializable* record, char const* path, bool skims_weights) {
  Stream const stream(std::fopen(path, "rb"));
  if (stream == nullptr) {
    utility::Log(16, "Failed to open model file, file path: %s.", path);
    return false;
  }
  if (skims_weights)
    record->VisitAttr(support::SkimmingReader(stream.get()));
  else
    record->VisitAttr(std::make_shared<FILEReader>(stream.get(), 0));
  return true;
}

bool Read(Serializable* record, char const* path, std::string_view type, bool skims_weights) {
  if (type == "json") {
    support::ReadRecord(support::JSONText(utility::ReadJsonFileText(path)), record, nullptr, skims_weights);
    return true;
  }
  if (type == "bin") return ReadBinary(record, path, skims_weights);
  utility::Log(16, "Unknow file type, file path: %s.", path);
  return false;
}

void WriteBinary(Serializable* record, char const* path) {
  Stream const stream(std::fopen(path, "wb+"));
  if (stream == nullptr) Refuse("cannot open the file %s for writing", path);
  record->VisitAttr(std::make_shared<FILEWriter>(stream.get(), true));
  // A full disk shows when the buffer is written, and nobody looks at what fclose says.
  if (std::fflush(stream.get()) != 0)
    Refuse("failed to write the file %s, error code is %d.\n", path, std::ferror(stream.get()));
}

void AssertText(char const* text, char const* what) {
  if (text == nullptr) Refuse("a record cannot be read or written: %s is null", what);
}

}  // namespace

void Serializable::VisitAttr(std::shared_ptr<Visitor> visitor) {
  serializable_type = GetClassTypeName();
  TALVO_VISIT_FIELD(serializable_type);
}

std::string Serializable::GetClassTypeName() { return support::BareName(GetClassTypeNameWithNamespace()); }

std::string Serializable::GetClassTypeNameWithNamespace() {
  serializable_type = support::Demangled(typeid(*this).name());
  return serializable_type;
}

bool Serializable::FromFile(char const* path) {
  AssertText(path, "the path");
  std::string const name(path);
  // An ending longer than the path leaves a position behind the end, and substr throws std::out_of_range.
  for (std::string const ending : {".json", ".tlmod", ".tlcfg", ".tlmods", ".tlcfgs"}) {
    if (name.substr(name.size() - ending.size()) == ending) return FromFile(path, ending == ".json" ? "json" : "bin");
  }
  Refuse("Unknow nets file type, file path: %s.", path);
}

bool Serializable::FromFile(char const* path, char const* type) {
  AssertText(path, "the path");
  AssertText(type, "the type word");
  return Read(this, path, type, false);
}

bool support::SkimFile(Serializable* record, char const* path, char const* type) {
  return Read(record, path, type, true);
}

bool Serializable::FromJsonString(char const* json) {
  AssertText(json, "the text");
  support::ReadRecord(support::JSONText(json), this, nullptr);
  return true;
}

bool Serializable::ToFile(char const* path, char const* type) {
  AssertText(path, "the path");
  AssertText(type, "the type word");
  if (std::string_view(type) == "json") {
    WriteJSON(this, path);
  } else if (std::string_view(type) == "bin") {
    WriteBinary(this, path);
  } else {
    utility::Log(16, "Unknow file type, file path: %s.", path);
    return false;
  }
  return true;
}

}  // namespace talvo::runtime
