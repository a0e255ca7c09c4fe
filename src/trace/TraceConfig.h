#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string_view>

namespace trace {

/// A valid line of the trace log's configuration file. `value` is clamped to its range.
struct TraceSetting {
  enum class Key { FileSize, BackupCount };
  Key key;
  std::int32_t value;

  /// The key as written in the file.
  [[nodiscard]] const char* name() const {
    return key == Key::FileSize ? "FileSize" : "BackupCount";
  }

  bool operator==(const TraceSetting&) const = default;
};

/// Parses zontrace.cfg: lines "key = value" or "key : value" with the keys "FileSize" (bytes,
/// 0..10000000) and "BackupCount" (0..5). Comments begin with "!", "#" or "=". Invalid lines are
/// ignored. Stateless. Threads: any.
class TraceConfig {
public:
  /// Parses one line.
  static std::optional<TraceSetting> readLine(std::string_view line) noexcept;

  /// Calls `accept` for each setting of `file` (opened as text), in order. A line longer than the
  /// buffer is read as several lines.
  template <class Accept>
  // NOLINTNEXTLINE(misc-no-recursion): readConfig runs once
  static void readFile(std::FILE* file, Accept accept) {
    std::array<char, 1024> line;
    while (std::fgets(line.data(), static_cast<int>(line.size()), file) != nullptr) {
      if (const auto setting = readLine(line.data())) {
        accept(*setting);
      }
    }
  }
};

} // namespace trace
