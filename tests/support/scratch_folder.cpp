#include "tests/support/scratch_folder.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace talvo::test {

ScratchFolder::ScratchFolder() : path_(testing::TempDir() + "talvo_XXXXXX") {
  if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error(path_ + " cannot be made");
  path_ += '/';
}

ScratchFolder::~ScratchFolder() { std::filesystem::remove_all(path_); }

std::string ScratchFolder::Path(std::string const& name) const { return path_ + name; }

std::string ScratchFolder::Save(std::string const& name, std::string const& bytes) const {
  std::ofstream(path_ + name, std::ios::binary) << bytes;
  return path_ + name;
}

}  // namespace talvo::test
