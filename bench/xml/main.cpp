// bench_xml: the XML library alone. Reads commands, one a line, and answers each with one line.
//
//   pair TIMES      that many starts, each with its stop; the microseconds of one
//   session TIMES   the same as the product does it
//   text N          makes an answer of N devices
//   tree            reads it, and holds the tree until the next command

#include "Commands.h"
#include "Documents.h"
#include "floor/BareXml.h"
#include "xml/XmlLibrary.h"

#include <memory>
#include <string>

using xml::XmlLibrary;

namespace bench {
namespace {

/// The microseconds of one.
template <class Session>
std::string timeOf(std::size_t times) {
  return std::to_string(microseconds(times, [] { const Session session; }) /
                        static_cast<double>(times));
}

void run() {
  std::string text;
  std::unique_ptr<bare_xml::Library> library;
  std::unique_ptr<bare_xml::Tree> tree;
  answerCommands([&](const std::string& command, std::istringstream& words) -> std::string {
    tree.reset();
    library.reset();
    if (command == "pair") {
      return timeOf<bare_xml::Library>(number(words));
    }
    if (command == "session") {
      return timeOf<XmlLibrary>(number(words));
    }
    if (command == "text") {
      text = documents::answer(number(words));
    } else if (command == "tree") {
      library = std::make_unique<bare_xml::Library>();
      tree = std::make_unique<bare_xml::Tree>(text);
    } else {
      return "unknown";
    }
    return "ok";
  });
}

} // namespace
} // namespace bench

int main() {
  bench::run();
}
