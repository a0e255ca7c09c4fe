#include "device_server/Program.h"

int main(int argc, char** argv) {
  try {
    return till::runProgram("quillmon-till", {argv + 1, argv + argc});
  } catch (...) { // nothing could be said about it either
    return 1;
  }
}
