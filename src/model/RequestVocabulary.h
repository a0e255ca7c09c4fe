#pragma once

/// The words of the request protocol.
namespace request_vocabulary {

inline constexpr const char* kRequest = "request";
inline constexpr const char* kEnumerateInstances = "enumerateInstances";
inline constexpr const char* kGetInstance = "getInstance";
// Not sent by this program.
inline constexpr const char* kResponse = "response";
inline constexpr const char* kEnumerateInstanceNames = "enumerateInstanceNames";

} // namespace request_vocabulary
