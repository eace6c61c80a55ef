#include "talvo/utility/file.h"

#include <sys/stat.h>

#include <exception>
#include <utility>

#include "talvo/utility/file_support.h"

namespace talvo::utility {
namespace {

// A directory can be opened, and its end lies where no memory reaches.
bool IsDirectory(std::FILE* stream) {
  struct stat status;
  return fstat(fileno(stream), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

FileReading ReadWholeFile(char const* path, std::string& content) {
  Stream const stream(std::fopen(path, "rb"));
  if (stream == nullptr) return FileReading::kNotOpened;
  if (IsDirectory(stream.get()) || std::fseek(stream.get(), 0, SEEK_END) != 0) return FileReading::kNotWhole;
  long const size = std::ftell(stream.get());
  if (size < 0) return FileReading::kNotWhole;
  std::rewind(stream.get());
  std::string bytes(static_cast<std::size_t>(size), '\0');
  if (std::fread(bytes.data(), 1, bytes.size(), stream.get()) != bytes.size()) return FileReading::kNotWhole;
  content = std::move(bytes);
  return FileReading::kWhole;
}

bool LoadFile(std::string path, std::string& content) {
  try {
    return ReadWholeFile(path.c_str(), content) == FileReading::kWhole;
  } catch (std::exception const&) {  // the answer to every failure is false, and a caller can go on with less
    return false;
  }
}

bool SaveFile(std::string path, std::string const& content) {
  Stream const stream(std::fopen(path.c_str(), "wb"));
  if (stream == nullptr) return false;
  std::fwrite(content.data(), 1, content.size(), stream.get());
  return true;
}

}  // namespace talvo::utility
