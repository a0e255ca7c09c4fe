#pragma once

#include <string>
#include <vector>

namespace till {

/// The whole program: reads its command line, plays the till until told to end. `name` is what it
/// is called by, for its help. Returns the exit code; the process may end inside instead, because
/// nothing can wake a thread that waits for standard input.
int runProgram(const std::string& name, std::vector<std::string> arguments);

} // namespace till
