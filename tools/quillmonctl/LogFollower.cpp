#include "quillmonctl/LogFollower.h"

#include "quillmonctl/System.h"

#include <fmt/format.h>

#include <algorithm>

namespace ctl {
namespace {

constexpr int kMaxBackups = 5; // the service keeps no more

} // namespace

LogFollower::LogFollower(std::string path, std::size_t lines) : path_(std::move(path)) {
  const std::optional<File> file = open(path_);
  if (!file) {
    return;
  }
  known_ = file->identity;
  readRest(*file);
  std::size_t cut = unread_.size();
  for (std::size_t i = 0; i <= lines && cut != std::string::npos; ++i) {
    cut = cut == 0 ? std::string::npos : unread_.rfind('\n', cut - 1);
  }
  unread_.erase(0, cut == std::string::npos ? 0 : cut + 1);
}

std::optional<LogFollower::File> LogFollower::open(const std::string& path) {
  const HANDLE handle = CreateFileW(wide(path).c_str(), GENERIC_READ,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    return std::nullopt;
  }
  File file{win::Handle(handle), {}};
  BY_HANDLE_FILE_INFORMATION information = {};
  GetFileInformationByHandle(handle, &information);
  file.identity = {information.dwVolumeSerialNumber,
                   std::uint64_t{information.nFileIndexHigh} << 32U | information.nFileIndexLow};
  return file;
}

void LogFollower::readRest(const File& file) {
  LARGE_INTEGER to = {};
  to.QuadPart = static_cast<LONGLONG>(offset_);
  SetFilePointerEx(file.handle.get(), to, nullptr, FILE_BEGIN);
  std::string piece(65536, '\0');
  DWORD count = 0;
  while (::ReadFile(file.handle.get(), piece.data(), static_cast<DWORD>(piece.size()), &count,
                    nullptr) &&
         count > 0) {
    unread_.append(piece, 0, count);
    offset_ += count;
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
  return takeLines();
}

std::vector<std::string> LogFollower::takeLines() {
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
