#include "talvo/utility/log.h"

#include <sys/time.h>

#include <cstdarg>
#include <cstdio>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "talvo/utility/refuse_support.h"

namespace talvo::utility {
namespace {

int DefaultLogSink(char const* line) {
  std::cout << line << std::endl;
  return 0;
}

std::string log_tag = "TLN";
int (*log_sink)(char const*) = DefaultLogSink;
unsigned int level_mask = 30;
// Each thread's own: the interface returns the last text formatted, and no lock stands between threads.
thread_local char message_buffer[2048];  // Log, Assert and StringFormat

void WriteToSink(std::string const& line) {
  auto const sink = log_sink != nullptr ? log_sink : DefaultLogSink;
  sink(line.c_str());
}

char const* LevelPrefix(int level) {
  switch (level) {
    case 1:
      return "] (Verbose): ";
    case 4:
      return "] (Info): ";
    case 8:
      return "] (Warnning): ";
    case 16:
      return "]: ";
    default:
      return nullptr;  // level 2 is silent by design
  }
}

void Format(char const* format, va_list arguments) {
  if (format != nullptr) std::vsnprintf(message_buffer, sizeof message_buffer, format, arguments);
}

// Reports the message buffer, or nothing for a refusal that has no text.
[[noreturn]] void ReportAndThrow(bool has_text) {
  std::ostringstream line;
  line << '[' << log_tag << "]: ";
  if (has_text) {
    line << message_buffer << std::endl;
    WriteToSink(line.str());
  }
  throw std::runtime_error(line.str());
}

}  // namespace

int SetLogTag(char const* tag) {
  if (tag == nullptr) Refuse("SetLogTag: got null, needs a text");
  if (tag[0] == '\0') return -1;
  log_tag = tag;
  return 0;
}

int SetLogCallback(int (*callback)(char const*)) {
  if (callback == nullptr) return -1;
  log_sink = callback;
  return 0;
}

int SetLogLevel(unsigned int mask) {
  level_mask = mask;
  return 0;
}

int GetLogLevel(unsigned int* mask) {
  if (mask == nullptr) Refuse("GetLogLevel: got null, needs a place for the mask");
  *mask = level_mask;
  return 0;
}

std::string Log(int level, char const* format, ...) {
  char const* const prefix = LevelPrefix(level);
  if (prefix != nullptr && (level_mask & static_cast<unsigned int>(level)) != 0) {
    if (format == nullptr) Refuse("Log: got a null format, needs a text");
    va_list arguments;
    va_start(arguments, format);
    Format(format, arguments);
    va_end(arguments);
    std::ostringstream line;
    line << '[' << log_tag << prefix << message_buffer;
    if (level == 16) line << std::endl;
    WriteToSink(line.str());
  }
  return message_buffer;
}

int Assert(bool condition, char const* format, ...) {
  if (condition) return 0;
  va_list arguments;
  va_start(arguments, format);
  Format(format, arguments);
  va_end(arguments);
  ReportAndThrow(format != nullptr);
}

void Refuse(char const* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Format(format, arguments);
  va_end(arguments);
  ReportAndThrow(format != nullptr);
}

std::string StrFormat(char const* format, ...) {
  if (format == nullptr) Refuse("StrFormat: got a null format, needs a text");
  char text[4096];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  return text;
}

std::string StringFormat(char const* format, ...) {
  if (format == nullptr) Refuse("StringFormat: got a null format, needs a text");
  va_list arguments;
  va_start(arguments, format);
  Format(format, arguments);
  va_end(arguments);
  return message_buffer;
}

std::string StrReplaceALL(std::string const& source, std::string const& from, std::string const& to) {
  if (source.empty()) return from.empty() ? to : source;
  if (from.empty()) return source;
  std::string result = source;
  for (auto at = result.find(from); at != std::string::npos; at = result.find(from))
    result.replace(at, from.size(), to);
  return result;
}

namespace {

// The first word of what `put` puts into a stream.
std::string Word(void const* value, void (*put)(std::ostream& stream, void const* value)) {
  std::stringstream stream;
  put(stream, value);
  std::string word;
  stream >> word;
  return word;
}

}  // namespace

template <typename T>
std::string ToStr(T const& value) {
  return Word(&value, [](std::ostream& stream, void const* from) { stream << *static_cast<T const*>(from); });
}

template std::string ToStr(char const&);
template std::string ToStr(unsigned char const&);
template std::string ToStr(short const&);
template std::string ToStr(unsigned short const&);
template std::string ToStr(int const&);
template std::string ToStr(unsigned int const&);
template std::string ToStr(long const&);
template std::string ToStr(unsigned long const&);
template std::string ToStr(long long const&);
template std::string ToStr(unsigned long long const&);
template std::string ToStr(float const&);
template std::string ToStr(double const&);

double get_time_in_ms() {
  timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<double>(now.tv_usec) / 1000.0 + static_cast<double>(now.tv_sec) * 1000.0;
}

}  // namespace talvo::utility
