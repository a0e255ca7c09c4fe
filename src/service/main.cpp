#include "service/CommandLine.h"
#include "win/CodeSearch.h"

#include <exception>

using service::runCommandLine;

int main(int argc, char* argv[]) {
  win::loadCodeFromSystemOnly();
  try {
    return runCommandLine(argc, argv);
  } catch (const std::exception&) {
    return 1; // out of memory: no message is possible
  }
}
