#pragma once

#include <string>

/// The request document: root element `type` with the children "type" (`cmd`), "class" and, unless
/// `id` is empty, "id". UTF-8 with the library's own declaration. The arguments are narrow text in
/// the local code page.
///
/// Within an XmlLibrary session; any thread.
/// Errors: throws CoreUnavailable; the library's exceptions (a name that cannot be an element's and
/// text with characters that no document may hold, such as control characters, are
/// xercesc::DOMException); std::runtime_error when the document could not be written.
std::string buildRequestDocument(const std::string& className, const std::string& type,
                                 const std::string& cmd, const std::string& id);

/// The library has no DOM implementation with the feature "Core".
class CoreUnavailable {};
