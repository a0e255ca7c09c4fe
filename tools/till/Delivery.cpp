#include "till/Delivery.h"

#include "till/Documents.h"
#include "till/Frame.h"

#include <fmt/format.h>

#include <charconv>
#include <stdexcept>

namespace till {
namespace {

using namespace std::string_view_literals;

constexpr std::size_t kLargestNumber = 200'000;
constexpr std::size_t kPiece = 64;
constexpr std::chrono::milliseconds kBetweenPieces{10};

// Before: no start mark, but a stray end mark, a zero byte and bytes that are no UTF-8. After: what
// looks like another message.
constexpr std::string_view kNoiseBefore = "\x08noise \0\xFF\xFE <response>\r\n"sv;
constexpr std::string_view kNoiseAfter =
    "\r\nmore noise \x1B<response><error name=\"noise\"/>\x08"sv;
// On a stream there are no marks: what comes before a declaration counts as a document of its own.
constexpr std::string_view kStreamNoiseBefore = "noise \x1B\xFF\xFE <event>\r\n"sv;
constexpr std::string_view kStreamNoiseAfter = "\r\nmore noise </request>"sv;
constexpr std::string_view kOtherDeclaration = R"(<?xml version="1.0" encoding="UTF-8"?>)";
constexpr std::string_view kNotXml = "This is no XML: <&";
constexpr std::string_view kBlanks = " \t";

} // namespace

std::string Misbehaviour::text() const {
  return number == 0 ? word : fmt::format("{} {}", word, number);
}

const std::vector<MisbehaviourHelp>& answerMisbehaviours() {
  static const std::vector<MisbehaviourHelp> kKnown = {
      {"none", "answer properly"},
      {"stall", "take the request and never answer"},
      {"close-early", "take the request and close the connection"},
      {"pieces", "answer in several sends of 64 bytes, 10 ms apart"},
      {"byte-at-a-time", "answer in sends of one byte"},
      {"garbage", "bytes of noise before and after the frame"},
      {"error", "answer every request with an error answer"},
      {"huge N", "answer every request with N made-up instances (1 to 200000)"},
      {"truncate", "send half of the answer, no end mark, and close"},
      {"not-xml", "a proper frame whose content is no XML"},
      {"reset", "take the request and reset the connection"},
      {"slow MS", "answer after MS milliseconds (1 to 200000)"},
  };
  return kKnown;
}

const std::vector<MisbehaviourHelp>& eventMisbehaviours() {
  static const std::vector<MisbehaviourHelp> kKnown = {
      {"none", "send each event as one proper datagram"},
      {"pieces", "split each event over two datagrams"},
      {"twice", "put each event twice into one datagram"},
      {"garbage", "bytes of noise before and after the frame"},
      {"empty", "an empty datagram before each event"},
      {"oversize", "a datagram of 4096 bytes instead of each event"},
      {"truncate", "send half of the event, without an end mark"},
      {"not-xml", "a proper frame whose content is no XML"},
  };
  return kKnown;
}

const std::vector<MisbehaviourHelp>& streamMisbehaviours() {
  static const std::vector<MisbehaviourHelp> kKnown = {
      {"none", "send each event whole, in one send"},
      {"stall", "send nothing"},
      {"pieces", "send each event in sends of 64 bytes, 10 ms apart"},
      {"byte-at-a-time", "send each event in sends of one byte"},
      {"twice", "send each event twice, in one send"},
      {"batch N", "hold events back and send N at once (1 to 200000)"},
      {"batch-first N", "the same, only the first of them with its declaration"},
      {"batch-bare N", "the same, all without declaration"},
      {"no-declaration", "send each event without its declaration"},
      {"other-declaration", "send each event with a declaration that marks no start"},
      {"garbage", "bytes of noise before and after each event"},
      {"truncate", "send half of each event, without an end"},
      {"not-xml", "an event whose content is no XML instead of each event"},
      {"cut", "send half of the next event and close the connection, then behave"},
      {"reset", "send half of the next event and reset the connection, then behave"},
  };
  return kKnown;
}

Misbehaviour parseMisbehaviour(std::string_view text, const std::vector<MisbehaviourHelp>& known) {
  const std::string_view word = text.substr(0, text.find_first_of(kBlanks));
  std::string_view rest = text.substr(word.size());
  rest.remove_prefix(std::min(rest.find_first_not_of(kBlanks), rest.size()));

  std::string words;
  for (const MisbehaviourHelp& each : known) {
    const std::string_view name = each.usage.substr(0, each.usage.find(' '));
    words += words.empty() ? "" : ", ";
    words += each.usage;
    if (name != word) {
      continue;
    }
    Misbehaviour result{std::string(word), 0};
    const bool takesNumber = name.size() != each.usage.size();
    if (!takesNumber) {
      if (!rest.empty()) {
        throw std::invalid_argument(fmt::format("'{}' takes no number", word));
      }
      return result;
    }
    const char* const end = rest.data() + rest.size();
    const auto [stop, problem] = std::from_chars(rest.data(), end, result.number);
    if (problem != std::errc() || stop != end || result.number < 1 ||
        result.number > kLargestNumber) {
      throw std::invalid_argument(
          fmt::format("'{}' takes a number from 1 to {}", word, kLargestNumber));
    }
    return result;
  }
  throw std::invalid_argument(fmt::format("unknown misbehaviour '{}' (one of: {})", word, words));
}

Delivery planAnswer(const Misbehaviour& misbehaviour, std::string_view document) {
  const std::string& word = misbehaviour.word;
  Delivery plan;
  plan.bytes = frame(document);
  if (word == "stall") {
    plan.bytes.clear();
    plan.end = Delivery::End::Hold;
  } else if (word == "close-early") {
    plan.bytes.clear();
  } else if (word == "reset") {
    plan.bytes.clear();
    plan.end = Delivery::End::Reset;
  } else if (word == "pieces") {
    plan.pieceSize = kPiece;
    plan.between = kBetweenPieces;
  } else if (word == "byte-at-a-time") {
    plan.pieceSize = 1;
  } else if (word == "garbage") {
    plan.bytes = std::string(kNoiseBefore) + plan.bytes + std::string(kNoiseAfter);
  } else if (word == "truncate") {
    plan.bytes.resize(1 + document.size() / 2);
  } else if (word == "not-xml") {
    plan.bytes = frame(kNotXml);
  } else if (word == "slow") {
    plan.before = std::chrono::milliseconds(misbehaviour.number);
  }
  return plan;
}

std::vector<std::string> planEvent(const Misbehaviour& misbehaviour, std::string_view document) {
  const std::string& word = misbehaviour.word;
  const std::string whole = frame(document);
  if (word == "pieces") {
    return {whole.substr(0, whole.size() / 2), whole.substr(whole.size() / 2)};
  }
  if (word == "twice") {
    return {whole + whole};
  }
  if (word == "garbage") {
    return {std::string(kNoiseBefore) + whole + "more noise"};
  }
  if (word == "empty") {
    return {std::string(), whole};
  }
  if (word == "oversize") {
    return {frame(std::string(4094, 'x'))};
  }
  if (word == "truncate") {
    return {whole.substr(0, whole.size() / 2)};
  }
  if (word == "not-xml") {
    return {frame(kNotXml)};
  }
  return {whole};
}

std::size_t streamBatch(const Misbehaviour& misbehaviour) {
  return misbehaviour.word.starts_with("batch") ? misbehaviour.number : 1;
}

bool endsStream(const Misbehaviour& misbehaviour) {
  return misbehaviour.word == "cut" || misbehaviour.word == "reset";
}

Delivery planStream(const Misbehaviour& misbehaviour, const std::vector<std::string>& documents) {
  const std::string& word = misbehaviour.word;
  Delivery plan;
  plan.end = Delivery::End::Hold;
  if (word == "stall") {
    return plan;
  }
  for (const std::string& document : documents) {
    const std::string_view bare = std::string_view(document).substr(kEventDeclaration.size());
    if (word == "not-xml") {
      plan.bytes.append(kEventDeclaration).append("<event>").append(kNotXml).append(kEventEnd);
    } else if (word == "garbage") {
      plan.bytes.append(kStreamNoiseBefore).append(document).append(kStreamNoiseAfter);
    } else if (word == "other-declaration") {
      plan.bytes.append(kOtherDeclaration).append(bare);
    } else if (word == "no-declaration" || word == "batch-bare" ||
               (word == "batch-first" && !plan.bytes.empty())) {
      plan.bytes.append(bare);
    } else if (word == "truncate" || endsStream(misbehaviour)) {
      plan.bytes.append(document, 0, document.size() / 2);
    } else {
      plan.bytes.append(document).append(word == "twice" ? document : "");
    }
  }
  if (word == "pieces") {
    plan.pieceSize = kPiece;
    plan.between = kBetweenPieces;
  } else if (word == "byte-at-a-time") {
    plan.pieceSize = 1;
  } else if (endsStream(misbehaviour)) {
    plan.end = word == "cut" ? Delivery::End::Close : Delivery::End::Reset;
  }
  return plan;
}

} // namespace till
