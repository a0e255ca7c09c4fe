#include "quillmonctl/ProbeEvent.h"

#include <gtest/gtest.h>

namespace {

using namespace ctl;

TEST(ProbeEvent, IsOneDocumentBetweenTheMarksOfTheProxyStrategysStream) {
  const std::string document = probeDocument("quillmonctl-1-2");
  EXPECT_TRUE(
      document.starts_with("<?xml version='1.0' encoding='UTF-8' standalone='no' ?><event "));
  EXPECT_EQ(document.find("</event>"), document.size() - 8);
}

TEST(ProbeEvent, ChangesNoDeviceAndIsPublished) {
  const std::string document = probeDocument("quillmonctl-1-2");
  EXPECT_NE(document.find(" type=\"probe\" "), std::string::npos);
  for (const char* const word :
       {"\"addInstance\"", "\"modifyInstance\"", "\"delInstance\"", "\"NA\""}) {
    EXPECT_EQ(document.find(word), std::string::npos) << word;
  }
  EXPECT_NE(document.find("\"ManufacturerName\" type=\"string\">ORVEX<"), std::string::npos);
  EXPECT_NE(document.find("\"DeviceID\" type=\"string\">quillmonctl-1-2<"), std::string::npos);
}

TEST(ProbeEvent, FitsIntoOneDatagramBetweenItsMarks) {
  const std::string id = "quillmonctl-4294967295-18446744073709551615";
  const std::string datagram = probeDatagram(id);
  EXPECT_LE(datagram.size(), 1024U);
  EXPECT_EQ(datagram, "\x1b" + probeDocument(id) + "\x08");
  EXPECT_EQ(datagram.find('\x08'), datagram.size() - 1);
}

TEST(ProbeEvent, IsTheOnlyEventThatItsSubscriptionSelects) {
  EXPECT_EQ(probeQuery("quillmonctl-1-2"),
            "SELECT * FROM QuillmonEvent WHERE deviceid = \"quillmonctl-1-2\"");
}

} // namespace
