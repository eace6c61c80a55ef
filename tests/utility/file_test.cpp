#include "talvo/utility/file.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>

#include "tests/support/scratch_folder.h"

namespace talvo::utility {
namespace {

std::ptrdiff_t OpenDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
}

TEST(File, ReadsBackWhatItSaved) {
  test::ScratchFolder const folder;
  std::string const path = folder.Path("file");
  for (std::string const& bytes : {std::string("\0\r\n\xFF text", 9), std::string(), std::string(1 << 20, 'x')}) {
    ASSERT_TRUE(SaveFile(path, bytes));
    std::string content = "old";
    ASSERT_TRUE(LoadFile(path, content));
    EXPECT_EQ(content, bytes);
  }
}

TEST(File, ReportsWhatItCannotOpenOrReadAndClosesIt) {
  auto const open_before = OpenDescriptors();
  std::string content = "old";
  // The last one tells more bytes than it has.
  for (char const* path : {"/nowhere/at/all", "/", "/sys/devices/system/cpu/online"}) {
    EXPECT_FALSE(LoadFile(path, content)) << path;
    EXPECT_EQ(content, "old") << path;
  }
  EXPECT_FALSE(SaveFile("/nowhere/at/all", "x"));
  EXPECT_EQ(OpenDescriptors(), open_before);
}

}  // namespace
}  // namespace talvo::utility
