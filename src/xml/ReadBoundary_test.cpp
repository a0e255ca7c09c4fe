#include "RecordedTrace.h"
#include "xml/ReadBoundary.h"
#include "xml/XmlFailure.h"
#include "xml/XmlLibrary.h"
#include "xml/XmlText.h"

#include <gtest/gtest.h>
#include <xercesc/dom/DOMException.hpp>
#include <xercesc/util/IllegalArgumentException.hpp>
#include <xercesc/util/OutOfMemoryException.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLDOMMsg.hpp>

#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

using xml::narrow;
using xml::readGuarded;
using xml::XmlFailure;
using xml::XmlLibrary;

namespace {

using Lines = std::vector<std::string>;

class ReadBoundary : public testing::Test {
protected:
  void SetUp() override { recorded_trace::clear(); }

  /// Runs `read` guarded; captures standard error.
  bool run(const std::function<void()>& read) {
    testing::internal::CaptureStderr();
    const bool whole = readGuarded("<< the unknown line >> : ", read);
    console_ = testing::internal::GetCapturedStderr();
    return whole;
  }

  const XmlLibrary library_;
  std::string console_;
};

TEST_F(ReadBoundary, TracesNothingWithoutAnException) {
  bool ran = false;
  EXPECT_TRUE(run([&] { ran = true; }));
  EXPECT_TRUE(ran);
  EXPECT_EQ(recorded_trace::lines(), Lines{});
  EXPECT_EQ(console_, "");
}

TEST_F(ReadBoundary, TracesAnXmlExceptionInTwoLines) {
  std::string message;
  EXPECT_FALSE(run([&] {
    const xercesc::IllegalArgumentException exception(__FILE__, __LINE__,
                                                      xercesc::XMLExcepts::AttrList_BadIndex,
                                                      xercesc::XMLPlatformUtils::fgMemoryManager);
    message = narrow(exception.getMessage());
    throw exception;
  }));
  EXPECT_FALSE(message.empty());
  EXPECT_EQ(recorded_trace::lines(), (Lines{"<<XMLAdapter XML Exception >> : ", message}));
  EXPECT_EQ(console_, "");
}

TEST_F(ReadBoundary, TracesAnUnreadableDocumentAsAnXmlException) {
  EXPECT_FALSE(run([] { throw XmlFailure("end expected (line 1, column 2)"); }));
  EXPECT_EQ(recorded_trace::lines(),
            (Lines{"<<XMLAdapter XML Exception >> : ", "end expected (line 1, column 2)"}));
  EXPECT_EQ(console_, "");
}

TEST_F(ReadBoundary, TracesADomExceptionInTwoLines) {
  std::string message;
  EXPECT_FALSE(run([&] {
    const xercesc::DOMException exception(xercesc::DOMException::NOT_FOUND_ERR, 0,
                                          xercesc::XMLPlatformUtils::fgMemoryManager);
    message = narrow(exception.getMessage());
    throw xercesc::DOMException(exception);
  }));
  EXPECT_FALSE(message.empty());
  EXPECT_EQ(recorded_trace::lines(), (Lines{"<<XMLAdapter DOM Exception >> : ", message}));
  EXPECT_EQ(console_, "");
}

TEST_F(ReadBoundary, TracesAnythingElseInOneLineAndOnTheConsole) {
  const std::vector<std::function<void()>> bodies = {
      [] { throw xercesc::OutOfMemoryException(); },
      [] { throw std::bad_alloc(); },
      [] { throw std::runtime_error("of no known kind"); },
      [] { throw 42; },
  };
  for (const std::function<void()>& body : bodies) {
    recorded_trace::clear();
    EXPECT_FALSE(run(body));
    EXPECT_EQ(recorded_trace::lines(), Lines{"<< the unknown line >> : "});
    EXPECT_EQ(console_, "Unexpected Exception \n");
  }
}

TEST_F(ReadBoundary, PercentSignsInAMessageAreTracedUnchanged) {
  EXPECT_FALSE(run([] { throw XmlFailure("%s%n%d 100%% %"); }));
  EXPECT_EQ(recorded_trace::lines(), (Lines{"<<XMLAdapter XML Exception >> : ", "%s%n%d 100%% %"}));
}

} // namespace
