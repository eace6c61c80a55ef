// Runs a fuzz target over every file of the folders named on the command line: the seed corpus as a test.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

int main(int count, char** arguments) {
  if (count < 2) {
    std::fprintf(stderr, "usage: %s FOLDER...\n", arguments[0]);
    return 2;
  }
  int files = 0;
  for (int i = 1; i < count; ++i) {
    if (!std::filesystem::is_directory(arguments[i])) {
      std::fprintf(stderr, "%s: %s: is no folder\n", arguments[0], arguments[i]);
      return 1;
    }
    for (auto const& entry : std::filesystem::directory_iterator(arguments[i])) {
      std::ifstream stream(entry.path(), std::ios::binary);
      std::string const bytes{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
      LLVMFuzzerTestOneInput(reinterpret_cast<std::uint8_t const*>(bytes.data()), bytes.size());
      ++files;
    }
  }
  std::printf("%d files replayed\n", files);
  return files > 0 ? 0 : 1;
}
