#include "talvo/utility/file.h"

#include <sys/stat.h>

#include <algorithm>
#include <exception>
#include <utility>

#include "talvo/utility/file_support.h"

namespace talvo::utility {
namespace {

constexpr std::size_t kPieceBytes = std::size_t{1} << 18;  // that stay in the cache from the clearing to the reading

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
  std::string bytes;
  bytes.reserve(static_cast<std::size_t>(size));
  for (std::size_t left = static_cast<std::size_t>(size), done = 0; left > 0;) {
    std::size_t const piece = std::min(left, kPieceBytes);
    bytes.resize(done + piece);
    if (std::fread(bytes.data() + done, 1, piece, stream.get()) != piece) return FileReading::kNotWhole;
    done += piece;
    left -= piece;
  }
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
