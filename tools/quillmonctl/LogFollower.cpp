#include "quillmonctl/LogFollower.h"

#include "quillmonctl/System.h"

#include <fmt/format.h>

#include <algorithm>

namespace ctl {
namespace {

constexpr int kMaxBackups = 5; // the service keeps no more
constexpr std::size_t kPiece = 65536;

} // namespace

LogFollower::LogFollower(std::string path, std::size_t lines) : path_(std::move(path)) {
  const std::optional<File> file = open(path_);
  if (!file) {
    return;
  }
  known_ = file->identity;
  offset_ = startOfLast(*file, lines);
}

std::optional<LogFollower::File> LogFollower::open(const std::string& path) {
  const HANDLE handle = CreateFileW(wide(path).c_str(), GENERIC_READ,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    return std::nullopt;
  }
  File file{win::Handle(handle), {}, 0};
  BY_HANDLE_FILE_INFORMATION information = {};
  GetFileInformationByHandle(handle, &information);
  file.identity = {information.dwVolumeSerialNumber,
                   std::uint64_t{information.nFileIndexHigh} << 32U | information.nFileIndexLow};
  file.size = std::uint64_t{information.nFileSizeHigh} << 32U | information.nFileSizeLow;
  return file;
}

std::string LogFollower::readPiece(const File& file, std::uint64_t offset, std::size_t size) {
  LARGE_INTEGER to = {};
  to.QuadPart = static_cast<LONGLONG>(offset);
  SetFilePointerEx(file.handle.get(), to, nullptr, FILE_BEGIN);
  std::string piece(size, '\0');
  DWORD count = 0;
  ::ReadFile(file.handle.get(), piece.data(), static_cast<DWORD>(size), &count, nullptr);
  piece.resize(count);
  return piece;
}

std::uint64_t LogFollower::startOfLast(const File& file, std::size_t lines) {
  for (std::uint64_t start = file.size; start > 0;) {
    const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(start, kPiece));
    start -= size;
    const std::string piece = readPiece(file, start, size);
    for (std::size_t i = piece.size(); i-- > 0;) {
      if (piece[i] == '\n' && lines-- == 0) {
        return start + i + 1;
      }
    }
  }
  return 0;
}

void LogFollower::readRest(const File& file) {
  for (std::string piece; !(piece = readPiece(file, offset_, kPiece)).empty();) {
    unread_ += piece;
    offset_ += piece.size();
  }
}

void LogFollower::readCopies(const Identity& current) {
  std::vector<File> copies; // from the newest to the one that was read last
  for (int i = 1; i <= kMaxBackups; ++i) {
    std::optional<File> copy = open(fmt::format("{}.{}", path_, i));
    if (!copy) {
      break;
    }
    if (copy->identity == current) {
      continue; // rotated between two looks of ours
    }
    const bool isKnown = copy->identity == known_;
    copies.push_back(std::move(*copy));
    if (isKnown) {
      std::for_each(copies.rbegin(), copies.rend(), [&](const File& file) {
        readRest(file);
        offset_ = 0;
      });
      return;
    }
  }
  unread_.clear(); // half a line, whose end is lost
  lost_ = true;
}

std::vector<std::string> LogFollower::newLines() {
  if (const std::optional<File> file = open(path_)) {
    if (file->identity != known_) {
      if (known_) {
        readCopies(file->identity);
      }
      known_ = file->identity;
      offset_ = 0;
    }
    readRest(*file);
  }
  std::vector<std::string> lines;
  std::size_t start = 0;
  for (std::size_t end = 0; (end = unread_.find('\n', start)) != std::string::npos;
       start = end + 1) {
    lines.push_back(unread_.substr(start, end - start));
  }
  unread_.erase(0, start);
  return lines;
}

} // namespace ctl
