#pragma once

#include <optional>

namespace till {

/// Runs the command for authors of device servers that the command line names: check-document or
/// check-server. Returns its exit code; none where the line names no such command.
std::optional<int> runCheckCommand(int argc, const char* const* argv);

} // namespace till
