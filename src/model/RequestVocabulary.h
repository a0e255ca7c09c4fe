#pragma once

/// The words of the request protocol.
namespace request_vocabulary {

inline constexpr const char* kRequest = "request";
inline constexpr const char* kEnumerateInstances = "enumerateInstances";
inline constexpr const char* kGetInstance = "getInstance";
// Belong to the protocol, but are neither sent nor tested here.
inline constexpr const char* kResponse = "response";
inline constexpr const char* kEnumerateInstanceNames = "enumerateInstanceNames";

} // namespace request_vocabulary
