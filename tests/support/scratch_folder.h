// Where tests put their files.
#pragma once

#include <string>

namespace talvo::test {

/// A folder of its own, gone with the object. Tests run side by side, of one build and of several: no two share a file.
class ScratchFolder {
 public:
  ScratchFolder();
  ScratchFolder(ScratchFolder const&) = delete;
  ScratchFolder& operator=(ScratchFolder const&) = delete;
  ~ScratchFolder();

  /// The path of an entry, that of the folder for an empty name.
  std::string Path(std::string const& name = "") const;

  /// Writes a file and returns its path.
  std::string Save(std::string const& name, std::string const& bytes) const;

 private:
  std::string path_;  // ends in a slash
};

}  // namespace talvo::test
