#include "service/VersionIdent.h"

#include "service/Console.h"

namespace service {

namespace {

// Kept: never expanded, so every build prints "No level info found".
constexpr std::string_view kIdent = "%W%";

constexpr std::string_view kComponent = "Pelmar";
constexpr std::size_t kReleaseOffset = 10;
constexpr std::size_t kReleaseLength = 5;
constexpr std::size_t kLevelLength = 2;

std::string substring(std::string_view text, std::size_t position, std::size_t length) {
  return position < text.size() ? std::string(text.substr(position, length)) : std::string();
}

} // namespace

VersionLevel parseVersionIdent(std::string_view ident) {
  const std::size_t match = ident.find(kComponent);
  if (match == std::string_view::npos) {
    return {};
  }
  const std::size_t blank = ident.find(' ', match);
  return {true, substring(ident, match + kReleaseOffset, kReleaseLength),
          blank == std::string_view::npos ? "" : substring(ident, blank + 1, kLevelLength)};
}

void printVersion() {
  console::print("ORVEX point-of-service device management");
  console::print("Quillmon Service for Windows");
  const VersionLevel version = parseVersionIdent(kIdent);
  if (version.found) {
    console::print("Release:" + version.release + " Level:" + version.level);
  } else {
    console::print("No level info found");
  }
}

} // namespace service
