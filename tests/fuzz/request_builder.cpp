// Any class, element name, command and id as a request: a line each, the id being the rest.

#include "Fuzzing.h"
#include "PlainDocument.h"
#include "adapter/UPOSXMLAdapter.h"
#include "xml/XmlText.h"

#include <string>

using fuzzing::PlainDocument;
using fuzzing::require;
using xml::narrow;
using xml::widen;

namespace {

/// Well-formed UTF-8 of characters that a document may hold, without line ends of other systems,
/// which every XML reader turns into its own.
bool isPlainText(std::string_view text) {
  for (std::size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i++]);
    int more = 0;
    char32_t letter = lead;
    if (lead >= 0xF0) {
      more = 3;
      letter = lead & 0x07U;
    } else if (lead >= 0xE0) {
      more = 2;
      letter = lead & 0x0FU;
    } else if (lead >= 0xC0) {
      more = 1;
      letter = lead & 0x1FU;
    }
    const char32_t least[] = {0, 0x80, 0x800, 0x10000};
    for (int left = more; left > 0; --left) {
      if (i == text.size() || (static_cast<unsigned char>(text[i]) & 0xC0U) != 0x80U) {
        return false;
      }
      letter = letter << 6U | (static_cast<unsigned char>(text[i++]) & 0x3FU);
    }
    const bool character =
        letter == '\t' || letter == '\n' || (letter >= 0x20 && letter < 0xD800) ||
        (letter >= 0xE000 && letter <= 0xFFFD) || (letter >= 0x10000 && letter <= 0x10FFFF);
    if (lead >= 0xF8 || (lead >= 0x80 && more == 0) || letter < least[more] || !character) {
      return false;
    }
  }
  return true;
}

/// What `text` is for the library: up to its first NUL, and each byte that is no character
/// replaced.
std::string asRead(const std::string& text) {
  return narrow(widen(text).c_str());
}

std::string contentOf(PlainDocument::Element& element) {
  return narrow(element.getTextContent());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  PlainDocument::startLibrary();
  std::string_view rest = fuzzing::textOf(data, size);
  const std::string className(fuzzing::cutFront(rest, '\n'));
  const std::string type(fuzzing::cutFront(rest, '\n'));
  const std::string cmd(fuzzing::cutFront(rest, '\n'));
  const std::string id(rest);

  const std::string untouched = "not built";
  std::string request = untouched;
  UPOSXMLAdapter().toXML(className, type, cmd, id, request);
  if (request == untouched) {
    require(type != "request" || !isPlainText(className) || !isPlainText(cmd) || !isPlainText(id),
            "a request of plain words is built");
    return 0;
  }

  const PlainDocument document(request);
  require(document.acceptable(), "a request that was built is readable");
  const auto roots = document.elements(u"*");
  const auto children = PlainDocument::elementsBelow(*roots.at(0), u"*");
  require(narrow(roots.at(0)->getTagName()) == asRead(type), "the root is named by the type");
  require(children.size() == (id.empty() ? 2U : 3U), "an id stands there unless it is empty");
  const char* const names[] = {"type", "class", "id"};
  const std::string* const texts[] = {&cmd, &className, &id};
  for (std::size_t i = 0; i < children.size(); ++i) {
    require(narrow(children[i]->getTagName()) == names[i], "the children have their order");
    require(contentOf(*children[i]) == asRead(*texts[i]),
            "what is built parses back to the same words");
    require(!isPlainText(*texts[i]) || contentOf(*children[i]) == *texts[i],
            "plain words are not changed at all");
  }
  return 0;
}
