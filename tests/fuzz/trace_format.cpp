// Any format text with any arguments: the first line is the format, each further one an argument,
// d and l with a number of 32 or 64 bits, p with an address, n for no text, else a text.

#include "Fuzzing.h"
#include "trace/PrintfFormat.h"

#include <algorithm>
#include <cstdlib>
#include <optional>

using fuzzing::require;
using trace::formatPrintf;
using trace::TraceArgument;

namespace {

/// No field is wider, no number more precise.
constexpr std::size_t kMostOfOneArgument = 1024 + 8;

TraceArgument argumentOf(std::string_view line) {
  const char kind = line.empty() ? 's' : line.front();
  line.remove_prefix(std::min<std::size_t>(1, line.size()));
  const long long number = std::atoll(std::string(line).c_str());
  switch (kind) {
  case 'd':
    return TraceArgument(static_cast<std::int32_t>(number));
  case 'l':
    return TraceArgument(static_cast<std::int64_t>(number));
  case 'p':
    return TraceArgument(reinterpret_cast<const void*>(static_cast<std::uintptr_t>(number)));
  case 'n':
    return TraceArgument(static_cast<const char*>(nullptr));
  default:
    return TraceArgument(line);
  }
}

std::size_t longestOf(const TraceArgument& argument) {
  const auto* const text = std::get_if<std::string_view>(&argument.value());
  return std::max(text != nullptr ? text->size() : 0, kMostOfOneArgument);
}

std::string format(std::string_view text, const std::vector<TraceArgument>& arguments) {
  switch (arguments.size()) {
  case 0:
    return formatPrintf(text, {});
  case 1:
    return formatPrintf(text, {arguments[0]});
  case 2:
    return formatPrintf(text, {arguments[0], arguments[1]});
  case 3:
    return formatPrintf(text, {arguments[0], arguments[1], arguments[2]});
  default:
    return formatPrintf(text, {arguments[0], arguments[1], arguments[2], arguments[3]});
  }
}

template <class... Arguments>
std::string byTheLibrary(const std::string& text, Arguments... arguments) {
  const int length = std::snprintf(nullptr, 0, text.c_str(), arguments...);
  require(length >= 0, "the C library can write it");
  std::string written(static_cast<std::size_t>(length), '\0');
  std::snprintf(written.data(), written.size() + 1, text.c_str(), arguments...);
  return written;
}

/// What the C library's printf makes of a format that is a single conversion of a fitting number or
/// text; none where the C library defines no result, or the service writes no more than its limit.
std::optional<std::string> libraryResult(std::string_view text, const TraceArgument& argument) {
  const auto skip = [&text](std::string_view letters) {
    const std::string_view found =
        text.substr(0, std::min(text.find_first_not_of(letters), text.size()));
    text.remove_prefix(found.size());
    return std::string(found);
  };
  if (!text.starts_with('%')) {
    return std::nullopt;
  }
  text.remove_prefix(1);
  const std::string flags = skip("-+ #0");
  const std::string width = skip("0123456789");
  const bool precise = text.starts_with('.');
  text.remove_prefix(precise ? 1 : 0);
  const std::string precision = precise ? "." + skip("0123456789") : "";
  const std::string length = skip("hl");
  if (text.size() != 1 || width.size() > 3 || precision.size() > 4 || flags.size() > 8) {
    return std::nullopt;
  }
  const char kind = text.front();
  const bool alternative = flags.find('#') != std::string::npos;
  const bool zeros = flags.find('0') != std::string::npos;
  const std::string front = "%" + flags + width + precision;
  const auto& value = argument.value();
  const auto* const narrowNumber = std::get_if<std::int32_t>(&value);
  const auto* const wideNumber = std::get_if<std::int64_t>(&value);
  const auto* const words = std::get_if<std::string_view>(&value);
  if (words != nullptr) {
    const std::string terminated(words->substr(0, words->find('\0')));
    return kind == 's' && length.empty() && !alternative && !zeros
               ? std::optional(byTheLibrary(front + "s", terminated.c_str()))
               : std::nullopt;
  }
  if ((narrowNumber == nullptr && wideNumber == nullptr) ||
      (!length.empty() && length != "h" && length != "hh" && length != "l" && length != "ll")) {
    return std::nullopt;
  }
  const long long number = narrowNumber != nullptr ? *narrowNumber : *wideNumber;
  const bool isShort = length.starts_with('h');
  switch (kind) {
  case 'd':
  case 'i':
    if (alternative) {
      return std::nullopt;
    }
    return isShort ? byTheLibrary(front + length + kind, static_cast<int>(number))
                   : byTheLibrary(front + "ll" + kind, number);
  case 'x':
  case 'X':
  case 'o':
  case 'u':
    if (alternative && kind == 'u') {
      return std::nullopt;
    }
    if (isShort) {
      return byTheLibrary(front + length + kind, static_cast<unsigned>(number));
    }
    return byTheLibrary(front + "ll" + kind,
                        narrowNumber != nullptr
                            ? static_cast<unsigned long long>(static_cast<unsigned>(*narrowNumber))
                            : static_cast<unsigned long long>(number));
  default:
    return std::nullopt;
  }
}

std::string withoutPercentSigns(std::string_view text) {
  std::string rest(text);
  std::erase(rest, '%');
  return rest;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view lines = fuzzing::textOf(data, size);
  const std::string text(fuzzing::cutFront(lines, '\n'));
  const std::string_view terminated = std::string_view(text).substr(0, text.find('\0'));
  std::vector<TraceArgument> arguments;
  while (!lines.empty() && arguments.size() < 4) {
    arguments.push_back(argumentOf(fuzzing::cutFront(lines, '\n')));
  }

  const std::string message = format(text, arguments);
  std::size_t most = terminated.size();
  for (const TraceArgument& argument : arguments) {
    most += longestOf(argument);
  }
  require(message.size() <= most, "a message is bounded by its format and arguments");
  if (!arguments.empty()) {
    const auto expected = libraryResult(terminated, arguments.front());
    require(!expected || *expected == message, "a conversion reads as the C library's");
  }

  const std::string bare = formatPrintf(text, {});
  require(bare.size() <= terminated.size() &&
              withoutPercentSigns(bare) == withoutPercentSigns(terminated),
          "without arguments only doubled percent signs change");
  require(formatPrintf("%s", {TraceArgument(std::string_view(text))}) == terminated,
          "a text is written as it is");
  return 0;
}
