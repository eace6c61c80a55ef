#include "talvo/utility/file.h"

#include <sys/stat.h>

#include <cstdio>
#include <memory>
#include <utility>

namespace talvo::utility {
namespace {

struct Close {
  void operator()(std::FILE* stream) const { std::fclose(stream); }
};
using Stream = std::unique_ptr<std::FILE, Close>;

// A directory can be opened, and its end lies where no memory reaches.
bool IsDirectory(std::FILE* stream) {
  struct stat status;
  return fstat(fileno(stream), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

bool LoadFile(std::string path, std::string& content) {
  Stream const stream(std::fopen(path.c_str(), "rb"));
  if (stream == nullptr || IsDirectory(stream.get())) return false;
  if (std::fseek(stream.get(), 0, SEEK_END) != 0) return false;
  long const size = std::ftell(stream.get());
  if (size < 0) return false;
  std::rewind(stream.get());
  std::string bytes(static_cast<std::size_t>(size), '\0');
  if (std::fread(bytes.data(), 1, bytes.size(), stream.get()) != bytes.size()) return false;
  content = std::move(bytes);
  return true;
}

bool SaveFile(std::string path, std::string const& content) {
  Stream const stream(std::fopen(path.c_str(), "wb"));
  if (stream == nullptr) return false;
  std::fwrite(content.data(), 1, content.size(), stream.get());
  return true;
}

}  // namespace talvo::utility
