// All record classes, and walks that list, fill or encode the fields of any record.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "talvo/serialization/serializable.h"

namespace talvo::test {

struct RecordClass {
  std::string name;
  std::function<std::shared_ptr<runtime::Serializable>()> make;
};

std::vector<RecordClass> const& RecordCatalogue();

/// "kind key=value" for each field that files of `version` hold; a nested record is "record key=", with its own fields
/// behind it if `deep`.
std::vector<std::string> ListFields(runtime::Serializable& record, bool deep, unsigned int version = 20015);

/// Gives every field, of nested records too, a value that no other field has, from `count` on; weights are no halves.
void FillFields(runtime::Serializable& record, int count = 0);

/// The fields of each class that the binary stream holds as halves.
using Blobs = std::map<std::string, std::set<std::string>>;

/// The bytes of the record in the stream, without a version word, by the definition of each kind.
std::string Encoded(runtime::Serializable& record, Blobs const& blobs);

/// A file of the test's own that goes with the object.
class ScratchFile {
 public:
  explicit ScratchFile(std::string const& bytes = "");
  ScratchFile(ScratchFile const&) = delete;
  ScratchFile& operator=(ScratchFile const&) = delete;
  ~ScratchFile();

  char const* Path() const { return path_.c_str(); }
  std::string Bytes() const;

 private:
  std::string path_;
};

/// The bytes of a file of tests/serialization/golden.
std::string Golden(std::string const& name);

/// The bytes that the record is written as.
std::string Written(runtime::Serializable& record, char const* form);

/// Reads the record from these bytes.
void ReadFrom(runtime::Serializable& record, std::string const& bytes, char const* form);

}  // namespace talvo::test
