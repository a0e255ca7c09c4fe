#pragma once

#include <string>
#include <string_view>

namespace provider {

/// The parts of an object path, `Class.Key="id"`, that a retrieval uses. Text search only: escapes
/// are not decoded and no path is rejected. Errors: std::bad_alloc only.
struct ObjectPathText {
  /// The text before the first '.', or all of it.
  std::string className;
  /// The text between the first and the last double quote; the whole path without quotes; all text
  /// after a single quote.
  std::string deviceId;
};

ObjectPathText readObjectPath(std::string_view path);

/// True if the class text names an instance by an unnamed key: `UPOS_Scanner=5`,
/// `UPOS_Scanner="S1"`, the singleton `UPOS_Scanner=@`; with or without a namespace in front.
bool namesInstance(std::string_view classText) noexcept;

} // namespace provider
