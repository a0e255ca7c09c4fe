#include "quillmonctl/Text.h"

#include <fmt/format.h>

#include <algorithm>
#include <numeric>

namespace ctl {
namespace {

constexpr std::size_t kGap = 2;
constexpr std::size_t kMinColumn = 4; // a column is never cut below this

bool continuesCodePoint(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

/// The bytes of the first `count` columns.
std::size_t bytesOf(std::string_view text, std::size_t count) {
  std::size_t at = 0;
  while (at < text.size() && count > 0) {
    do {
      ++at;
    } while (at < text.size() && continuesCodePoint(text[at]));
    --count;
  }
  return at;
}

std::string padded(const std::string& text, std::size_t width) {
  return text + std::string(width - std::min(width, columns(text)), ' ');
}

void trimEnd(std::string& line) {
  line.erase(line.find_last_not_of(' ') + 1);
}

} // namespace

std::size_t columns(std::string_view text) {
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return !continuesCodePoint(c); }));
}

std::string printable(std::string_view text, bool keepTabs) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const bool isC1 =
        byte == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xA0;
    if (isC1) { // the 8-bit control characters, which some consoles obey as well
      result += fmt::format("\\x{:02x}", static_cast<unsigned char>(text[++i]));
    } else if ((byte < 0x20 && !(keepTabs && byte == '\t')) || byte == 0x7F) {
      result += fmt::format("\\x{:02x}", byte);
    } else {
      result += text[i];
    }
  }
  return result;
}

std::string truncated(std::string_view text, std::size_t width) {
  if (columns(text) <= width) {
    return std::string(text);
  }
  const std::size_t dots = std::min<std::size_t>(3, width);
  return std::string(text.substr(0, bytesOf(text, width - dots))) + std::string(dots, '.');
}

std::string wrap(std::string_view text, std::size_t width, std::size_t indent) {
  std::string result;
  bool isFirst = true;
  for (;;) {
    const std::string prefix(isFirst ? 0 : std::min(indent, width * 3 / 4), ' ');
    const std::size_t available = width - prefix.size();
    std::size_t end = bytesOf(text, available);
    if (end < text.size()) {
      // At the last blank that leaves something before it; else in the middle of the word.
      const std::size_t blank = text.substr(0, end + 1).rfind(' ');
      const std::size_t start = text.find_first_not_of(' ');
      if (blank != std::string_view::npos && blank > start) {
        end = blank;
      }
    }
    result.append(prefix).append(text.substr(0, end));
    trimEnd(result);
    result += '\n';
    text.remove_prefix(end);
    if (text.empty()) {
      return result;
    }
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    if (text.empty()) {
      return result;
    }
    isFirst = false;
  }
}

std::string table(const std::vector<std::string>& heading,
                  const std::vector<std::vector<std::string>>& rows, std::size_t width) {
  std::vector<std::vector<std::string>> lines = {heading};
  for (const std::vector<std::string>& row : rows) {
    std::vector<std::string>& line = lines.emplace_back();
    for (const std::string& cell : row) {
      line.push_back(printable(cell));
    }
  }
  std::vector<std::size_t> widths(heading.size(), 0);
  for (const std::vector<std::string>& line : lines) {
    for (std::size_t i = 0; i < widths.size(); ++i) {
      widths[i] = std::max(widths[i], columns(line[i]));
    }
  }
  const std::size_t gaps = kGap * (widths.size() - 1);
  while (std::accumulate(widths.begin(), widths.end(), gaps) > width) {
    const auto widest = std::max_element(widths.begin(), widths.end());
    if (*widest <= kMinColumn) {
      break;
    }
    --*widest;
  }
  std::string text;
  for (const std::vector<std::string>& line : lines) {
    std::string one;
    for (std::size_t i = 0; i < widths.size(); ++i) {
      one.append(i == 0 ? 0 : kGap, ' ').append(padded(truncated(line[i], widths[i]), widths[i]));
    }
    trimEnd(one);
    text += one + "\n";
  }
  return text;
}

std::string pairs(const std::vector<std::pair<std::string, std::string>>& lines,
                  std::size_t width) {
  std::size_t name = 0;
  for (const auto& line : lines) {
    name = std::max(name, columns(line.first));
  }
  std::string text;
  for (const auto& [key, value] : lines) {
    text += wrap(fmt::format("{}{}{}", padded(key, name), std::string(kGap, ' '), printable(value)),
                 width, name + kGap);
  }
  return text;
}

} // namespace ctl
