#pragma once

#include "win/Handles.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ctl {

/// Reads what is appended to the trace log, through its rotation: a file is known by its identity,
/// so that a log that was renamed to a copy is read to its end first. No file stays open between
/// two looks, and the service may write, rename and delete meanwhile. One thread.
class LogFollower {
public:
  /// Begins with the last `lines` lines of what is there.
  LogFollower(std::string path, std::size_t lines);

  /// The lines that have come since, whole ones only, without their LF; ANSI text.
  std::vector<std::string> newLines();

  /// True once after a look that found the log gone with lines that were not read.
  bool hasLostLines() { return std::exchange(lost_, false); }

private:
  struct Identity {
    DWORD volume = 0;
    std::uint64_t index = 0;
    bool operator==(const Identity&) const = default;
  };
  struct File {
    win::Handle handle;
    Identity identity;
    std::uint64_t size = 0;
  };
  static std::optional<File> open(const std::string& path);
  /// Shorter at the file's end.
  static std::string readPiece(const File& file, std::uint64_t offset, std::size_t size);
  /// Where the last whole lines begin. A log may be larger than the memory: read from its end.
  static std::uint64_t startOfLast(const File& file, std::size_t lines);
  /// Appends what is behind `offset_` to `unread_` and moves on.
  void readRest(const File& file);
  void readCopies(const Identity& current);

  std::string path_;
  std::optional<Identity> known_;
  std::uint64_t offset_ = 0;
  std::string unread_;
  bool lost_ = false;
};

} // namespace ctl
