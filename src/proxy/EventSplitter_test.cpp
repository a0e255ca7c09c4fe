#include "proxy/testing/SplitterRules.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <string_view>
#include <vector>

using proxy::EventSplitter;
using proxy_testing::begunStartMarker;
using proxy_testing::joined;
using proxy_testing::SplitterRules;
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

TEST(EventSplitter, AfterAStartMarkerDocumentsAreSplitAtEndMarkers) {
  EXPECT_THAT(splitAll({S + "1" + E + "2" + E + "3" + E}),
              ElementsAre(S + "1" + E, "2" + E, "3" + E));
}

TEST(EventSplitter, WithoutAStartMarkerAllPendingTextIsOneDocument) {
  EXPECT_THAT(splitAll({"1" + E + "2" + E + "3"}), ElementsAre("1" + E + "2" + E + "3"));
}

TEST(EventSplitter, AnEndMarkerAloneCompletesThePendingText) {
  EXPECT_THAT(splitAll({S + "1", E}), ElementsAre(S + "1" + E));
}

TEST(EventSplitter, AnEndMarkerSplitAnywhereIsFound) {
  for (std::size_t cut = 0; cut <= E.size(); ++cut) {
    EXPECT_THAT(splitAll({S + "1" + E.substr(0, cut), E.substr(cut)}), ElementsAre(S + "1" + E))
        << cut;
    EXPECT_THAT(splitAll({"1" + E.substr(0, cut), E.substr(cut) + "2"}),
                cut == E.size() ? ElementsAre("1" + E) : ElementsAre("1" + E + "2"))
        << cut;
  }
}

TEST(EventSplitter, AnEndMarkerInThreePiecesIsFound) {
  EXPECT_THAT(splitAll({"1</e", "v", "ent>", "2"}), ElementsAre("1" + E));
}

TEST(EventSplitter, TextBeforeAStartMarkerIsADocumentOfItsOwn) {
  EXPECT_THAT(splitAll({"\r\n" + S + "1" + E}), ElementsAre("\r\n", S + "1" + E));
}

TEST(EventSplitter, AStartMarkerCompletesThePendingText) {
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

TEST(EventSplitter, AStartMarkerSplitAnywhereIsFound) {
  for (std::size_t cut = 1; cut < S.size(); ++cut) {
    SCOPED_TRACE(cut);
    EXPECT_THAT(splitAll({S + "1", E + S.substr(0, cut), S.substr(cut) + "2" + E}),
                ElementsAre(S + "1" + E, S + "2" + E));
    EXPECT_THAT(splitAll({S + "1", "rest" + S.substr(0, cut), S.substr(cut) + "2" + E}),
                ElementsAre(S + "1rest", S + "2" + E));
    EXPECT_THAT(splitAll({S.substr(0, cut), "", S.substr(cut) + "2" + E + "3" + E}),
                ElementsAre(S + "2" + E, "3" + E));
  }
}

TEST(EventSplitter, APrefixThatBecomesNoStartMarkerIsText) {
  EXPECT_THAT(splitAll({S + "1<", "/event>"}), ElementsAre(S + "1" + E));
  EXPECT_THAT(splitAll({S + "1" + E + "<", "event>2" + E}),
              ElementsAre(S + "1" + E, "<event>2" + E));
  EXPECT_THAT(splitAll({S + "1<?xml", "<?xml", S + "2" + E}),
              ElementsAre(S + "1<?xml<?xml", S + "2" + E));
  // Without the held-back prefix the first document would end with the "<".
  EXPECT_THAT(splitAll({"1" + E + "<", "event>2" + E}), ElementsAre("1" + E, "<event>2" + E));
}

TEST(EventSplitter, AStartMarkerSplitAfterADocumentOfTheSamePieceIsFound) {
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
  EXPECT_THAT(splitter.split("<?"), IsEmpty());
  EXPECT_EQ(splitter.pendingSize(), 2U);
}

TEST(EventSplitter, RandomReceivesOutsideAStartMarkerGiveWhatTheSplitterRulesGive) {
  std::mt19937 random(52);
  const Texts alphabet = {S,        E,         "a",     "<",   "</event",       ">",          "</",
                          "event>", "</e</ev", "</eve", "nt>", S.substr(0, 20), S.substr(20), "<<",
                          "\n"};
  for (int round = 0; round < 20'000; ++round) {
    EventSplitter splitter;
    SplitterRules rules;
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
      if (begunStartMarker(piece) != 0) {
        piece += "|";
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

// Also where a text ends within what is no start marker in the end: what completes no document of
// the rules' is the same.
TEST(EventSplitter, AHeldBackPrefixChangesOnlyADocumentThatItEnds) {
  const Texts begun = {"<", "<?xml", S.substr(0, 54)};
  const Texts before = {"", "1", S, S + "1", S + "1" + E, "1" + E + S + "2" + E, S + "1" + E + "2"};
  const Texts after = {"|", "|" + E, "|" + S + "9" + E, "<", E, S + "9", "/event>", ""};
  for (const std::string& first : before) {
    for (const std::string& middle : begun) {
      for (const std::string& last : after) {
        SplitterRules rules;
        Texts expected;
        for (const std::string& text : {first + middle, last, "|" + E}) {
          for (const std::string& document : rules.split(text)) {
            expected.push_back(document);
          }
        }
        ASSERT_EQ(splitAll({first + middle, last, "|" + E}), expected)
            << first << " and " << middle << " and " << last;
      }
    }
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

TEST(EventSplitter, OnePieceAndByteByByteGiveTheSameDocuments) {
  std::mt19937 random(3);
  for (int round = 0; round < 200; ++round) {
    const Texts documents = randomDocuments(random);
    ASSERT_EQ(splitAll({joined(documents)}), documents);
    ASSERT_EQ(splitAll(byteByByte(joined(documents))), documents);
  }
}

TEST(EventSplitter, RandomPiecesGiveTheSameDocuments) {
  std::mt19937 random(4);
  for (int round = 0; round < 20'000; ++round) {
    const Texts documents = randomDocuments(random);
    const std::string stream = joined(documents);
    std::vector<std::size_t> cuts(random() % 8);
    std::generate(cuts.begin(), cuts.end(), [&] { return random() % stream.size(); });
    ASSERT_EQ(splitAll(cutAt(stream, cuts)), documents);
  }
}

} // namespace
