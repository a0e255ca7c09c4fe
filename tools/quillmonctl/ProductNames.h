#pragma once

/// The names by which the system knows the service.
namespace ctl {

inline constexpr wchar_t kService[] = L"QuillmonServ";
inline constexpr char kServiceText[] = "QuillmonServ";
inline constexpr char kProvider[] = "QuillmonService";
inline constexpr char kEventClass[] = "QuillmonEvent";
inline constexpr wchar_t kTraceEvent[] = L"Global\\TRC_QUILLMON";

} // namespace ctl
