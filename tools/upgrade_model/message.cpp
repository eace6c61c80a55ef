#include "tools/upgrade_model/message.h"

namespace upgrade_model {

std::string Message(std::exception const& refusal, std::string const& silent) {
  std::string text = refusal.what();
  text.erase(text.find_last_not_of('\n') + 1);
  auto const tag = text.find("]: ");
  if (text[0] == '[' && tag != std::string::npos) text.erase(0, tag + 3);
  return text.empty() ? silent : text;
}

}  // namespace upgrade_model
