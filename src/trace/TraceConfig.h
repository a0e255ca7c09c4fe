#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string_view>

/// One accepted line of the trace log's configuration file; `value` is clamped already.
struct TraceSetting {
  enum class Key { FileSize, BackupCount };
  Key key;
  std::int32_t value;

  /// The key as it stands in the file.
  [[nodiscard]] const char* name() const {
    return key == Key::FileSize ? "FileSize" : "BackupCount";
  }

  bool operator==(const TraceSetting&) const = default;
};

/// Reads zontrace.cfg: "FileSize" (bytes, 0..10000000) and "BackupCount" (0..5), one "key = value"
/// or "key : value" a line, comments begin with "!", "#" or "=". Stateless; any thread. What cannot
/// be read is passed over.
class TraceConfig {
public:
  /// The setting of one line, if it has one that is known.
  static std::optional<TraceSetting> readLine(std::string_view line) noexcept;

  /// Calls `accept` for each setting of `file` (opened as text), in order. A line longer than the
  /// buffer comes in pieces, and each piece counts as a line.
  template <class Accept>
  static void readFile(std::FILE* file, Accept accept) {
    std::array<char, 1024> line;
    while (std::fgets(line.data(), static_cast<int>(line.size()), file) != nullptr) {
      if (const auto setting = readLine(line.data())) {
        accept(*setting);
      }
    }
  }
};
