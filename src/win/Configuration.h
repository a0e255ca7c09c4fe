#pragma once

#include <cstdint>
#include <string>

/// The service's configuration file, section "default". Each call reads the file again.
/// Threads: any. Errors: std::bad_alloc; a missing file or key gives the default.
namespace configuration {

/// The file's path from the root of the current drive. A tool that runs on another drive than the
/// service passes a path with a drive.
inline constexpr const char* kFile = "\\POS\\JavaPOS\\Config\\quillmon.properties";

/// The event port: its key, and the port without one.
inline constexpr const char* kEventPortKey = "provider.eventSocket.Port";
inline constexpr std::uint16_t kDefaultEventPort = 42114;

/// The default of "upos.requestSocket.Port".
inline constexpr std::uint16_t kDefaultRequestPort = 42115;

/// The default of "upos.requestSocket.retryTimeout", in milliseconds.
inline constexpr int kDefaultRetryTimeout = 10000;

/// The number as GetPrivateProfileIntA reads it (0 for a text that is not a number).
unsigned readInt(const char* key, int defaultValue, const char* file = kFile) noexcept;

/// The text, truncated to 255 characters.
std::string readText(const char* key, const char* defaultValue, const char* file = kFile);

} // namespace configuration
