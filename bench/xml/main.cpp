// bench_xml: the XML library alone. Reads commands, one a line, and answers each with one line.
//
//   pair TIMES      that many starts, each with its stop; the microseconds of one
//   session TIMES   the same as the product does it
//   text N          makes an answer of N devices
//   tree            reads it, and holds the tree until the next command

#include "Documents.h"
#include "floor/BareXml.h"
#include "xml/XmlLibrary.h"

#include <chrono>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

namespace {

/// The microseconds of one.
template <class Session>
double timeOf(std::size_t times) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point begin = Clock::now();
  for (std::size_t i = 0; i < times; ++i) {
    const Session session;
  }
  return std::chrono::duration<double, std::micro>(Clock::now() - begin).count() /
         static_cast<double>(times);
}

} // namespace

int main() {
  std::string text;
  std::unique_ptr<bare_xml::Library> library;
  std::unique_ptr<bare_xml::Tree> tree;
  std::cout << "ready" << std::endl;
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream words(line);
    std::string command;
    std::size_t number = 0;
    words >> command >> number;
    tree.reset();
    library.reset();
    if (command == "pair") {
      std::cout << timeOf<bare_xml::Library>(number) << std::endl;
    } else if (command == "session") {
      std::cout << timeOf<XmlLibrary>(number) << std::endl;
    } else if (command == "text") {
      text = documents::answer(number);
      std::cout << "ok" << std::endl;
    } else if (command == "tree") {
      library = std::make_unique<bare_xml::Library>();
      tree = std::make_unique<bare_xml::Tree>(text);
      std::cout << "ok" << std::endl;
    } else {
      std::cout << "unknown" << std::endl;
    }
  }
}
