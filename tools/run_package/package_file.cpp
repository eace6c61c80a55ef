#include "tools/run_package/package_file.h"

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <stdexcept>

#include "talvo/serialization/file_visitors.h"
#include "talvo/utility/json_file.h"

namespace run_package {
namespace {

using talvo::runtime::TLNModel;

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

// Why the library refuses a text without a word: it does not parse, or is no object.
std::string ProblemOf(std::string const& text) {
  rapidjson::Document document;
  document.Parse<rapidjson::kParseIterativeFlag>(text.c_str());
  if (!document.HasParseError()) return "the text is no JSON object";
  auto const end = text.begin() + static_cast<std::ptrdiff_t>(std::min(document.GetErrorOffset(), text.size()));
  auto const line_start = std::find(std::make_reverse_iterator(end), text.rend(), '\n').base();
  return "no JSON: line " + std::to_string(std::count(text.begin(), end, '\n') + 1) + ", column " +
         std::to_string(end - line_start + 1) + ": " + rapidjson::GetParseError_En(document.GetParseError());
}

void ReadJSON(std::string const& path, TLNModel& package) {
  try {
    package.FromFile(path.c_str(), "json");
  } catch (std::exception const& refusal) {
    std::string const message = Message(refusal);
    throw std::runtime_error(message.empty() ? ProblemOf(talvo::utility::ReadJsonFileText(path.c_str())) : message);
  }
}

}  // namespace

std::string Message(std::exception const& refusal) {
  std::string text = refusal.what();
  text.erase(text.find_last_not_of('\n') + 1);
  auto const tag = text.find("]: ");
  return text[0] == '[' && tag != std::string::npos ? text.substr(tag + 3) : text;
}

std::shared_ptr<TLNModel> ReadPackage(std::string const& path) {
  auto package = std::make_shared<TLNModel>();
  bool const binary = EndsIn(path, ".tlnmodel");
  try {
    if (!binary && !EndsIn(path, ".json")) throw std::runtime_error("a package ends in .tlnmodel or .json");
    if (std::filesystem::is_directory(path)) throw std::runtime_error("is a folder");
    binary ? ReadBinary(path, *package) : ReadJSON(path, *package);
  } catch (std::exception const& refusal) {
    throw std::runtime_error(path + ": " + refusal.what());
  }
  return package;
}

}  // namespace run_package
