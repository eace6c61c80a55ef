// All record classes, and walks that list or fill the fields of any record.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "talvo/serialization/serializable.h"
#include "tests/support/scratch_folder.h"

namespace talvo::test {

struct RecordClass {
  std::string name;
  std::function<std::shared_ptr<runtime::Serializable>()> make;
};

std::vector<RecordClass> const& RecordCatalogue();

struct Field {
  std::string kind, text;  // the text is "key=default", or "key" where no default is promised
  int since = 0, until = 99999;
};

struct Description {
  std::vector<Field> fields;
  std::set<std::string> marks;
};

/// What golden/fields.txt says of each class.
std::map<std::string, Description> Described();

/// "kind key=value" for each field that files of `version` hold; a nested record is "record key=", with its own fields
/// behind it if `deep`.
std::vector<std::string> ListFields(runtime::Serializable& record, bool deep, unsigned int version = 20015);

/// Gives every field, of nested records too, a value that no other field has, from `count` on; weights are no halves.
void FillFields(runtime::Serializable& record, int count = 0);

/// The bytes of a file; fails the test where there is none.
std::string BytesOf(std::string const& path);

/// A file of the test's own that goes with the object.
class ScratchFile {
 public:
  explicit ScratchFile(std::string const& bytes = "") : path_(folder_.Save("file", bytes)) {}
  char const* Path() const { return path_.c_str(); }
  std::string Bytes() const { return BytesOf(path_); }

 private:
  ScratchFolder folder_;
  std::string path_;
};

inline std::string Golden(std::string const& name) { return BytesOf("tests/serialization/golden/" + name); }

/// The bytes that the record is written as.
std::string Written(runtime::Serializable& record, char const* form);

/// Reads the record from these bytes.
void ReadFrom(runtime::Serializable& record, std::string const& bytes, char const* form);

}  // namespace talvo::test
