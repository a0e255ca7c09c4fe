#include "cache/EventSplitter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <numeric>
#include <random>
#include <string>
#include <string_view>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string S(EventSplitter::kStartMarker);
const std::string E(EventSplitter::kEndMarker);

using Texts = std::vector<std::string>;

Texts splitAll(const Texts& pieces) {
  EventSplitter splitter;
  Texts documents;
  for (const std::string& piece : pieces) {
    for (std::string& document : splitter.split(piece)) {
      documents.push_back(std::move(document));
    }
  }
  return documents;
}

std::string joined(const Texts& texts) {
  return std::accumulate(texts.begin(), texts.end(), std::string());
}

Texts byteByByte(const std::string& text) {
  Texts pieces;
  for (const char c : text) {
    pieces.emplace_back(1, c);
  }
  return pieces;
}

TEST(EventSplitter, OneDocumentInOnePiece) {
  EXPECT_THAT(splitAll({S + "<event>1" + E}), ElementsAre(S + "<event>1" + E));
}

TEST(EventSplitter, OneDocumentInThreePieces) {
  EXPECT_THAT(splitAll({S + "<eve", "nt>1</ev", "ent>"}), ElementsAre(S + "<event>1" + E));
}

TEST(EventSplitter, TwoDocumentsInOnePiece) {
  EXPECT_THAT(splitAll({S + "1" + E + S + "2" + E}), ElementsAre(S + "1" + E, S + "2" + E));
}

TEST(EventSplitter, BehindAStartMarkerDocumentsWithoutOneAreCutAtTheEndMarkers) {
  EXPECT_THAT(splitAll({S + "1" + E + "2" + E + "3" + E}),
              ElementsAre(S + "1" + E, "2" + E, "3" + E));
}

TEST(EventSplitter, WithoutAStartMarkerAllThatIsPendingIsOneDocument) {
  EXPECT_THAT(splitAll({"1" + E + "2" + E + "3"}), ElementsAre("1" + E + "2" + E + "3"));
}

TEST(EventSplitter, EndMarkerAloneCompletesWhatIsPending) {
  EXPECT_THAT(splitAll({S + "1", E}), ElementsAre(S + "1" + E));
}

TEST(EventSplitter, EndMarkerCutAnywhereIsSeen) {
  for (std::size_t cut = 0; cut <= E.size(); ++cut) {
    EXPECT_THAT(splitAll({S + "1" + E.substr(0, cut), E.substr(cut)}), ElementsAre(S + "1" + E))
        << cut;
    EXPECT_THAT(splitAll({"1" + E.substr(0, cut), E.substr(cut) + "2"}),
                cut == E.size() ? ElementsAre("1" + E) : ElementsAre("1" + E + "2"))
        << cut;
  }
}

TEST(EventSplitter, EndMarkerInThreePiecesIsSeen) {
  EXPECT_THAT(splitAll({"1</e", "v", "ent>", "2"}), ElementsAre("1" + E));
}

TEST(EventSplitter, TextBeforeAStartMarkerIsADocumentOfItsOwn) {
  EXPECT_THAT(splitAll({"\r\n" + S + "1" + E}), ElementsAre("\r\n", S + "1" + E));
}

TEST(EventSplitter, StartMarkerClosesWhatIsPending) {
  EXPECT_THAT(splitAll({S + "1", S + "2" + E}), ElementsAre(S + "1", S + "2" + E));
  EXPECT_THAT(splitAll({S + "1", "rest" + S + "2" + E}), ElementsAre(S + "1rest", S + "2" + E));
  EXPECT_THAT(splitAll({S + "1", "rest" + E + S + "2" + E}),
              ElementsAre(S + "1rest" + E, S + "2" + E));
}

TEST(EventSplitter, SeveralEndMarkersBeforeAStartMarkerStayOneDocument) {
  EXPECT_THAT(splitAll({"1" + E + "2" + E + S + "3" + E}),
              ElementsAre("1" + E + "2" + E, S + "3" + E));
}

TEST(EventSplitter, ASecondStartMarkerInOnePieceIsOrdinaryText) {
  EXPECT_THAT(splitAll({S + S + "1" + E}), ElementsAre(S + S + "1" + E));
  EXPECT_THAT(splitAll({S + "1" + E + "\n" + S + "2" + E}),
              ElementsAre(S + "1" + E, "\n" + S + "2" + E));
}

TEST(EventSplitter, ADocumentWithoutAStartMarkerIsADocument) {
  EXPECT_THAT(splitAll({"<event>1", "2" + E}), ElementsAre("<event>12" + E));
}

// Kept as the rule is: the receiver sees to it that no text ends so.
TEST(EventSplitter, StartMarkerCutBehindACompletedDocumentIsNotSeen) {
  EXPECT_THAT(splitAll({S + "1", E + S.substr(0, 10), S.substr(10) + "2" + E}),
              ElementsAre(S + "1" + E + S.substr(0, 10), S.substr(10) + "2" + E));
}

TEST(EventSplitter, StartMarkerCutBehindADocumentThatBeganInTheSamePieceIsPutTogether) {
  EXPECT_THAT(splitAll({S + "1" + E + S.substr(0, 10), S.substr(10) + "2" + E}),
              ElementsAre(S + "1" + E, S + "2" + E));
}

TEST(EventSplitter, IncompleteTextStaysPending) {
  EventSplitter splitter;
  EXPECT_THAT(splitter.split(""), IsEmpty());
  EXPECT_EQ(splitter.pendingSize(), 0U);
  EXPECT_THAT(splitter.split(S + "1"), IsEmpty());
  EXPECT_EQ(splitter.pendingSize(), S.size() + 1);
  EXPECT_THAT(splitter.split(""), IsEmpty());
  EXPECT_THAT(splitter.split("</EVENT></event ></ event>"), IsEmpty());
  EXPECT_EQ(splitter.split(E + "2").size(), 1U);
  EXPECT_EQ(splitter.pendingSize(), 0U);
}

TEST(EventSplitter, TellsHowMuchOfAStartMarkerHasBegun) {
  EXPECT_EQ(EventSplitter::begunStartMarker(""), 0U);
  EXPECT_EQ(EventSplitter::begunStartMarker("a"), 0U);
  EXPECT_EQ(EventSplitter::begunStartMarker(E), 0U);
  EXPECT_EQ(EventSplitter::begunStartMarker("</"), 0U);
  EXPECT_EQ(EventSplitter::begunStartMarker("<?xml version='1.0' <"), 1U);
  EXPECT_EQ(EventSplitter::begunStartMarker("<<<"), 1U);
  EXPECT_EQ(EventSplitter::begunStartMarker(S), 0U);
  EXPECT_EQ(EventSplitter::begunStartMarker(S + "<?"), 2U);
  for (std::size_t length = 0; length < S.size(); ++length) {
    EXPECT_EQ(EventSplitter::begunStartMarker(S.substr(0, length)), length);
    EXPECT_EQ(EventSplitter::begunStartMarker("1" + E + S.substr(0, length)), length);
  }
}

/// The rules word by word, however slow.
class LiteralRules {
public:
  Texts split(std::string text) {
    Texts documents;
    const std::size_t p = text.find(S);
    if (p != std::string::npos) {
      pending += text.substr(0, p);
      if (!pending.empty()) {
        text = text.substr(p);
        documents.push_back(pending);
        pending = "";
      }
      while (text.find(E) != std::string::npos) {
        const std::size_t length = text.find(E) + E.size();
        documents.push_back(text.substr(0, length));
        text = text.substr(length);
      }
      pending += text;
    } else {
      pending += text;
      if (pending.find(E) != std::string::npos) {
        documents.push_back(pending);
        pending = "";
      }
    }
    return documents;
  }

  std::string pending;
};

TEST(EventSplitter, RandomReceivesGiveWhatTheLiteralRulesGive) {
  std::mt19937 random(52);
  const Texts alphabet = {S,        E,         "a",     "<",   "</event",       ">",          "</",
                          "event>", "</e</ev", "</eve", "nt>", S.substr(0, 20), S.substr(20), "<<",
                          "\n"};
  for (int round = 0; round < 20'000; ++round) {
    EventSplitter splitter;
    LiteralRules rules;
    std::string sent;
    std::string given;
    for (auto pieces = 1 + random() % 8; pieces > 0; --pieces) {
      std::string piece;
      for (auto words = random() % 5; words > 0; --words) {
        piece += alphabet[random() % alphabet.size()];
      }
      if (random() % 2 == 0 && !piece.empty()) {
        piece.resize(random() % piece.size());
      }
      const Texts documents = splitter.split(piece);
      ASSERT_EQ(documents, rules.split(piece));
      ASSERT_EQ(splitter.pendingSize(), rules.pending.size());
      sent += piece;
      given += joined(documents);
    }
    ASSERT_EQ(given + rules.pending, sent); // nothing is lost or added
  }
}

/// Documents as they should be sent: each begins with the start marker, nothing stands between.
Texts randomDocuments(std::mt19937& random) {
  Texts documents;
  for (auto count = 1 + random() % 6; count > 0; --count) {
    documents.push_back(S + "<event>" + std::string(random() % 120, 'x') + E);
  }
  return documents;
}

/// Where one of the documents ends.
std::vector<std::size_t> endsOf(const Texts& documents) {
  std::vector<std::size_t> ends;
  for (std::size_t end = 0; const std::string& document : documents) {
    ends.push_back(end += document.size());
  }
  return ends;
}

Texts cutAt(const std::string& text, std::vector<std::size_t> cuts) {
  cuts.push_back(text.size());
  std::sort(cuts.begin(), cuts.end());
  Texts pieces;
  std::size_t begin = 0;
  for (const std::size_t cut : cuts) {
    pieces.push_back(text.substr(begin, cut - begin));
    begin = cut;
  }
  return pieces;
}

/// Some piece completes a document without holding a start marker, and does not end with it.
bool isCutWrongly(const Texts& pieces, const Texts& documents) {
  std::size_t begin = 0;
  for (const std::string& piece : pieces) {
    const std::size_t end = begin + piece.size();
    for (const std::size_t boundary : endsOf(documents)) {
      if (begin < boundary && boundary < end && piece.find(S) == std::string::npos) {
        return true;
      }
    }
    begin = end;
  }
  return false;
}

/// The pieces as a receiver that holds back begun start markers hands them on.
Texts withoutBegunStartMarkers(const Texts& pieces) {
  Texts texts;
  std::string held;
  for (const std::string& piece : pieces) {
    const std::string received = held + piece;
    const std::size_t whole = received.size() - EventSplitter::begunStartMarker(received);
    texts.push_back(received.substr(0, whole));
    held = received.substr(whole);
  }
  return texts;
}

TEST(EventSplitter, OnePieceAndByteByByteGiveTheSameDocuments) {
  std::mt19937 random(3);
  for (int round = 0; round < 200; ++round) {
    const Texts documents = randomDocuments(random);
    ASSERT_EQ(splitAll({joined(documents)}), documents);
    ASSERT_EQ(splitAll(byteByByte(joined(documents))), documents);
    ASSERT_EQ(splitAll(withoutBegunStartMarkers(byteByByte(joined(documents)))), documents);
  }
}

TEST(EventSplitter, RandomPiecesGiveTheSameDocumentsUnlessAStartMarkerIsCutBehindADocument) {
  std::mt19937 random(4);
  int wrong = 0;
  for (int round = 0; round < 20'000; ++round) {
    const Texts documents = randomDocuments(random);
    const std::string stream = joined(documents);
    std::vector<std::size_t> cuts(random() % 8);
    std::generate(cuts.begin(), cuts.end(), [&] { return random() % stream.size(); });
    const Texts pieces = cutAt(stream, cuts);
    ASSERT_EQ(splitAll(withoutBegunStartMarkers(pieces)), documents);
    if (isCutWrongly(pieces, documents)) {
      ++wrong;
      ASSERT_NE(splitAll(pieces), documents);
      ASSERT_EQ(joined(splitAll(pieces)), stream);
    } else {
      ASSERT_EQ(splitAll(pieces), documents);
    }
  }
  EXPECT_GT(wrong, 0);
  EXPECT_LT(wrong, 20'000);
}

// Searched from its beginning at each receive, the text takes thousands of times the time of one
// search.
TEST(EventSplitter, TimeIsLinearInTheTextReceived) {
  using Clock = std::chrono::steady_clock;
  constexpr int kPieces = 8000;
  const std::string piece = std::string(1000, '<') + "</even";
  std::string whole;
  for (int i = 0; i < kPieces; ++i) {
    whole += piece;
  }
  const auto begin = Clock::now();
  EXPECT_EQ(whole.find(E), std::string::npos);
  const auto oneSearch = Clock::now() - begin;
  EventSplitter splitter;
  const auto start = Clock::now();
  for (int i = 0; i < kPieces; ++i) {
    EXPECT_THAT(splitter.split(piece), IsEmpty());
  }
  EXPECT_LT(Clock::now() - start, 100 * oneSearch);
}

} // namespace
