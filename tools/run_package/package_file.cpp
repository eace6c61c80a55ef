#include "tools/run_package/package_file.h"

#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <new>
#include <stdexcept>

#include "talvo/serialization/file_visitors.h"
#include "talvo/utility/json_file.h"
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

// The parser tests no allocation.
struct Allocator : rapidjson::CrtAllocator {
  void* Malloc(std::size_t size) { return Checked(CrtAllocator::Malloc(size), size); }
  void* Realloc(void* block, std::size_t old_size, std::size_t size) {
    return Checked(CrtAllocator::Realloc(block, old_size, size), size);
  }

 private:
  static void* Checked(void* block, std::size_t size) {
    if (block == nullptr && size != 0) throw std::bad_alloc();
    return block;
  }
};

// Why the library refuses a text without a word: it does not parse, or is no object.
std::string ProblemOf(std::string const& text) {
  std::string copy = text;
  rapidjson::InsituStringStream stream(copy.data());
  rapidjson::BaseReaderHandler<> nothing;
  rapidjson::GenericReader<rapidjson::UTF8<>, rapidjson::UTF8<>, Allocator> reader;
  auto const result = reader.Parse<rapidjson::kParseIterativeFlag | rapidjson::kParseInsituFlag>(stream, nothing);
  if (!result.IsError()) return "the text is no JSON object";
  auto const end = text.begin() + static_cast<std::ptrdiff_t>(std::min(result.Offset(), text.size()));
  auto const line_start = std::find(std::make_reverse_iterator(end), text.rend(), '\n').base();
  return "no JSON: line " + std::to_string(std::count(text.begin(), end, '\n') + 1) + ", column " +
         std::to_string(end - line_start + 1) + ": " + rapidjson::GetParseError_En(result.Code());
}

void ReadJSON(std::string const& path, TLNModel& package) {
  try {
    package.FromFile(path.c_str(), "json");
  } catch (std::exception const& refusal) {
    std::string const message = Message(refusal);
    throw std::runtime_error(message.empty() ? ProblemOf(talvo::utility::ReadJsonFile2StrStream(path.c_str()).str())
                                             : message);
  }
}

}  // namespace

std::shared_ptr<TLNModel> ReadPackage(std::string const& path) {
  auto package = std::make_shared<TLNModel>();
  bool const binary = EndsIn(path, ".tlnmodel");
  try {
    if (!binary && !EndsIn(path, ".json")) throw std::runtime_error("a package ends in .tlnmodel or .json");
    if (std::filesystem::is_directory(path)) throw std::runtime_error("is a folder");
    binary ? ReadBinary(path, *package) : ReadJSON(path, *package);
  } catch (std::exception const& refusal) {
    throw std::runtime_error(path + ": " + Message(refusal));
  }
  return package;
}

}  // namespace run_package
