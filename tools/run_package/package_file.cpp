#include "tools/run_package/package_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "talvo/serialization/file_visitors.h"
#include "talvo/utility/json_file.h"
#include "tools/common/json_problem.h"
#include "tools/common/program.h"

namespace run_package {
namespace {

using talvo::runtime::TLNModel;
using tools::Message;

bool EndsIn(std::string const& text, std::string const& ending) {
  return text.size() >= ending.size() && text.compare(text.size() - ending.size(), ending.size(), ending) == 0;
}

// The binary form tells nothing of its places: the stream does.
void ReadBinary(std::string const& path, TLNModel& package) {
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> const stream(std::fopen(path.c_str(), "rb"), &std::fclose);
  if (stream == nullptr) throw std::runtime_error(std::string("cannot be opened: ") + std::strerror(errno));
  try {
    package.VisitAttr(std::make_shared<talvo::runtime::FILEReader>(stream.get(), 0));
  } catch (std::exception const& refusal) {
    long const place = std::ftell(stream.get());
    std::fseek(stream.get(), 0, SEEK_END);
    long const size = std::ftell(stream.get());
    throw std::runtime_error("at byte " + std::to_string(place) + " of " + std::to_string(size) + ": " +
                             Message(refusal) + (place == size ? " The file is cut short." : ""));
  }
}

void ReadJSON(std::string const& path, TLNModel& package) {
  try {
    package.FromFile(path.c_str(), "json");
  } catch (std::exception const& refusal) {
    std::string const message = Message(refusal);
    if (!message.empty()) throw std::runtime_error(message);
    std::string const problem = tools::ProblemOfJSON(talvo::utility::ReadJsonFile2StrStream(path.c_str()).str());
    throw std::runtime_error(problem.empty() ? "the text is no JSON object" : problem);
  }
}

}  // namespace

std::shared_ptr<TLNModel> ReadPackage(std::string const& path) {
  auto package = std::make_shared<TLNModel>();
  bool const binary = EndsIn(path, ".tlnmodel");
  try {
    if (!binary && !EndsIn(path, ".json")) throw std::runtime_error("a package ends in .tlnmodel or .json");
    if (std::filesystem::is_directory(path)) throw std::runtime_error("is a folder");
    if (std::filesystem::exists(path) && !std::filesystem::is_regular_file(path))
      throw std::runtime_error("is a pipe or a device; a package is read from a file");
    binary ? ReadBinary(path, *package) : ReadJSON(path, *package);
  } catch (std::exception const& refusal) {
    throw std::runtime_error(path + ": " + Message(refusal));
  }
  return package;
}

}  // namespace run_package
