#pragma once

#include <xercesc/util/XercesDefs.hpp>

#include <string>

/// Text between the XML library's UTF-16 and the service's narrow strings in the local code page.
/// Only while the library is started (XmlLibrary). Any thread. Throws for lack of memory only.

/// `text` in the local code page; what it cannot show becomes the code page's replacement
/// character. A null pointer is empty text.
std::string narrow(const XMLCh* text);

/// The library's form of `text`, which ends at its first NUL. What is no character of the local
/// code page becomes a replacement character.
std::basic_string<XMLCh> widen(const std::string& text);
