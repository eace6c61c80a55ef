// The base of everything that is kept in files: models, layers, configurations, parameters and tensor shapes.
#pragma once

#include <memory>
#include <string>

#include "talvo/utility/export.h"

namespace talvo::runtime {

class Visitor;

/// A record states its persistent fields once, in VisitAttr; the same walk fills a record and saves it, as JSON and as
/// binary stream. The order of the Visit calls is the file format. Not locked: even the questions for the class name
/// write to `serializable_type`.
class TALVO_API Serializable {
 public:
  Serializable() noexcept = default;  // the name below is short enough to stand inside the string
  Serializable(Serializable const&) = default;
  Serializable(Serializable&&) = default;
  Serializable& operator=(Serializable const&) = default;
  Serializable& operator=(Serializable&&) = default;
  virtual ~Serializable() = default;

  /// Visits every persistent field, in the order of the format. An override begins with its base's, where the class
  /// keeps "serializable_type" in files.
  virtual void VisitAttr(std::shared_ptr<Visitor> visitor);

  /// "Conv2dInfo" for a Conv2dInfo. Leaves the name with namespace in `serializable_type`.
  virtual std::string GetClassTypeName();

  /// "talvo::runtime::Conv2dInfo" for a Conv2dInfo, which is also left in `serializable_type`.
  virtual std::string GetClassTypeNameWithNamespace();

  /// Reads a file whose name tells its form: ".json" is JSON; ".tlmod", ".tlcfg", ".tlmods" and ".tlcfgs" are the
  /// binary stream. Results and failures are those of the form with a type word; another ending is refused through
  /// Assert, and a path shorter than the endings throws std::out_of_range.
  virtual bool FromFile(char const* path);

  /// Reads a file as "json" or "bin" into this record. False, with a line in the log: another type word, or a binary
  /// file that does not open. Assert: everything that is wrong with the content. The file is closed in any case; after
  /// an exception the record is partly filled and fit to be destroyed.
  virtual bool FromFile(char const* path, char const* type);

  /// Reads the JSON text of this record. Returns true; Assert: a text that is no JSON object, a missing key, a value of
  /// the wrong kind.
  virtual bool FromJsonString(char const* json);

  /// Writes the record as "json" (indented by four blanks) or "bin". False, with a line in the log: another type word.
  /// A JSON file that cannot be opened is no failure and gives true. Assert: a binary file that cannot be opened, a
  /// number that JSON cannot hold (found before the file is touched), bytes that cannot be written.
  virtual bool ToFile(char const* path, char const* type);

  std::string serializable_type = "Serializable";  // the class name as files hold it; not compared when read
};

}  // namespace talvo::runtime
