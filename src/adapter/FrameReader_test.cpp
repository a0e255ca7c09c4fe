#include "adapter/FrameReader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <memory>
#include <string>
#include <vector>

using adapter::ByteBuffer;
using adapter::FrameArea;
using adapter::kFrameEnd;
using adapter::readFrame;
using testing::ElementsAre;

namespace {

/// A reader on a source that returns its pieces one by one, then `end`.
class Reader {
public:
  explicit Reader(std::deque<std::string> pieces, int end = 0)
      : pieces_(std::move(pieces)), end_(end) {}

  std::string read() {
    ByteBuffer out(1024, 1.5F);
    read(out);
    return {out.text(), out.size()};
  }

  void read(ByteBuffer& out) {
    readFrame(
        frame_, out,
        [this](char* area, int size) {
          calls.emplace_back("receive");
          EXPECT_EQ(size, 1024);
          if (pieces_.empty()) {
            return end_;
          }
          const std::string piece = pieces_.front();
          pieces_.pop_front();
          EXPECT_LE(piece.size(), 1024U);
          // Bytes that were not received must not be read: a mark there would end the message.
          std::fill_n(area, size, kFrameEnd);
          std::copy(piece.begin(), piece.end(), area);
          return static_cast<int>(piece.size());
        },
        [this](const ByteBuffer& collected) {
          calls.push_back(std::string("used up:") + collected.text());
        },
        [this](const ByteBuffer& collected) {
          calls.push_back(std::string("end mark:") + collected.text());
        });
  }

  [[nodiscard]] bool allHandedOut() const { return pieces_.empty(); }
  FrameArea& frame() { return *frameOwner_; }

  std::vector<std::string> calls;

private:
  std::deque<std::string> pieces_;
  int end_;
  // On the heap, so that the sanitizer detects an access beyond it.
  std::unique_ptr<FrameArea> frameOwner_ = std::make_unique<FrameArea>();
  FrameArea& frame_ = *frameOwner_;
};

struct Row {
  const char* label;
  std::deque<std::string> pieces;
  std::string message;
};

TEST(FrameReader, YieldsTheBytesBetweenTheMarks) {
  const Row rows[] = {
      {"a bare message",
       {"\x1B"
        "abc\x08"},
       "abc"},
      {"garbage before and after",
       {"xyz\x1B"
        "abc\x08rest"},
       "abc"},
      {"an empty message", {"\x1B\x08"}, ""},
      {"an end mark outside a message is dropped",
       {"\x08\x08\x1B"
        "abc\x08"},
       "abc"},
      {"a begin mark inside a message is data",
       {"\x1B"
        "a\x1B"
        "bc\x08"},
       "a\x1B"
       "bc"},
      {"two begin marks", {"\x1B\x1B\x08"}, "\x1B"},
      {"marks in pieces of their own", {"\x1B", "abc", "\x08"}, "abc"},
      {"byte by byte", {"x", "\x1B", "a", "b", "c", "\x08"}, "abc"},
      {"garbage in a piece of its own",
       {"garbage",
        "\x1B"
        "ab",
        "c\x08"},
       "abc"},
      {"the begin mark last in its piece", {"garbage\x1B", "abc\x08"}, "abc"},
      {"zero bytes",
       {std::string("\0\x1B"
                    "a\0b\x08",
                    6)},
       std::string("a\0b", 3)},
      {"bytes above 127", {"\x9B\x1B\xFF\x88\x9B\x08"}, "\xFF\x88\x9B"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.label);
    Reader reader(row.pieces);
    EXPECT_EQ(reader.read(), row.message);
    EXPECT_TRUE(reader.allHandedOut());
  }
}

TEST(FrameReader, EndsAtOnceWithWhatWasCollectedWhenNothingMoreArrives) {
  const Row rows[] = {
      {"nothing at all", {}, ""},
      {"garbage only", {"garbage"}, ""},
      {"an end mark only", {"\x08"}, ""},
      {"a begin mark only", {"\x1B"}, ""},
      {"half a message",
       {"garbage\x1B"
        "abc"},
       "abc"},
      {"half a message in pieces",
       {"\x1B"
        "ab",
        "c"},
       "abc"},
  };
  for (const int end : {0, -1}) {
    for (const Row& row : rows) {
      SCOPED_TRACE(row.label);
      Reader reader(row.pieces, end);
      EXPECT_EQ(reader.read(), row.message);
      EXPECT_EQ(std::count(reader.calls.begin(), reader.calls.end(), "receive"),
                static_cast<std::ptrdiff_t>(row.pieces.size() + 1));
      EXPECT_EQ(reader.frame().count, 0);
      EXPECT_EQ(reader.frame().position, 0);
    }
  }
}

TEST(FrameReader, AfterAnEndTheNextReadReceivesAgain) {
  Reader reader({}, -1);
  EXPECT_EQ(reader.read(), "");
  EXPECT_EQ(reader.read(), "");
  EXPECT_EQ(std::count(reader.calls.begin(), reader.calls.end(), "receive"), 2);
}

TEST(FrameReader, BytesAfterAnEndMarkBeginTheNextScan) {
  Reader reader({"\x1B"
                 "one\x08\x1B"
                 "two\x08"
                 "garbage\x1B"
                 "thr",
                 "ee\x08"});
  EXPECT_EQ(reader.read(), "one");
  EXPECT_EQ(reader.frame().position, 5);
  EXPECT_EQ(reader.read(), "two");
  EXPECT_EQ(reader.frame().position, 10);
  EXPECT_EQ(reader.read(), "three");
  EXPECT_EQ(reader.frame().position, 3);
}

TEST(FrameReader, AFullAreaIsUsedToItsLastByte) {
  for (const std::size_t length : {1021U, 1022U, 1023U, 1024U, 1025U, 2046U, 2048U, 5000U}) {
    SCOPED_TRACE(length);
    const std::string message(length, 'm');
    const std::string framed = '\x1B' + message + '\x08';
    std::deque<std::string> pieces;
    for (std::size_t begin = 0; begin < framed.size(); begin += 1024) {
      pieces.push_back(framed.substr(begin, 1024));
    }
    Reader reader(pieces);
    EXPECT_EQ(reader.read(), message);
  }
}

TEST(FrameReader, EverySplitOfAMessageGivesTheSameBytes) {
  const std::string stream = "gar\x08"
                             "bage\x1Bmes\x1Bsage\x08tail";
  for (std::size_t first = 0; first <= stream.size(); ++first) {
    for (std::size_t second = first; second <= stream.size(); ++second) {
      std::deque<std::string> pieces;
      for (const std::string& piece :
           {stream.substr(0, first), stream.substr(first, second - first), stream.substr(second)}) {
        if (!piece.empty()) {
          pieces.push_back(piece);
        }
      }
      ASSERT_EQ(Reader(pieces).read(), "mes\x1Bsage") << first << "/" << second;
    }
  }
}

TEST(FrameReader, ReportsTheCollectedBytesBeforeEachReceiveAndAtTheEndMark) {
  Reader reader({"x",
                 "\x1B"
                 "ab",
                 "c", "\x08"});
  reader.read();
  EXPECT_THAT(reader.calls, ElementsAre("used up:", "receive", "used up:", "receive", "used up:ab",
                                        "receive", "used up:abc", "receive", "end mark:abc"));
}

TEST(FrameReader, ReportsNoConsumedAreaWhileBytesRemain) {
  Reader reader({"\x1B"
                 "one\x08\x1B"
                 "two\x08"});
  reader.read();
  reader.calls.clear();
  reader.read();
  EXPECT_THAT(reader.calls, ElementsAre("end mark:two"));
}

TEST(FrameReader, TheRestOfADroppedMessageIsSkipped) {
  std::deque<std::string> pieces = {"\x1B"
                                    "ab",
                                    "cd", "ef", "gh\x08ij\x08", "k\x1Bl\x1Bm\x08"};
  FrameArea frame;
  ByteBuffer out(1024, 1.5F);
  readFrame(
      frame, out,
      [&](char* area, int) {
        const std::string piece = pieces.front();
        pieces.pop_front();
        return static_cast<int>(piece.copy(area, piece.size()));
      },
      [](ByteBuffer& collected) {
        if (collected.size() > 3) {
          collected.clear();
        }
      },
      [](const ByteBuffer&) {});
  EXPECT_STREQ(out.text(), "l\x1Bm");
  EXPECT_TRUE(pieces.empty());
}

TEST(FrameReader, AppendsToTheContentOfTheBuffer) {
  Reader reader({"\x1B"
                 "abc\x08"});
  ByteBuffer out(0, 1.5F);
  out.appendString("before:");
  reader.read(out);
  EXPECT_STREQ(out.text(), "before:abc");
}

} // namespace
