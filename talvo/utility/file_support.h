// Streams that close themselves, and the one way in which the library reads whole files. Internal.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

namespace talvo::utility {

struct CloseStream {
  void operator()(std::FILE* stream) const { std::fclose(stream); }
};

/// A stream that is closed on every way out.
using Stream = std::unique_ptr<std::FILE, CloseStream>;

enum class FileReading { kWhole, kNotOpened, kNotWhole };

/// Reads all bytes of a file into `content`, which is left alone unless the answer is kWhole. A directory and a file
/// that tells more bytes than it has are kNotWhole. Throws std::bad_alloc when memory runs out.
FileReading ReadWholeFile(char const* path, std::string& content);

/// The text of a file up to its first zero character. Assert: a null path, a file that cannot be opened or read whole.
std::string ReadJsonFileText(char const* path);

}  // namespace talvo::utility
