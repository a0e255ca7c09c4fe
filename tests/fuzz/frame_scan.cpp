// Any bytes on the request socket or the event port, in pieces of any length.

#include "Fuzzing.h"
#include "adapter/FrameReader.h"

#include <memory>
#include <optional>

using adapter::ByteBuffer;
using adapter::FrameArea;
using adapter::kFrameAreaSize;
using adapter::kFrameBegin;
using adapter::kFrameEnd;
using adapter::readFrame;
using fuzzing::require;

namespace {

struct Message {
  std::string text;
  bool complete;
  bool operator==(const Message&) const = default;
};

/// Messages by the framing's rules, of the whole stream at once; the last one may be incomplete.
std::vector<Message> messagesOf(std::string_view stream) {
  std::vector<Message> messages;
  for (;;) {
    const std::size_t begin = stream.find(kFrameBegin);
    if (begin == std::string_view::npos) {
      messages.push_back({"", false});
      return messages;
    }
    stream.remove_prefix(begin + 1);
    const std::size_t end = stream.find(kFrameEnd);
    messages.push_back({std::string(stream.substr(0, end)), end != std::string_view::npos});
    if (!messages.back().complete) {
      return messages;
    }
    stream.remove_prefix(end + 1);
  }
}

/// The messages that the reader finds when the stream arrives in `pieces` and then ends.
std::vector<Message> read(const std::vector<std::string_view>& pieces, int end) {
  // On the heap, where the sanitizer sees an access beyond it.
  const auto frame = std::make_unique<FrameArea>();
  std::size_t next = 0;
  std::size_t usedUp = 0;
  std::size_t receives = 0;
  std::vector<Message> messages;
  do {
    ByteBuffer out(1, 1.5F);
    bool complete = false;
    readFrame(
        *frame, out,
        [&](char* area, int size) {
          ++receives;
          require(size == kFrameAreaSize && area == frame->area.data(),
                  "the area is offered whole");
          // What was not received is nobody's to read: a mark there would end the message.
          frame->area.fill(receives % 2 == 0 ? kFrameEnd : kFrameBegin);
          if (next == pieces.size()) {
            return end;
          }
          pieces[next].copy(area, pieces[next].size());
          return static_cast<int>(pieces[next++].size());
        },
        [&](const ByteBuffer& collected) {
          require(&collected == &out, "the callable is shown what was collected");
          ++usedUp;
        },
        [&](const ByteBuffer&) { complete = true; });
    require(usedUp == receives, "the area is used up before each receive");
    require(out.text()[out.size()] == '\0', "a message ends with a NUL");
    require(out.size() <= out.capacity(), "a message is within its block");
    messages.push_back({{out.text(), out.size()}, complete});
  } while (messages.back().complete);
  return messages;
}

/// With a limit a message that is dropped leaves nothing behind: what is found next began at a
/// mark.
void checkDropping(std::string_view stream, const std::vector<std::string_view>& pieces) {
  constexpr std::uint32_t kLimit = 100;
  const auto frame = std::make_unique<FrameArea>();
  std::size_t next = 0;
  bool complete = true;
  while (complete) {
    ByteBuffer out(1, 1.5F);
    complete = false;
    readFrame(
        *frame, out,
        [&](char* area, int) {
          return next == pieces.size() ? 0 : static_cast<int>(pieces[next++].copy(area, 1024));
        },
        [](ByteBuffer& collected) {
          if (collected.size() > kLimit) {
            collected.clear();
          }
        },
        [&](const ByteBuffer&) { complete = true; });
    require(out.size() <= kLimit + kFrameAreaSize, "no message is longer than its limit");
    const std::string framed = kFrameBegin + std::string(out.text(), out.size()) +
                               (complete ? std::string(1, kFrameEnd) : "");
    require((!complete && out.size() == 0) || stream.find(framed) != std::string_view::npos,
            "a message is what lies behind a begin mark");
  }
}

/// What the exchange frames, its reader finds again, as far as no byte of it is a mark.
void checkRoundTrip(const std::string& text, std::string_view lengths) {
  ByteBuffer framed(-1, 0.0F);
  framed.appendString("forgotten");
  framed.clear();
  framed.appendChar(kFrameBegin);
  framed.appendString(text.c_str());
  framed.appendChar(kFrameEnd);
  const std::unique_ptr<ByteBuffer> copy = framed.clone();
  const std::string_view bytes(copy->text(), copy->size());
  require(bytes == std::string_view(framed.text(), framed.size()), "a copy is the same");
  require(read(fuzzing::piecesOf(bytes, lengths), 0) ==
              std::vector<Message>{{text, true}, {"", false}},
          "a framed text reads back");
}

} // namespace

/// The first line gives the lengths of the pieces, the rest is the stream.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view stream = fuzzing::textOf(data, size);
  const std::string_view lengths = fuzzing::cutFront(stream, '\n');
  const std::vector<Message> expected = messagesOf(stream);
  require(read(fuzzing::piecesOf(stream, lengths), 0) == expected,
          "the messages do not depend on the pieces");
  require(read(fuzzing::piecesOf(stream, ""), -1) == expected,
          "the messages of full areas and of a failing socket are the same");
  checkDropping(stream, fuzzing::piecesOf(stream, lengths));
  std::string text(stream.substr(0, stream.find('\0')));
  std::erase(text, kFrameEnd);
  checkRoundTrip(text, lengths);
  return 0;
}
