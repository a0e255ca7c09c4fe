#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ctl {

/// A ZIP archive made in memory, its files stored as they are: a support archive is a few log files
/// at most, and every system opens it. No encryption, no archive of 4 GiB or more.
class ZipFile {
public:
  /// `dosTime` is the time of all files: date in the upper, time in the lower 16 bits.
  explicit ZipFile(std::uint32_t dosTime) : dosTime_(dosTime) {}

  /// `name` with forward slashes, ASCII. Throws std::length_error when the archive gets too big.
  void add(std::string_view name, std::string_view content);

  /// The whole archive.
  std::string bytes() const;

private:
  std::uint32_t dosTime_;
  std::string files_;
  std::string directory_;
  std::uint16_t count_ = 0;
};

} // namespace ctl
