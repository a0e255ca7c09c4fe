#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ctl {

/// The text of a private-profile file, to be looked at and edited line by line: what is not set
/// stays as it stands, byte for byte. It finds a key where the platform's reader does: in the
/// first section of that name, its first line of that name, letter case aside.
class PropertiesFile {
public:
  explicit PropertiesFile(std::string_view text);

  /// The value as it stands, without blanks around it and one pair of quotes; none without the key.
  std::optional<std::string> value(std::string_view key) const;

  /// Replaces the value, or adds the key at the section's end, or the section at the file's.
  void set(std::string_view key, std::string_view value);

  /// The section's keys, in order.
  std::vector<std::string> keys() const;

  /// What the platform's reader passes over without a word, each as "line 3: ...".
  std::vector<std::string> problems() const;

  std::string text() const;

private:
  struct Line {
    std::string text;
    std::string end; ///< "\r\n", "\n", or nothing at the file's end
  };

  struct Range {
    std::size_t first = 0;
    std::size_t last = 0; ///< one behind
    bool found = false;
  };
  Range section() const;
  std::optional<std::size_t> find(std::string_view key) const;
  const char* lineEnd() const;

  std::vector<Line> lines_;
};

} // namespace ctl
