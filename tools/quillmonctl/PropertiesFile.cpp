#include "quillmonctl/PropertiesFile.h"

#include "quillmonctl/IgnoreCase.h"

#include <fmt/format.h>

#include <algorithm>

namespace ctl {
namespace {

constexpr std::string_view kSection = "default";
constexpr std::string_view kBlanks = " \t";
constexpr std::string_view kUtf8Mark = "\xEF\xBB\xBF";

std::string_view trimmed(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
  return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

bool isSection(std::string_view line) {
  return trimmed(line).starts_with('[');
}

std::string_view sectionName(std::string_view line) {
  line = trimmed(line).substr(1);
  return trimmed(line.substr(0, line.find(']')));
}

bool isComment(std::string_view line) {
  line = trimmed(line);
  return line.empty() || line.starts_with(';') || line.starts_with('#');
}

std::string_view keyOf(std::string_view line) {
  return trimmed(line.substr(0, line.find('=')));
}

std::string_view valueOf(std::string_view line) {
  const std::size_t equals = line.find('=');
  std::string_view value =
      equals == std::string_view::npos ? std::string_view() : trimmed(line.substr(equals + 1));
  if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
      value.front() == value.back()) {
    value = value.substr(1, value.size() - 2);
  }
  return value;
}

bool isKey(std::string_view line) {
  return !isComment(line) && !isSection(line) && line.find('=') != std::string_view::npos;
}

} // namespace

PropertiesFile::PropertiesFile(std::string_view text) {
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    if (end == std::string_view::npos) {
      lines_.push_back({std::string(text), ""});
      break;
    }
    const bool hasReturn = end > 0 && text[end - 1] == '\r';
    lines_.push_back(
        {std::string(text.substr(0, end - (hasReturn ? 1 : 0))), hasReturn ? "\r\n" : "\n"});
    text.remove_prefix(end + 1);
  }
}

PropertiesFile::Range PropertiesFile::section() const {
  Range range;
  for (std::size_t i = 0; i < lines_.size(); ++i) {
    if (!isSection(lines_[i].text)) {
      continue;
    }
    if (range.found) {
      range.last = i;
      return range;
    }
    if (equalsIgnoreCase(sectionName(lines_[i].text), kSection)) {
      range.first = i + 1;
      range.found = true;
    }
  }
  range.last = lines_.size();
  return range;
}

std::optional<std::size_t> PropertiesFile::find(std::string_view key) const {
  const Range range = section();
  if (range.found) {
    for (std::size_t i = range.first; i < range.last; ++i) {
      if (isKey(lines_[i].text) && equalsIgnoreCase(keyOf(lines_[i].text), key)) {
        return i;
      }
    }
  }
  return std::nullopt;
}

std::optional<std::string> PropertiesFile::value(std::string_view key) const {
  const std::optional<std::size_t> line = find(key);
  return line ? std::optional<std::string>(valueOf(lines_[*line].text)) : std::nullopt;
}

const char* PropertiesFile::lineEnd() const {
  return !lines_.empty() && lines_.front().end == "\n" ? "\n" : "\r\n";
}

void PropertiesFile::set(std::string_view key, std::string_view value) {
  if (const std::optional<std::size_t> line = find(key)) {
    std::string& text = lines_[*line].text;
    const std::size_t behind = text.find_first_not_of(kBlanks, text.find('=') + 1);
    text = fmt::format("{}{}", text.substr(0, std::min(behind, text.size())), value);
    return;
  }
  const std::string end = lineEnd();
  const auto closeLastLine = [&](std::size_t behind) {
    if (behind > 0 && lines_[behind - 1].end.empty()) {
      lines_[behind - 1].end = end;
    }
  };
  Range range = section();
  if (!range.found) {
    closeLastLine(lines_.size());
    lines_.push_back({fmt::format("[{}]", kSection), end});
    range.last = lines_.size();
  }
  // Behind the last line with something in it: blank lines part sections.
  std::size_t at = range.last;
  while (at > range.first && trimmed(lines_[at - 1].text).empty()) {
    --at;
  }
  closeLastLine(at);
  lines_.insert(lines_.begin() + static_cast<std::ptrdiff_t>(at),
                {fmt::format("{}={}", key, value), end});
}

std::vector<std::string> PropertiesFile::keys() const {
  std::vector<std::string> keys;
  const Range range = section();
  for (std::size_t i = range.first; range.found && i < range.last; ++i) {
    if (isKey(lines_[i].text)) {
      keys.emplace_back(keyOf(lines_[i].text));
    }
  }
  return keys;
}

std::vector<std::string> PropertiesFile::problems() const {
  std::vector<std::string> problems;
  const std::string_view first = lines_.empty() ? std::string_view() : lines_.front().text;
  if (first.starts_with(kUtf8Mark)) {
    problems.emplace_back("line 1: begins with a byte order mark; save the file as plain text "
                          "(ANSI), or its first line is not understood");
  } else if (first.starts_with("\xFF\xFE") || first.starts_with("\xFE\xFF")) {
    problems.emplace_back("line 1: the file is in Unicode (UTF-16); save it as plain text (ANSI)");
    return problems; // every line would be wrong
  }
  const Range range = section();
  if (!range.found) {
    if (std::any_of(lines_.begin(), lines_.end(),
                    [](const Line& line) { return isKey(line.text); })) {
      problems.emplace_back("line 1: no section [default]: nothing in the file counts");
    }
    return problems;
  }
  std::vector<std::string_view> seen;
  for (std::size_t i = 0; i < lines_.size(); ++i) {
    const std::string_view line = lines_[i].text;
    if (isComment(line) || isSection(line)) {
      continue;
    }
    const bool inside = i >= range.first && i < range.last;
    if (!inside) {
      if (isKey(line)) {
        problems.push_back(
            fmt::format("line {}: {} stands outside of the section [default]", i + 1, keyOf(line)));
      }
    } else if (!isKey(line)) {
      problems.push_back(fmt::format("line {}: neither a comment nor KEY=VALUE", i + 1));
    } else if (std::any_of(seen.begin(), seen.end(), [&](std::string_view key) {
                 return equalsIgnoreCase(key, keyOf(line));
               })) {
      problems.push_back(
          fmt::format("line {}: {} was set before; only the first one counts", i + 1, keyOf(line)));
    } else {
      seen.push_back(keyOf(line));
    }
  }
  return problems;
}

std::string PropertiesFile::text() const {
  std::string text;
  for (const Line& line : lines_) {
    text += line.text + line.end;
  }
  return text;
}

} // namespace ctl
