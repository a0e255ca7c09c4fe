#pragma once

#include <string>

/// The service's configuration file, section "default". Each call reads the file again.
/// Threads: any. Errors: none; a missing file or key gives the default.
namespace configuration {

/// The file's path from the root of the current drive. A tool that runs on another drive than the
/// service passes a path with a drive.
inline constexpr const char* kFile = "\\POS\\JavaPOS\\Config\\quillmon.properties";

/// The number as GetPrivateProfileIntA reads it (0 for a text that is not a number).
unsigned readInt(const char* key, int defaultValue, const char* file = kFile) noexcept;

/// The text, truncated to 255 characters.
std::string readText(const char* key, const char* defaultValue, const char* file = kFile);

} // namespace configuration
