#include "talvo/utility/json_file.h"

#include <algorithm>
#include <cstdio>
#include <memory>

#include "talvo/utility/log.h"

namespace talvo::utility {

std::string ReadJsonFileText(char const* path) {
  Assert(path != nullptr, "Error in opening the file [%s].", "a null path");
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> const stream(std::fopen(path, "rb"), &std::fclose);
  Assert(stream != nullptr, "Error in opening the file [%s].", path);
  constexpr std::size_t kPieceBytes = std::size_t{1} << 20;  // a folder reports any size: grow with what arrives
  std::size_t size = 0;
  std::fseek(stream.get(), 0, SEEK_END);
  long const file_size = std::ftell(stream.get());
  std::fseek(stream.get(), 0, SEEK_SET);
  Assert(file_size >= 0, "Error in read the whole file [%s].", path);
  std::string text;
  while (size < static_cast<std::size_t>(file_size)) {
    std::size_t const piece = std::min(static_cast<std::size_t>(file_size) - size, std::max(size, kPieceBytes));
    text.resize(size + piece);
    Assert(std::fread(&text[size], 1, piece, stream.get()) == piece, "Error in read the whole file [%s].", path);
    size += piece;
  }
  text.resize(text.find('\0') == std::string::npos ? text.size() : text.find('\0'));
  return text;
}

std::stringstream ReadJsonFile2StrStream(char const* path) {
  std::stringstream stream;
  stream << ReadJsonFileText(path);
  return stream;
}

}  // namespace talvo::utility
