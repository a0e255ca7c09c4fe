#pragma once

#include "model/IUPOSXmlAdapter.h"

#include <cstdint>
#include <string>

/// The adapter strategy's XML adapter: sends each request as one document over the request socket
/// and reads one document as the answer.
///
/// Owner: the caller of the factory. Threads: one at a time; toXML, fromXML and fromXMLEvent take
/// the XML lock and may wait for another adapter.
/// Errors: statuses and trace lines; toXML, fromXML and fromXMLEvent do not throw, except
/// std::bad_alloc when the caller copies the arguments.
class UPOSXMLAdapter : public com::orvex::IUPOSXmlAdapter {
public:
  ~UPOSXMLAdapter() override = default;

  /// 0, or the status of the last failure in this process: 2 DOM error, 3 other failure, 4 no
  /// "Core" implementation, 5 out of memory. A failure leaves `out` unchanged.
  std::uint32_t toXML(std::string className, std::string type, std::string cmd, std::string id,
                      std::string& out) override;
  /// Appends the instances of the answer to the list. 0 on success, 1 for an error answer,
  /// 0xFFFFFFFF for an unreadable one.
  std::uint32_t fromXML(std::string response) override;
  std::string sendRequest(std::string request) override;
  model::InstanceList getInstances() override { return instances_; }
  /// The type and class are "NA" for an event of a foreign manufacturer and for an unreadable one.
  model::DeviceEvent fromXMLEvent(std::string message) override;

protected:
  model::InstanceList instances_;
  /// The fields of the instance being read.
  model::Fields pendingFields_;

private:
  std::uint32_t readResponse(std::string response);
};
