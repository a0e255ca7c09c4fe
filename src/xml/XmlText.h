#pragma once

#include <xercesc/util/XercesDefs.hpp>

#include <string>
#include <string_view>

namespace xml {

// Conversions between the XML library's UTF-16 and the service's narrow strings in the local code
// page. Threads: any, within an XmlLibrary session. Errors: out of memory.

/// Converts to the local code page; a character that it lacks becomes its replacement character.
/// `text` has no NUL, as no XML text has. A null pointer gives empty text.
std::string narrow(std::basic_string_view<XMLCh> text);
std::string narrow(const XMLCh* text);

/// Converts from the local code page, up to the first NUL. An invalid character becomes a
/// replacement character; empty if the platform cannot convert the text.
std::basic_string<XMLCh> widen(const std::string& text);

} // namespace xml
