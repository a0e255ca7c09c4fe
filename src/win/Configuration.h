#pragma once

#include <string>

/// The service's configuration file, section "default". Read afresh at each call; never fails: a
/// missing file or key gives the default. Any thread. A tool that runs on another drive than the
/// service names the file with its drive.
namespace configuration {

/// The file, from the root of the current drive.
inline constexpr const char* kFile = "\\POS\\JavaPOS\\Config\\quillmon.properties";

/// The number as the platform's private-profile reader gives it (text that is no number: 0).
unsigned readInt(const char* key, int defaultValue, const char* file = kFile) noexcept;

/// The text, cut at 255 characters.
std::string readText(const char* key, const char* defaultValue, const char* file = kFile);

} // namespace configuration
