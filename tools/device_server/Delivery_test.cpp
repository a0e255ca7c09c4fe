#include "device_server/Delivery.h"
#include "device_server/Documents.h"
#include "device_server/Frame.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace till {
namespace {

using testing::ElementsAre;
using testing::StartsWith;

constexpr std::string_view kDocument = "<response></response>";

Delivery plan(const char* misbehaviour) {
  return planAnswer(parseMisbehaviour(misbehaviour, answerMisbehaviours()), kDocument);
}
std::vector<std::string> planned(const char* misbehaviour) {
  return planEvent(parseMisbehaviour(misbehaviour, eventMisbehaviours()), kDocument);
}

TEST(Misbehaviour, isReadBackAsItWasGiven) {
  for (const char* text : {"none", "stall", "huge 3", "slow 200000", "not-xml"}) {
    EXPECT_EQ(parseMisbehaviour(text, answerMisbehaviours()).text(), text);
  }
}

TEST(Misbehaviour, complainsAboutWhatItCannotRead) {
  const struct {
    const char* text;
    const char* complaint;
  } kRows[] = {
      {"", "unknown misbehaviour ''"},
      {"sulk", "unknown misbehaviour 'sulk' (one of: none, stall,"},
      {"stall 5", "'stall' takes no number"},
      {"huge", "'huge' takes a number from 1 to 200000"},
      {"huge 0", "'huge' takes a number from 1 to 200000"},
      {"huge 200001", "'huge' takes a number from 1 to 200000"},
      {"huge 5x", "'huge' takes a number from 1 to 200000"},
      {"slow -5", "'slow' takes a number from 1 to 200000"},
  };
  for (const auto& row : kRows) {
    try {
      parseMisbehaviour(row.text, answerMisbehaviours());
      ADD_FAILURE() << "no complaint about " << row.text;
    } catch (const std::invalid_argument& problem) {
      EXPECT_THAT(problem.what(), StartsWith(row.complaint));
    }
  }
}

TEST(Misbehaviour, ofEventsAndOfAnswersAreNotMixedUp) {
  EXPECT_THROW(parseMisbehaviour("stall", eventMisbehaviours()), std::invalid_argument);
  EXPECT_THROW(parseMisbehaviour("oversize", answerMisbehaviours()), std::invalid_argument);
}

TEST(PlannedAnswer, isOneFramedSendWithoutAFault) {
  const Delivery delivery = plan("none");
  EXPECT_EQ(delivery.bytes, frame(kDocument));
  EXPECT_EQ(delivery.pieceSize, 0U);
  EXPECT_EQ(delivery.before.count(), 0);
  EXPECT_EQ(delivery.end, Delivery::End::Close);
}

TEST(PlannedAnswer, isNothingForTheFaultsThatDoNotAnswer) {
  EXPECT_EQ(plan("stall").bytes, "");
  EXPECT_EQ(plan("stall").end, Delivery::End::Hold);
  EXPECT_EQ(plan("close-early").bytes, "");
  EXPECT_EQ(plan("close-early").end, Delivery::End::Close);
  EXPECT_EQ(plan("reset").bytes, "");
  EXPECT_EQ(plan("reset").end, Delivery::End::Reset);
}

TEST(PlannedAnswer, isTheSameBytesInPieces) {
  EXPECT_EQ(plan("pieces").bytes, frame(kDocument));
  EXPECT_EQ(plan("pieces").pieceSize, 64U);
  EXPECT_EQ(plan("pieces").between.count(), 10);
  EXPECT_EQ(plan("byte-at-a-time").bytes, frame(kDocument));
  EXPECT_EQ(plan("byte-at-a-time").pieceSize, 1U);
  EXPECT_EQ(plan("slow 250").bytes, frame(kDocument));
  EXPECT_EQ(plan("slow 250").before.count(), 250);
}

TEST(PlannedAnswer, withGarbageStillHoldsTheMessageBetweenTheFirstMarks) {
  const std::string bytes = plan("garbage").bytes;
  EXPECT_FALSE(bytes.starts_with(kStartMark));
  EXPECT_FALSE(bytes.ends_with(frame(kDocument)));
  EXPECT_EQ(FrameScanner().feed(bytes), kDocument);
}

TEST(PlannedAnswer, truncatedHasNoEndMark) {
  const std::string bytes = plan("truncate").bytes;
  EXPECT_EQ(bytes, "\x1B<response>");
}

TEST(PlannedAnswer, thatIsNoXmlIsFramedProperly) {
  EXPECT_EQ(FrameScanner().feed(plan("not-xml").bytes), "This is no XML: <&");
}

TEST(PlannedEvent, isOneFramedDatagramWithoutAFault) {
  EXPECT_THAT(planned("none"), ElementsAre(frame(kDocument)));
}

TEST(PlannedEvent, carriesItsFault) {
  const std::string whole = frame(kDocument);
  EXPECT_THAT(planned("pieces"), ElementsAre(whole.substr(0, 11), whole.substr(11)));
  EXPECT_THAT(planned("twice"), ElementsAre(whole + whole));
  EXPECT_THAT(planned("empty"), ElementsAre("", whole));
  EXPECT_THAT(planned("truncate"), ElementsAre(whole.substr(0, 11)));
  ASSERT_EQ(planned("oversize").size(), 1U);
  EXPECT_EQ(planned("oversize")[0].size(), 4096U);
  ASSERT_EQ(planned("garbage").size(), 1U);
  EXPECT_FALSE(planned("garbage")[0].starts_with(kStartMark));
  EXPECT_EQ(FrameScanner().feed(planned("garbage")[0]), kDocument);
  ASSERT_EQ(planned("not-xml").size(), 1U);
  EXPECT_EQ(FrameScanner().feed(planned("not-xml")[0]), "This is no XML: <&");
}

std::string eventNamed(std::string_view name) {
  return std::string(kEventDeclaration).append("<event>").append(name).append(kEventEnd);
}
Delivery streamed(const char* misbehaviour, const std::vector<std::string>& names = {"A"}) {
  std::vector<std::string> documents;
  for (const std::string& name : names) {
    documents.push_back(eventNamed(name));
  }
  return planStream(parseMisbehaviour(misbehaviour, streamMisbehaviours()), documents);
}

TEST(PlannedStream, isOneUnframedSendWithoutAFault) {
  const Delivery delivery = streamed("none");
  EXPECT_EQ(delivery.bytes, eventNamed("A"));
  EXPECT_EQ(delivery.pieceSize, 0U);
  EXPECT_EQ(delivery.between.count(), 0);
  EXPECT_EQ(delivery.end, Delivery::End::Hold);
}

TEST(PlannedStream, isTheSameBytesInPieces) {
  EXPECT_EQ(streamed("pieces").bytes, eventNamed("A"));
  EXPECT_EQ(streamed("pieces").pieceSize, 64U);
  EXPECT_EQ(streamed("pieces").between.count(), 10);
  EXPECT_EQ(streamed("byte-at-a-time").bytes, eventNamed("A"));
  EXPECT_EQ(streamed("byte-at-a-time").pieceSize, 1U);
}

TEST(PlannedStream, carriesItsFault) {
  EXPECT_EQ(streamed("stall").bytes, "");
  EXPECT_EQ(streamed("twice").bytes, eventNamed("A") + eventNamed("A"));
  EXPECT_EQ(streamed("no-declaration").bytes, "<event>A</event>");
  EXPECT_EQ(streamed("other-declaration").bytes,
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?><event>A</event>");
  EXPECT_EQ(streamed("truncate").bytes, eventNamed("A").substr(0, eventNamed("A").size() / 2));
  EXPECT_EQ(streamed("not-xml").bytes, eventNamed("This is no XML: <&"));
  const std::string noisy = streamed("garbage").bytes;
  EXPECT_THAT(noisy, testing::HasSubstr(eventNamed("A")));
  EXPECT_FALSE(noisy.starts_with(kEventDeclaration));
  EXPECT_FALSE(noisy.ends_with(kEventEnd));
  for (const char* word : {"stall", "twice", "no-declaration", "truncate", "not-xml", "garbage"}) {
    EXPECT_EQ(streamed(word).end, Delivery::End::Hold) << word;
    EXPECT_FALSE(endsStream(parseMisbehaviour(word, streamMisbehaviours()))) << word;
  }
}

TEST(PlannedStream, isSeveralEventsAtOnce) {
  EXPECT_EQ(streamed("batch 2", {"A", "B"}).bytes, eventNamed("A") + eventNamed("B"));
  EXPECT_EQ(streamed("batch-first 2", {"A", "B", "C"}).bytes,
            eventNamed("A") + "<event>B</event><event>C</event>");
  EXPECT_EQ(streamed("batch-bare 2", {"A", "B"}).bytes, "<event>A</event><event>B</event>");
  EXPECT_EQ(streamBatch(parseMisbehaviour("batch 2", streamMisbehaviours())), 2U);
  EXPECT_EQ(streamBatch(parseMisbehaviour("batch-bare 7", streamMisbehaviours())), 7U);
  EXPECT_EQ(streamBatch(parseMisbehaviour("twice", streamMisbehaviours())), 1U);
}

TEST(PlannedStream, endsWithHalfAnEventWhenItIsCut) {
  const std::string half = eventNamed("A").substr(0, eventNamed("A").size() / 2);
  EXPECT_EQ(streamed("cut").bytes, half);
  EXPECT_EQ(streamed("cut").end, Delivery::End::Close);
  EXPECT_EQ(streamed("reset").bytes, half);
  EXPECT_EQ(streamed("reset").end, Delivery::End::Reset);
  EXPECT_TRUE(endsStream(parseMisbehaviour("cut", streamMisbehaviours())));
  EXPECT_TRUE(endsStream(parseMisbehaviour("reset", streamMisbehaviours())));
}

TEST(PlannedStream, faultsAreReadBackAsTheyWereGiven) {
  for (const char* text : {"none", "batch 3", "batch-first 200000", "cut"}) {
    EXPECT_EQ(parseMisbehaviour(text, streamMisbehaviours()).text(), text);
  }
}

} // namespace
} // namespace till
