#include "trace/TraceConfig.h"

#include <algorithm>
#include <limits>

namespace trace {

namespace {

constexpr std::int32_t kMaxFileSize = 10'000'000;
constexpr std::int32_t kMaxBackupCount = 5;

std::string_view trimFront(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
  return text;
}

std::string_view trimBack(std::string_view text, std::string_view characters) {
  return text.substr(0, text.find_last_not_of(characters) + 1);
}

std::string_view unquote(std::string_view text) {
  const bool quoted = text.size() >= 2 && (text.front() == '"' || text.front() == '\'') &&
                      text.front() == text.back();
  return quoted ? text.substr(1, text.size() - 2) : text;
}

/// As atoi: skips blanks, reads a sign and digits, ignores the rest; no digits give 0. Saturates.
std::int32_t toInteger(std::string_view text) {
  using Limits = std::numeric_limits<std::int32_t>;
  text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) {
    text.remove_prefix(1);
  }
  std::int64_t value = 0;
  for (const char digit : text.substr(0, text.find_first_not_of("0123456789"))) {
    value = std::min<std::int64_t>(value * 10 + (digit - '0'), std::int64_t{Limits::max()} + 1);
  }
  return static_cast<std::int32_t>(
      std::clamp<std::int64_t>(negative ? -value : value, Limits::min(), Limits::max()));
}

} // namespace

std::optional<TraceSetting> TraceConfig::readLine(std::string_view line) noexcept {
  line = trimFront(line);
  const std::size_t keyEnd = line.find_first_of("=:");
  if (line.starts_with('!') || line.starts_with('#') || line.starts_with('=') ||
      keyEnd == std::string_view::npos) {
    return std::nullopt;
  }
  const std::string_view key = trimBack(line.substr(0, keyEnd), " \t");
  const std::string_view value = unquote(trimFront(trimBack(line.substr(keyEnd + 1), " \t\n")));
  if (value.empty()) {
    return std::nullopt;
  }
  if (key == "FileSize") {
    return TraceSetting{TraceSetting::Key::FileSize, std::clamp(toInteger(value), 0, kMaxFileSize)};
  }
  if (key == "BackupCount") {
    return TraceSetting{TraceSetting::Key::BackupCount,
                        std::clamp(toInteger(value), 0, kMaxBackupCount)};
  }
  return std::nullopt;
}

} // namespace trace
