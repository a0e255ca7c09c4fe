#include "RecordedTrace.h"
#include "adapter/UPOSXMLAdapter.h"
#include "xml/XmlLibrary.h"
#include "xml/testing/FailingMemory.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

using model::DeviceEvent;
using xml::XmlLibrary;

namespace {

const std::string kDocument =
    "<r><instance name='UPOS_Scanner'><field name='DeviceID' type='string'>an id that is too long "
    "for a string's own room</field><field name='ManufacturerName' type='string'>Veltran</field>"
    "</instance><event type='addInstance' classname='Scanner'><field name='DeviceID'>S1</field>"
    "<field name='ManufacturerName'>Veltran</field></event></r>";

/// Fails each allocation of a call in turn. The library is already running; failed starts are
/// tested in another program.
class OutOfMemory : public testing::Test {
protected:
  void SetUp() override { recorded_trace::setSwitchedOn(false); }
  void TearDown() override { recorded_trace::setSwitchedOn(true); }

  /// Runs `call` with the allocation after `granted` more failing; false if it needed no more.
  template <class Call>
  bool fails(std::size_t granted, const Call& call) {
    testing::internal::CaptureStderr();
    failing_memory::failAfter(granted);
    EXPECT_NO_THROW(call());
    const bool failed = failing_memory::disarm();
    console_ = testing::internal::GetCapturedStderr();
    return failed;
  }

  static void expectUsable() {
    UPOSXMLAdapter adapter;
    EXPECT_EQ(adapter.fromXML(kDocument), 0U);
    EXPECT_EQ(adapter.getInstances().size(), 1U);
  }

  const XmlLibrary running_;
  const failing_memory::LeaksAllowed leaksAllowed_;
  std::string console_;
};

TEST_F(OutOfMemory, AnAnswerIsReadWholeOrNotAtAll) {
  std::size_t granted = 0;
  for (bool failed = true; failed && !HasFailure(); ++granted) {
    SCOPED_TRACE(granted);
    UPOSXMLAdapter adapter;
    std::string document = kDocument;
    std::uint32_t status = 99;
    failed = fails(granted, [&] { status = adapter.fromXML(std::move(document)); });
    EXPECT_EQ(status, failed ? 0xFFFFFFFF : 0U);
    EXPECT_EQ(console_, failed ? "Unexpected Exception \n" : "");
    EXPECT_EQ(adapter.getInstances().size(), failed ? 0U : 1U);
    expectUsable();
  }
  EXPECT_GT(granted, 50U) << "there were allocations to fail";
}

TEST_F(OutOfMemory, AnEventIsNotPublished) {
  std::size_t granted = 0;
  for (bool failed = true; failed && !HasFailure(); ++granted) {
    SCOPED_TRACE(granted);
    UPOSXMLAdapter adapter;
    std::string document = kDocument;
    DeviceEvent event;
    failed = fails(granted, [&] { event = adapter.fromXMLEvent(std::move(document)); });
    EXPECT_EQ(console_, failed ? "Unexpected Exception \n" : "");
    EXPECT_EQ(event.type, failed ? "NA" : "addInstance");
    expectUsable();
  }
  EXPECT_GT(granted, 50U) << "there were allocations to fail";
}

TEST_F(OutOfMemory, ARequestIsNotBuilt) {
  std::size_t granted = 0;
  bool sawLibrarysException = false;
  for (bool failed = true; failed && !HasFailure(); ++granted) {
    SCOPED_TRACE(granted);
    UPOSXMLAdapter adapter;
    std::string className = "UPOS_Scanner";
    std::string id = "an id that is too long for a string's own room";
    std::string out = "as it was";
    std::uint32_t status = 99;
    failed = fails(granted, [&] {
      status = adapter.toXML(std::move(className), "request", "getInstance", std::move(id), out);
    });
    if (!failed) {
      EXPECT_NE(out, "as it was");
    } else if (console_ == "OutOfMemoryException\n") {
      EXPECT_EQ(status, 5U);
      EXPECT_EQ(out, "as it was");
      sawLibrarysException = true;
    } else {
      EXPECT_EQ(console_, "An error occurred creating the document\n");
      EXPECT_EQ(status, 3U);
      EXPECT_EQ(out, "as it was");
    }
    expectUsable();
  }
  EXPECT_GT(granted, 10U) << "there were allocations to fail";
  EXPECT_TRUE(sawLibrarysException);
}

} // namespace
