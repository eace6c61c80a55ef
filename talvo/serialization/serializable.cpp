#include "talvo/serialization/rapidjson_include.h"

#include "talvo/serialization/serializable.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string_view>
#include <typeinfo>

#include "talvo/serialization/file_visitors.h"
#include "talvo/serialization/json_document_support.h"
#include "talvo/serialization/json_visitors.h"
#include "talvo/serialization/record_support.h"
#include "talvo/utility/json_file.h"

namespace talvo::runtime {
namespace {

using Stream = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

void ReadJSON(std::string text, Serializable* record) {
  support::JSONText const document(std::move(text));
  utility::Assert(document.Root().IsObject(), nullptr);
  JSONValueTo(document.Root(), record);
}

std::string PrettyText(Serializable* record) {
  JSONAllocator allocator(65536);
  rapidjson::Value root(rapidjson::kObjectType);
  record->VisitAttr(std::make_shared<JSONNodeSetter>(root, allocator, true));
  rapidjson::StringBuffer buffer;
  rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(buffer);
  writer.SetIndent(' ', 4);
  root.Accept(writer);  // as deep as the walk of the record was
  return std::string(buffer.GetString(), buffer.GetSize());
}

void WriteJSON(Serializable* record, char const* path) {
  std::string const text = PrettyText(record);
  std::ofstream stream(path, std::ios::binary);
  if (!stream.is_open()) return;
  stream.write(text.data(), static_cast<std::streamsize>(text.size()));
  utility::Assert(stream.flush().good(), "failed to write the file %s: %zu bytes", path, text.size());
}

bool ReadBinary(Serializable* record, char const* path) {
  Stream const stream(std::fopen(path, "rb"), &std::fclose);
  if (stream == nullptr) {
    utility::Log(16, "Failed to open model file, file path: %s.", path);
    return false;
  }
  record->VisitAttr(std::make_shared<FILEReader>(stream.get(), 0));
  return true;
}

void WriteBinary(Serializable* record, char const* path) {
  Stream const stream(std::fopen(path, "wb+"), &std::fclose);
  utility::Assert(stream != nullptr, "cannot open the file %s for writing", path);
  record->VisitAttr(std::make_shared<FILEWriter>(stream.get(), true));
  utility::Assert(std::fflush(stream.get()) == 0, "failed to write the file %s, error code is %d.\n", path,
                  std::ferror(stream.get()));
}

void AssertText(char const* text, char const* what) {
  utility::Assert(text != nullptr, "a record cannot be read or written: %s is null", what);
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
  utility::Assert(false, "Unknow nets file type, file path: %s.", path);
  return false;
}

bool Serializable::FromFile(char const* path, char const* type) {
  AssertText(path, "the path");
  AssertText(type, "the type word");
  if (std::string_view(type) == "json") {
    ReadJSON(utility::ReadJsonFileText(path), this);
    return true;
  }
  if (std::string_view(type) == "bin") return ReadBinary(this, path);
  utility::Log(16, "Unknow file type, file path: %s.", path);
  return false;
}

bool Serializable::FromJsonString(char const* json) {
  AssertText(json, "the text");
  ReadJSON(json, this);
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
