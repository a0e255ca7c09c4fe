#include "quillmonctl/ProbeEvent.h"

#include "quillmonctl/ProductNames.h"

#include <fmt/format.h>

namespace ctl {

std::string probeDocument(const std::string& id) {
  return fmt::format("<?xml version='1.0' encoding='UTF-8' standalone='no' ?>"
                     "<event type=\"probe\" classname=\"QuillmonProbe\" modifyInstanceCode=\"\" "
                     "provider=\"QuillmonProbe\">"
                     "<field name=\"DeviceID\" type=\"string\">{}</field>"
                     "<field name=\"ManufacturerName\" type=\"string\">ORVEX</field></event>",
                     id);
}

std::string probeDatagram(const std::string& id) {
  constexpr char kEscape = '\x1b';
  constexpr char kBackspace = '\x08';
  return kEscape + probeDocument(id) + kBackspace;
}

std::string probeQuery(const std::string& id) {
  return fmt::format("SELECT * FROM {} WHERE deviceid = \"{}\"", kEventClass, id);
}

} // namespace ctl
