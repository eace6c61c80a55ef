#include "tools/common/program.h"

#include <cstdio>

namespace tools {
namespace {

// One line, though ids and paths may hold line breaks. It takes no memory, which may be what ran out.
void ReportError(char const* name, char const* text) {
  std::fprintf(stderr, "%s: ", name);
  for (; *text != '\0'; ++text) std::fputc(*text == '\n' || *text == '\r' ? ' ' : *text, stderr);
  std::fputc('\n', stderr);
}

}  // namespace

int RunProgram(char const* name, char const* usage, std::function<void()> const& program) {
  try {
    program();
    return 0;
  } catch (UsageError const& error) {
    ReportError(name, error.what());
    std::fprintf(stderr, "%s\n", usage);
    return 2;
  } catch (std::exception const& error) {
    ReportError(name, error.what());
  } catch (...) {
    ReportError(name, "ended by something that is no std::exception");
  }
  return 1;
}

std::string Message(std::exception const& refusal, std::string const& silent) {
  std::string text = refusal.what();
  text.erase(text.find_last_not_of('\n') + 1);
  auto const tag = text.find("]: ");
  if (text[0] == '[' && tag != std::string::npos) text.erase(0, tag + 3);
  return text.empty() ? silent : text;
}

}  // namespace tools
