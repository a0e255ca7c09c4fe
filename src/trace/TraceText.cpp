#include "trace/TraceText.h"

#include <algorithm>
#include <cstddef>

namespace {

constexpr unsigned char kDelete = 0x7F;

bool isControl(char letter) {
  const auto code = static_cast<unsigned char>(letter);
  return code < ' ' || code == kDelete;
}

bool isDigit(char letter) {
  return letter >= '0' && letter <= '9';
}

} // namespace

std::string traceText(std::string message) {
  const auto first = std::find_if(message.begin(), message.end(), isControl);
  if (first == message.end()) {
    return message;
  }
  std::string text(message.begin(), first);
  text.reserve(message.size());
  for (auto next = first; next != message.end(); ++next) {
    const char letter = *next;
    const char following = next + 1 != message.end() ? *(next + 1) : '\0';
    const bool stays = letter == '\t' || letter == '\n' || (letter == '\r' && following == '\n');
    text.push_back(stays || !isControl(letter) ? letter : '?');
    if (letter == '\n' && isDigit(following)) {
      text.push_back(' ');
    }
  }
  return text;
}
