#include "talvo/utility/json_file.h"

#include "talvo/utility/file_support.h"
#include "talvo/utility/refuse_support.h"

namespace talvo::utility {

std::string ReadJsonFileText(char const* path) {
  if (path == nullptr) Refuse("Error in opening the file [%s].", "a null path");
  std::string text;
  FileReading const reading = ReadWholeFile(path, text);
  if (reading == FileReading::kNotOpened) Refuse("Error in opening the file [%s].", path);
  if (reading == FileReading::kNotWhole) Refuse("Error in read the whole file [%s].", path);
  if (auto const zero = text.find('\0'); zero != std::string::npos) text.resize(zero);
  return text;
}

std::stringstream ReadJsonFile2StrStream(char const* path) {
  std::stringstream stream;
  stream << ReadJsonFileText(path);
  return stream;
}

}  // namespace talvo::utility
