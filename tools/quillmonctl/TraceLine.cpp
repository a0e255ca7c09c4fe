#include "quillmonctl/TraceLine.h"

#include "quillmonctl/Text.h"

#include <algorithm>

namespace ctl {
namespace {

constexpr std::string_view kStampForm = "00/00/0000 00:00:00";
constexpr std::string_view kDim = "\x1b[2m";
constexpr std::string_view kCyan = "\x1b[36m";
constexpr std::string_view kPlain = "\x1b[0m";

bool isStamp(std::string_view text) {
  return std::equal(
      text.begin(), text.end(), kStampForm.begin(), kStampForm.end(),
      [](char c, char form) { return form == '0' ? c >= '0' && c <= '9' : c == form; });
}

std::string_view cut(std::string_view& text, std::size_t size) {
  const std::string_view piece = text.substr(0, size);
  text.remove_prefix(piece.size());
  return piece;
}

} // namespace

TraceLine TraceLine::parse(std::string_view line) {
  TraceLine result;
  if (isStamp(line.substr(0, kStampForm.size()))) {
    result.stamp = cut(line, kStampForm.size());
  }
  result.lead = cut(line, std::min(line.find_first_not_of(" \t*"), line.size()));
  const bool angled = line.starts_with("<<") && !line.starts_with("<<<");
  if (angled || line.starts_with("[")) {
    const std::string_view close = angled ? ">>" : "]";
    if (const std::size_t end = line.find(close); end != std::string_view::npos) {
      result.component = cut(line, end + close.size());
    }
  }
  result.message = line;
  return result;
}

std::string shown(std::string_view line, bool colour) {
  if (!colour) {
    return printable(line, true);
  }
  const TraceLine parts = TraceLine::parse(line);
  std::string text;
  if (!parts.stamp.empty()) {
    text.append(kDim).append(parts.stamp).append(kPlain);
  }
  text += printable(parts.lead, true);
  if (!parts.component.empty()) {
    text.append(kCyan).append(printable(parts.component)).append(kPlain);
  }
  return text + printable(parts.message, true);
}

bool wantsColour(bool isConsole, const char* noColor) {
  return isConsole && (noColor == nullptr || *noColor == '\0');
}

} // namespace ctl
