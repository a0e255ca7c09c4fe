#pragma once

#include "model/IUPOSXmlAdapter.h"

#include <cstdint>
#include <string>

/// The adapter strategy's XML adapter: each request is one document over the request socket, each
/// answer one document back.
///
/// Owner: whoever got it from the factory. Threads: one at a time; reading and building take the
/// XML lock, so they run alone in the process and may wait for another thread's.
/// Errors: as the interface says; no exception leaves toXML, fromXML or fromXMLEvent except for
/// lack of memory for their by-value arguments, at the caller.
class UPOSXMLAdapter : public com::orvex::IUPOSXmlAdapter {
public:
  ~UPOSXMLAdapter() override = default;

  /// 0, or the number of the last failure in this process: 2 the DOM reported an error, 3 any other
  /// failure, 4 no "Core" implementation, 5 out of memory. `out` is left alone by a failure.
  std::uint32_t toXML(std::string className, std::string type, std::string cmd, std::string id,
                      std::string& out) override;
  /// Appends the instances of the answer to the list. 0, 1 for an error answer, 0xFFFFFFFF for an
  /// unreadable one.
  std::uint32_t fromXML(std::string response) override;
  std::string sendRequest(std::string request) override;
  InstanceList getInstances() override { return instances_; }
  /// An event of another manufacturer, or an unreadable one, has the type and class "NA".
  DeviceEvent fromXMLEvent(std::string message) override;

protected:
  InstanceList instances_;
  /// The fields of the instance being read.
  Instance pendingFields_;

private:
  std::uint32_t readResponse(std::string response);
};
