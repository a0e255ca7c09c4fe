#include "xml/ReadBoundary.h"

#include "trace/UPOSLog.h"
#include "xml/XmlFailure.h"
#include "xml/XmlText.h"

#include <xercesc/dom/DOMException.hpp>
#include <xercesc/util/XMLException.hpp>

#include <iostream>
#include <string>

using trace::UPOSLog;

namespace xml {

namespace {

constexpr std::string_view kXmlLine = "<<XMLAdapter XML Exception >> : ";
constexpr std::string_view kDomLine = "<<XMLAdapter DOM Exception >> : ";

void traceException(std::string_view line, std::string_view message) noexcept {
  UPOSLog::trace(line);
  UPOSLog::trace("%s", message);
}

void traceException(std::string_view line, const XMLCh* message) noexcept {
  std::string text;
  try {
    text = narrow(message);
  } catch (...) { // out of memory: traced without the message
  }
  traceException(line, text);
}

} // namespace

void traceCurrentException(std::string_view unknownLine) noexcept {
  try {
    throw;
  } catch (const xercesc::XMLException& exception) {
    traceException(kXmlLine, exception.getMessage());
  } catch (const XmlFailure& failure) {
    traceException(kXmlLine, failure.what());
  } catch (const xercesc::DOMException& exception) {
    traceException(kDomLine, exception.getMessage());
  } catch (...) {
    UPOSLog::trace(unknownLine);
    std::cerr << "Unexpected Exception \n";
  }
}

} // namespace xml
