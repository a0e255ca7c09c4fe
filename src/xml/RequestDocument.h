#pragma once

#include <string>

namespace xml {

/// Builds the request document: root element `type` with the children "type" (`cmd`), "class" and,
/// unless `id` is empty, "id". UTF-8, with the library's XML declaration. The arguments are narrow
/// text in the local code page.
///
/// Threads: any, within an XmlLibrary session.
/// Errors: CoreUnavailable; std::runtime_error when a text cannot be converted or the document
/// cannot be written; the library's exceptions, e.g. xercesc::DOMException for an invalid element
/// name or a control character.
std::string buildRequestDocument(const std::string& className, const std::string& type,
                                 const std::string& cmd, const std::string& id);

/// Thrown when the library has no DOM implementation with the feature "Core".
class CoreUnavailable {};

} // namespace xml
