// The reader of model files of the first generation. All numbers in them are little-endian: a header of 1000 bytes,
// then framed layer records up to the end of the file.
#pragma once

#include <array>
#include <cstdio>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "talvo/serialization/tlmodel1_layers.h"
#include "talvo/utility/export.h"

namespace talvo1 {

/// A file that breaks its form: the assertion that failed, where it stands, and what is printed before it.
class TALVO_API LoadFailure : public std::runtime_error {
 public:
  LoadFailure(std::string const& expression, char const* in_function, char const* in_file, int at_line,
              std::string printed = "")
      : std::runtime_error(expression),
        function(in_function),
        file(in_file),
        line(at_line),
        notice(std::move(printed)) {}

  char const* function;
  char const* file;
  int line;
  std::string notice;
};

/// The header; most of it is unused.
class TALVO_API QZExInfo {
 public:
  bool ifCorrectlyLoad() const;
  unsigned int getVersion() const { return Number(4); }
  unsigned int AppType() const { return Number(12); }
  unsigned int ModelId() const { return Number(16); }
  unsigned int BaseWidth() const { return Number(20); }
  unsigned int BaseHeight() const { return Number(24); }

  std::array<unsigned char, 1000> bytes = {};

 private:
  unsigned int Number(std::size_t offset) const;
};

/// The name of a type of layer, as in "Conv2D"; empty for a number that no file holds.
TALVO_API char const* QZLayerTypeName(unsigned short type);

/// Loads one file of the versions from 10000 on.
class TALVO_API QZNetLoader {
 public:
  QZNetLoader();
  /// As LoadFile, but a false result prints a line and fails the assertion `ifSuccess`.
  explicit QZNetLoader(char const* path);
  QZNetLoader(QZNetLoader const&) = delete;
  QZNetLoader& operator=(QZNetLoader const&) = delete;
  ~QZNetLoader();

  /// False for a file that cannot be opened and for versions below 10000; `flag` has no effect. Broken framing, a type
  /// that the version does not have and a file that ends within a record fail the platform assertion.
  /// Assert: a null path, counts beyond their array, and a groups, divisor, multiplier, in_features or
  /// hidden_size of 0.
  bool LoadFile(char const* path, bool flag);

  /// As LoadFile, from a stream and without an end of the process: throws LoadFailure where an assertion would fail.
  /// Assert: a null stream too.
  bool ReadFile(std::FILE* stream);

  std::map<unsigned short, QZLayerInfo*> layers;           // by id; of several records with one id, the first
  std::vector<unsigned short> id_list;                     // in file order
  std::map<unsigned short, unsigned short> reader_counts;  // by id: how often other layers name it as an input
  QZExInfo exinfo;

 private:
  TALVO_INTERNAL void LoadRecords(std::FILE* stream);
  TALVO_INTERNAL void CountReaders();

  std::vector<std::unique_ptr<QZLayerInfo>> records_;
};

}  // namespace talvo1
