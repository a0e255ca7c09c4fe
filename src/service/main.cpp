#include "service/CommandLine.h"
#include "win/CodeSearch.h"

#include <exception>

int main(int argc, char* argv[]) {
  win::loadCodeFromSystemOnly();
  try {
    return runCommandLine(argc, argv);
  } catch (const std::exception&) {
    return 1; // without memory for a path or a line there is none for a message either
  }
}
