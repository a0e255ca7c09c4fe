#include "quillmonctl/BinaryPath.h"

#include "quillmonctl/IgnoreCase.h"

#include <algorithm>

namespace ctl {
namespace {

constexpr std::string_view kExtension = ".exe";

std::size_t endOfProgram(std::string_view text) {
  for (std::size_t i = 0; i + kExtension.size() <= text.size(); ++i) {
    const std::size_t end = i + kExtension.size();
    if (equalsIgnoreCase(text.substr(i, kExtension.size()), kExtension) &&
        (end == text.size() || text[end] == ' ')) {
      return end;
    }
  }
  return std::min(text.find(' '), text.size());
}

} // namespace

BinaryPath BinaryPath::parse(std::string_view text) {
  BinaryPath path;
  path.isQuoted = text.starts_with('"');
  if (path.isQuoted) {
    text.remove_prefix(1);
  }
  const std::size_t end =
      path.isQuoted ? std::min(text.find('"'), text.size()) : endOfProgram(text);
  path.program = text.substr(0, end);
  std::replace(path.program.begin(), path.program.end(), '/', '\\');
  text.remove_prefix(std::min(end + (path.isQuoted ? 1 : 0), text.size()));
  text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
  path.arguments = text;
  return path;
}

std::string BinaryPath::text() const {
  const bool needsQuotes = program.find(' ') != std::string::npos;
  std::string result = needsQuotes ? "\"" + program + "\"" : program;
  if (!arguments.empty()) {
    result.append(" ").append(arguments);
  }
  return result;
}

std::vector<std::string> BinaryPath::hijackCandidates() const {
  std::vector<std::string> programs;
  if (!isQuoted) {
    for (std::size_t blank = program.find(' '); blank != std::string::npos;
         blank = program.find(' ', blank + 1)) {
      programs.push_back(program.substr(0, blank) + std::string(kExtension));
    }
  }
  return programs;
}

} // namespace ctl
