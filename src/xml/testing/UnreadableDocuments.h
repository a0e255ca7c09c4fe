#pragma once

#include <string>
#include <vector>

namespace xml_testing {

/// A document from which a reader must take nothing. Where possible it holds an instance and an
/// event of a kept manufacturer before its flaw.
struct UnreadableDocument {
  std::string label;
  std::string text;
};

inline const std::string kKeptContent =
    "<instance name='UPOS_Scanner'><field name='ManufacturerName' type='string'>ORVEX</field>"
    "</instance><event type='addInstance' classname='Scanner'>"
    "<field name='DeviceID' type='string'>SCANNER1</field>"
    "<field name='ManufacturerName' type='string'>ORVEX</field></event>";

inline std::string repeated(std::size_t times, const std::string& text) {
  std::string all;
  all.reserve(times * text.size());
  for (std::size_t i = 0; i < times; ++i) {
    all += text;
  }
  return all;
}

inline std::vector<UnreadableDocument> unreadableDocuments() {
  const std::string whole = "<r>" + kKeptContent + "</r>";
  std::vector<UnreadableDocument> documents = {
      {"empty", ""},
      {"white space only", " \t\r\n  \n"},
      {"no markup", "hello"},
      {"declaration only", "<?xml version='1.0' encoding='UTF-8'?>"},
      {"comment only", "<!-- nobody home -->"},
      {"root not closed", "<r>" + kKeptContent},
      {"wrong end tag", "<r>" + kKeptContent + "</s>"},
      {"overlapping tags", "<r>" + kKeptContent + "<a><b></a></b></r>"},
      {"text after the root", whole + "junk"},
      {"second root", whole + whole},
      {"text before the root", "junk" + whole},
      {"declaration not first", "\n<?xml version='1.0'?>" + whole},
      {"unknown version", "<?xml version='2.0'?>" + whole},
      {"unknown encoding", "<?xml version='1.0' encoding='none-such'?>" + whole},
      {"bytes that are not UTF-8", "<r>" + kKeptContent + "\xC3\x28</r>"},
      {"overlong UTF-8", "<r>" + kKeptContent + "\xC0\xAF</r>"},
      {"UTF-8 cut in a character", "<r>" + kKeptContent + "\xE2\x82"},
      {"UTF-8 declared, Latin-1 sent",
       "<?xml version='1.0' encoding='UTF-8'?><r>" + kKeptContent + "M\xFCller</r>"},
      {"ASCII declared, UTF-8 sent",
       "<?xml version='1.0' encoding='US-ASCII'?><r>" + kKeptContent + "M\xC3\xBCller</r>"},
      {"UTF-16 mark, little end first", "\xFF\xFE<"},
      {"UTF-16 mark, big end first", "\xFE\xFF<r/>"},
      {"UTF-16 text, ended by its first zero", std::string("\xFF\xFE<\0r\0/\0>\0", 10)},
      {"backspace", "<r>" + kKeptContent + "\x08</r>"},
      {"escape", "<r>" + kKeptContent + "\x1B</r>"},
      {"reference to a control character", "<r>" + kKeptContent + "&#8;</r>"},
      {"reference to no character", "<r>" + kKeptContent + "&#xFFFFFFFFFF;</r>"},
      {"unknown entity", "<r>" + kKeptContent + "&nbsp;</r>"},
      {"bare ampersand", "<r>" + kKeptContent + "A & B</r>"},
      {"less-than in an attribute", "<r>" + kKeptContent + "<a b='<'/></r>"},
      {"attribute twice", "<r>" + kKeptContent + "<a b='1' b='2'/></r>"},
      {"attribute without quotes", "<r>" + kKeptContent + "<a b=1/></r>"},
      {"CDATA not closed", "<r>" + kKeptContent + "<![CDATA[x</r>"},
      {"comment not closed", "<r>" + kKeptContent + "<!-- x</r>"},
      {"two hyphens in a comment", "<r>" + kKeptContent + "<!-- a -- b --></r>"},
      {"zero byte in the middle", "<r>" + kKeptContent + std::string(1, '\0') + "</r>"},
      {"document type", "<!DOCTYPE r>" + whole},
      {"document type with an entity",
       "<!DOCTYPE r [<!ENTITY e 'x'>]><r>" + kKeptContent + "&e;</r>"},
      {"document type elsewhere", "<!DOCTYPE r SYSTEM 'http://127.0.0.1:9/r.dtd'>" + whole},
      {"document type after the root", whole + "<!DOCTYPE r>"},
      {"entity of a file",
       "<!DOCTYPE r [<!ENTITY f SYSTEM 'file:///etc/passwd'>]><r>" + kKeptContent + "&f;</r>"},
      {"parameter entity", "<!DOCTYPE r [<!ENTITY % p SYSTEM 'file:///etc/passwd'>%p;]>" + whole},
      {"100,000 nested elements",
       "<r>" + kKeptContent + repeated(100'000, "<a>") + repeated(100'000, "</a>") + "</r>"},
      {"100,000 nested elements, never closed", repeated(100'000, "<a>")},
      {"100,000 nested instances",
       repeated(100'000, "<instance name='UPOS_Scanner'>") + kKeptContent},
  };
  std::string laughs = "<!DOCTYPE r [<!ENTITY l0 'lol'>";
  for (char level = '1'; level <= '9'; ++level) {
    const std::string below = std::string("&l") + static_cast<char>(level - 1) + ";";
    laughs += std::string("<!ENTITY l") + level + " '" + repeated(10, below) + "'>";
  }
  documents.push_back({"a billion laughs", laughs + "]><r>" + kKeptContent + "&l9;</r>"});
  for (const std::size_t length : {1U, 2U, 5U, 30U, 80U, 150U, 250U}) {
    documents.push_back(
        {"cut after " + std::to_string(length) + " bytes", whole.substr(0, length)});
  }
  return documents;
}

} // namespace xml_testing
