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

std::string PrettyText(Serializable* record) {
  JSONAllocator allocator(65536);
  rapidjson::Value root(rapidjson::kObjectType);
  record->VisitAttr(std::make_shared<JSONNodeSetter>(root, allocator, true));
  return support::PrettyJSON(root);
}

void WriteJSON(Serializable* record, char const* path) {
  std::string const text = PrettyText(record);
  std::ofstream stream(path, std::ios::binary);
  // The interface's own: a path that cannot be opened is passed over in silence. The text stands already, so that a
  // number that JSON cannot hold leaves an old file as it was.
  if (!stream.is_open()) return;
  stream.write(text.data(), static_cast<std::streamsize>(text.size()));
  if (!stream.flush().good()) Refuse("failed to write the file %s: %zu bytes", path, text.size());
}

bool ReadBinary(Serializable* record, char const* path) {
  Stream const stream(std::fopen(path, "rb"));
  if (stream == nullptr) {
    utility::Log(16, "Failed to open model file, file path: %s.", path);
    return false;
  }
  record->VisitAttr(std::make_shared<FILEReader>(stream.get(), 0));
  return true;
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
  if (std::string_view(type) == "json") {
    support::ReadRecord(support::JSONText(utility::ReadJsonFileText(path)), this, nullptr);
    return true;
  }
  if (std::string_view(type) == "bin") return ReadBinary(this, path);
  utility::Log(16, "Unknow file type, file path: %s.", path);
  return false;
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
