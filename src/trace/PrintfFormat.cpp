#include "trace/PrintfFormat.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>
#include <type_traits>

namespace trace {

namespace {

/// Limit of a field's width and of a number's precision.
constexpr int kMaxWidth = 1024;

enum class Length { None, Char, Short, Long };

/// One conversion of a format, from its '%' to its conversion character.
struct Conversion {
  std::string_view text; ///< as written in the format
  bool left = false;
  bool sign = false;
  bool blank = false;
  bool alternate = false;
  bool zeros = false;
  int width = 0;
  std::optional<std::size_t> precision;
  Length length = Length::None;
  char kind = '\0'; ///< the conversion character; '\0' if the format ends before it
};

/// `text` up to its first NUL, as a C string.
std::string_view untilNul(std::string_view text) {
  return text.substr(0, text.find('\0'));
}

class ConversionReader {
public:
  /// `format` begins with '%'.
  explicit ConversionReader(std::string_view format) : format_(format) {}

  Conversion read() {
    Conversion conversion;
    while (readFlag(conversion)) {
    }
    conversion.width = static_cast<int>(std::min<std::size_t>(readNumber(), kMaxWidth));
    if (skip(".")) {
      conversion.precision = readNumber();
    }
    conversion.length = readLength();
    if (position_ < format_.size()) {
      conversion.kind = format_[position_++];
    }
    conversion.text = format_.substr(0, position_);
    return conversion;
  }

private:
  bool skip(std::string_view text) {
    const bool found = format_.substr(position_).starts_with(text);
    if (found) {
      position_ += text.size();
    }
    return found;
  }

  bool readFlag(Conversion& conversion) {
    switch (position_ < format_.size() ? format_[position_] : '\0') {
    case '-':
      conversion.left = true;
      break;
    case '+':
      conversion.sign = true;
      break;
    case ' ':
      conversion.blank = true;
      break;
    case '#':
      conversion.alternate = true;
      break;
    case '0':
      conversion.zeros = true;
      break;
    default:
      return false;
    }
    ++position_;
    return true;
  }

  /// No digits read as 0; a very large number saturates.
  std::size_t readNumber() {
    constexpr std::size_t kCeiling = 1'000'000'000;
    std::size_t number = 0;
    for (; position_ < format_.size() && format_[position_] >= '0' && format_[position_] <= '9';
         ++position_) {
      number = std::min(kCeiling, number * 10 + static_cast<std::size_t>(format_[position_] - '0'));
    }
    return number;
  }

  /// Arguments carry their own width, so only the modifiers that narrow it matter.
  Length readLength() {
    if (skip("hh")) {
      return Length::Char;
    }
    if (skip("h")) {
      return Length::Short;
    }
    const bool wide = skip("ll") || skip("l") || skip("I64") || skip("I32") || skip("I") ||
                      skip("j") || skip("z") || skip("t");
    return wide ? Length::Long : Length::None;
  }

  std::string_view format_;
  std::size_t position_ = 1;
};

void appendPadded(std::string& out, std::string_view text, const Conversion& conversion) {
  const auto width = static_cast<std::size_t>(conversion.width);
  const std::size_t padding = width - std::min(width, text.size());
  out.append(conversion.left ? 0 : padding, ' ');
  out.append(text);
  out.append(conversion.left ? padding : 0, ' ');
}

/// Uses snprintf with a format assembled from the parsed conversion.
template <class Number>
void appendNumber(std::string& out, const Conversion& conversion, Number number) {
  std::array<char, 16> format{};
  auto* end = format.data();
  const auto add = [&end](bool wanted, char letter) {
    if (wanted) {
      *end++ = letter;
    }
  };
  const bool decimal = conversion.kind == 'd' || conversion.kind == 'i' || conversion.kind == 'u';
  add(true, '%');
  add(conversion.left, '-');
  add(conversion.sign && std::is_signed_v<Number>, '+');
  add(conversion.blank && std::is_signed_v<Number>, ' ');
  add(conversion.alternate && !decimal, '#');
  add(conversion.zeros, '0');
  for (const char letter : std::string_view("*.*ll")) {
    *end++ = letter;
  }
  *end = conversion.kind;
  // A negative precision counts as none.
  const int precision =
      conversion.precision
          ? static_cast<int>(std::min<std::size_t>(*conversion.precision, kMaxWidth))
          : -1;
  std::array<char, kMaxWidth + 8> text{};
  const int length =
      std::snprintf(text.data(), text.size(), format.data(), conversion.width, precision, number);
  out.append(text.data(), static_cast<std::size_t>(std::max(length, 0)));
}

long long signedNumber(Length length, long long number) {
  switch (length) {
  case Length::Char:
    return static_cast<std::int8_t>(number);
  case Length::Short:
    return static_cast<std::int16_t>(number);
  default:
    return number;
  }
}

unsigned long long unsignedNumber(Length length, unsigned long long number) {
  switch (length) {
  case Length::Char:
    return static_cast<std::uint8_t>(number);
  case Length::Short:
    return static_cast<std::uint16_t>(number);
  default:
    return number;
  }
}

/// Appends one argument; returns false and appends nothing if it does not match the conversion.
class Appender {
public:
  Appender(std::string& out, const Conversion& conversion) : out_(out), conversion_(conversion) {}

  bool operator()(std::int32_t number) const {
    return appendInteger(number, static_cast<std::uint32_t>(number));
  }
  bool operator()(std::int64_t number) const {
    return appendInteger(number, static_cast<std::uint64_t>(number));
  }
  bool operator()(std::string_view text) const {
    if (conversion_.kind != 's' || conversion_.length == Length::Long) {
      return false;
    }
    appendPadded(out_, untilNul(text).substr(0, conversion_.precision.value_or(text.size())),
                 conversion_);
    return true;
  }
  bool operator()(const void* address) const {
    if (conversion_.kind != 'p') {
      return false;
    }
    Conversion digits;
    digits.kind = 'X';
    digits.precision = 2 * sizeof address;
    std::string text;
    appendNumber(text, digits,
                 static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(address)));
    appendPadded(out_, text, conversion_);
    return true;
  }

private:
  [[nodiscard]] bool appendInteger(long long asSigned, unsigned long long asUnsigned) const {
    switch (conversion_.kind) {
    case 'd':
    case 'i':
      appendNumber(out_, conversion_, signedNumber(conversion_.length, asSigned));
      return true;
    case 'u':
    case 'o':
    case 'x':
    case 'X':
      appendNumber(out_, conversion_, unsignedNumber(conversion_.length, asUnsigned));
      return true;
    case 'c': {
      if (conversion_.length == Length::Long) {
        return false;
      }
      const char letter = static_cast<char>(asSigned);
      appendPadded(out_, std::string_view(&letter, 1), conversion_);
      return true;
    }
    default:
      return false;
    }
  }

  std::string& out_;
  const Conversion& conversion_;
};

} // namespace

std::string formatPrintf(std::string_view format, std::initializer_list<TraceArgument> arguments) {
  constexpr std::string_view kConversions = "diuxXocsp";
  format = untilNul(format);
  std::string out;
  for (const auto* argument = arguments.begin();;) {
    const std::size_t percent = format.find('%');
    out.append(format.substr(0, percent));
    if (percent == std::string_view::npos) {
      return out;
    }
    format.remove_prefix(percent);
    const Conversion conversion = ConversionReader(format).read();
    format.remove_prefix(conversion.text.size());
    if (conversion.text == "%%") {
      out.push_back('%');
      continue;
    }
    // A mismatched argument is consumed, so that the following ones keep their positions.
    const bool consumes =
        kConversions.find(conversion.kind) != std::string_view::npos && argument != arguments.end();
    if (!consumes || !std::visit(Appender(out, conversion), (argument++)->value())) {
      out.append(conversion.text);
    }
  }
}

} // namespace trace
