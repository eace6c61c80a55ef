#include "tools/common/package_file.h"

#include <filesystem>
#include <stdexcept>

#include "talvo/entry/open_package.h"
#include "tools/common/program.h"

namespace tools {
namespace {

namespace fs = std::filesystem;

void WriteAt(fs::path const& part, talvo::runtime::TLNModel& package, std::string const& path) {
  bool written = false;
  try {
    package.ToFile(part.c_str(), IsBinary(path) ? "bin" : "json");
    written = fs::exists(part);
  } catch (std::bad_alloc const&) {
    throw;
  } catch (std::exception const& refusal) {
    throw std::runtime_error(path + ": " + Message(refusal, "cannot be written"));
  }
  if (!written) throw std::runtime_error(path + ": cannot be written");
}

}  // namespace

bool IsBinary(std::string const& path) {
  std::string const extension = fs::path(path).extension().string();
  if (extension != ".tlnmodel" && extension != ".json")
    throw std::runtime_error(path + ": a package ends in .tlnmodel or .json");
  return extension == ".tlnmodel";
}

void WritePackage(talvo::runtime::TLNModel& package, std::string const& path,
                  std::function<void(talvo::runtime::TLNModel const& kept)> const& check) {
  fs::path const out(path);
  fs::path part = out;
  part.replace_filename("." + out.stem().string() + ".part" + out.extension().string());
  try {
    WriteAt(part, package, path);
    check(*talvo::utility::OpenPackage(part.string()));
    fs::rename(part, out);
  } catch (...) {
    std::error_code ignored;
    fs::remove(part, ignored);
    throw;
  }
}

}  // namespace tools
