#pragma once

#include <string>
#include <string_view>

/// What a retrieval takes out of the text of an object path, `Class.Key="id"`. Plain text work: no
/// escapes are undone and no path is refused. May throw std::bad_alloc only.
struct ObjectPathText {
  /// The text before the first '.', or all of it.
  std::string className;
  /// The text between the first and the last double quote. Without quotes it is the whole path,
  /// with a single one everything behind it.
  std::string deviceId;
};

ObjectPathText readObjectPath(std::string_view path);

/// True where a class text names an instance, by a key without a name: `UPOS_Scanner=5`,
/// `UPOS_Scanner="S1"`, the singleton `UPOS_Scanner=@`; a namespace may stand before it.
bool namesInstance(std::string_view classText) noexcept;
