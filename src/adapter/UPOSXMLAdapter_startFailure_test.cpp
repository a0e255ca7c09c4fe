#include "RecordedTrace.h"
#include "adapter/RequestSocket.h"
#include "adapter/UPOSXMLAdapter.h"
#include "xml/XmlLibrary.h"
#include "xml/testing/FailingMemory.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using xml::XmlLibrary;

std::string adapter::exchangeRequest(const std::string& request) {
  return request;
}

namespace {

using Lines = std::vector<std::string>;

/// Number of allocations of one start of the library.
std::size_t allocationsOfAStart() {
  const std::size_t before = failing_memory::allocations();
  const XmlLibrary library;
  EXPECT_TRUE(library.started());
  return failing_memory::allocations() - before;
}

#ifdef _WIN32

// A start that runs out of memory would leave the library unusable until the service is restarted.
TEST(XmlLibraryStart, AllocatesNothingOnTheHeap) {
  recorded_trace::setSwitchedOn(false);
  allocationsOfAStart(); // the first one makes the locks and the area
  EXPECT_EQ(allocationsOfAStart(), 0U);
}

#else

// The distribution's library needs more than the area, and partly allocates elsewhere. One test,
// because a library whose start failed stays unusable. The start fails at its last allocation,
// where the library's default is to end the process.
TEST(XmlLibraryStartFailure, IsReportedByEveryLaterCall) {
  recorded_trace::setSwitchedOn(false);
  allocationsOfAStart(); // the first one makes the locks too
  const std::size_t needed = allocationsOfAStart();
  ASSERT_EQ(allocationsOfAStart(), needed);
  ASSERT_GT(needed, 10U);

  const failing_memory::LeaksAllowed leaksAllowed;
  UPOSXMLAdapter adapter;
  std::string out = "as it was";
  testing::internal::CaptureStderr();
  failing_memory::failAfter(needed - 1);
  const std::uint32_t status = adapter.toXML("C", "request", "getInstance", "ID", out);
  EXPECT_TRUE(failing_memory::disarm());
  const std::string console = testing::internal::GetCapturedStderr();
  EXPECT_EQ(status, 3U);
  EXPECT_EQ(out, "as it was");
  const std::string start = "Error during XML4C Initialization.\n  Exception message:";
  const std::string end = "An error occurred creating the document\n";
  EXPECT_EQ(console.substr(0, start.size()), start);
  EXPECT_EQ(console.substr(console.size() - end.size()), end);
  EXPECT_GT(console.size(), start.size() + end.size()) << "there is a message";

  EXPECT_FALSE(XmlLibrary().started());
  recorded_trace::setSwitchedOn(true);
  EXPECT_EQ(adapter.fromXML("<r/>"), 0xFFFFFFFF);
  EXPECT_EQ(recorded_trace::lines(), (Lines{"<<XMLAdapter XML Exception >> : ",
                                            "the library could not be started earlier"}));
  EXPECT_EQ(adapter.fromXMLEvent("<event/>").type, "NA");
  EXPECT_EQ(adapter.toXML("C", "request", "getInstance", "ID", out), 3U);
  EXPECT_EQ(out, "as it was");
}

#endif

} // namespace
