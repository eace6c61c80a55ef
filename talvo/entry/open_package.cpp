#include "talvo/serialization/rapidjson_support.h"

#include "talvo/entry/open_package.h"

#include <rapidjson/error/en.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "talvo/entry/model_support.h"
#include "talvo/serialization/file_visitors.h"
#include "talvo/serialization/json_text_support.h"
#include "talvo/utility/file_support.h"

namespace talvo::utility {
namespace {

using runtime::TLNModel;

bool EndsIn(std::string const& text, std::string const& ending) {
  return text.size() >= ending.size() && text.compare(text.size() - ending.size(), ending.size(), ending) == 0;
}

std::runtime_error SystemError(char const* what) {
  return std::runtime_error(support::Joined({what, ": ", std::strerror(errno)}));
}

// The binary form tells nothing of its places: the stream does.
std::string PlaceOf(std::FILE* stream) {
  long const place = std::ftell(stream);
  std::fseek(stream, 0, SEEK_END);
  long const size = std::ftell(stream);
  return support::Joined({"at byte ", std::to_string(place), " of ", std::to_string(size),
                          place == size ? ", where it is cut short: " : ": "});
}

void ReadBinary(Stream const& stream, TLNModel& package) {
  if (stream == nullptr) throw SystemError("cannot be opened");
  try {
    package.VisitAttr(std::make_shared<runtime::FILEReader>(stream.get(), 0));
  } catch (std::runtime_error const& refusal) {
    throw std::runtime_error(PlaceOf(stream.get()) + support::RefusalText(refusal));
  }
}

void ReadJSON(std::string const& text, TLNModel& package) {
  try {
    runtime::support::ReadRecord(runtime::support::JSONText(text), &package, nullptr);
  } catch (std::runtime_error const& refusal) {
    std::string const message = support::RefusalText(refusal);
    if (!message.empty()) throw std::runtime_error(message);
    std::string const problem = JSONProblem(text);
    throw std::runtime_error(problem.empty() ? "the text is no JSON object" : problem);
  }
}

// A form is told by the ending, and its places are those of a file: neither goes with a pipe.
void NeedFile(std::string const& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) throw SystemError("cannot be opened");
  if (S_ISDIR(status.st_mode)) throw std::runtime_error("is a folder");
  if (!S_ISREG(status.st_mode)) throw std::runtime_error("is a pipe or a device; a package is read from a file");
}

void ReadFile(std::string const& path, TLNModel& package) {
  bool const binary = EndsIn(path, ".tlnmodel");
  if (!binary && !EndsIn(path, ".json")) throw std::runtime_error("a package ends in .tlnmodel or .json");
  NeedFile(path);
  if (binary) return ReadBinary(Stream(std::fopen(path.c_str(), "rb")), package);
  std::string text;
  switch (ReadWholeFile(path.c_str(), text)) {
    case FileReading::kNotOpened:
      throw SystemError("cannot be opened");
    case FileReading::kNotWhole:
      throw std::runtime_error("cannot be read whole");
    case FileReading::kWhole:
      ReadJSON(text, package);
  }
}

void ReadBytes(void const* bytes, std::size_t size, TLNModel& package) {
  if (bytes == nullptr || size == 0) throw std::runtime_error("there are no bytes");
  auto const* const text = static_cast<char const*>(bytes);
  auto const* const first = std::find_if_not(text, text + size, [](char c) { return std::strchr(" \t\r\n", c) && c; });
  if (first != text + size && *first == '{') return ReadJSON(std::string(text, size), package);
  // The stream only reads; the older signature of fmemopen takes what it may write to.
  ReadBinary(Stream(fmemopen(const_cast<void*>(bytes), size, "rb")), package);
}

template <class Read>
std::shared_ptr<TLNModel> Named(std::string const& name, Read read) {
  auto package = std::make_shared<TLNModel>();
  try {
    read(*package);
  } catch (std::runtime_error const& refusal) {
    support::RefuseLine({name, ": ", support::RefusalText(refusal)});
  }
  return package;
}

}  // namespace

std::string JSONProblem(std::string const& text) {
  rapidjson::ParseResult const result = runtime::support::JSONText(text).Result();
  if (!result.IsError()) return "";
  auto const end = text.begin() + static_cast<std::ptrdiff_t>(std::min(result.Offset(), text.size()));
  auto const line_start = std::find(std::make_reverse_iterator(end), text.rend(), '\n').base();
  return support::Joined({"no JSON: line ", std::to_string(std::count(text.begin(), end, '\n') + 1), ", column ",
                          std::to_string(end - line_start + 1), ": ", rapidjson::GetParseError_En(result.Code())});
}

std::shared_ptr<TLNModel> OpenPackage(std::string const& path) {
  return Named(path, [&](TLNModel& package) { ReadFile(path, package); });
}

std::shared_ptr<TLNModel> OpenPackage(void const* bytes, std::size_t size, std::string const& name) {
  return Named(name, [&](TLNModel& package) { ReadBytes(bytes, size, package); });
}

}  // namespace talvo::utility
