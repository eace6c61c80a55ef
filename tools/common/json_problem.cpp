#include "tools/common/json_problem.h"

#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>

#include <algorithm>
#include <iterator>
#include <new>

namespace tools {
namespace {

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

}  // namespace

std::string ProblemOfJSON(std::string const& text) {
  std::string copy = text;
  rapidjson::InsituStringStream stream(copy.data());
  rapidjson::BaseReaderHandler<> nothing;
  rapidjson::GenericReader<rapidjson::UTF8<>, rapidjson::UTF8<>, Allocator> reader;
  auto const result = reader.Parse<rapidjson::kParseIterativeFlag | rapidjson::kParseInsituFlag>(stream, nothing);
  if (!result.IsError()) return "";
  auto const end = text.begin() + static_cast<std::ptrdiff_t>(std::min(result.Offset(), text.size()));
  auto const line_start = std::find(std::make_reverse_iterator(end), text.rend(), '\n').base();
  return "no JSON: line " + std::to_string(std::count(text.begin(), end, '\n') + 1) + ", column " +
         std::to_string(end - line_start + 1) + ": " + rapidjson::GetParseError_En(result.Code());
}

}  // namespace tools
