#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <variant>

/// One argument of a trace line, of a kind that a conversion can be checked against.
/// Text is referred to, not copied: an argument lives no longer than the call it is made for.
class TraceArgument {
public:
  /// Integers keep their width, so that %d shows what printf would show for that type.
  template <std::integral Integer>
  explicit TraceArgument(Integer value)
      : value_(sizeof(Integer) <= sizeof(std::int32_t) ? Value(static_cast<std::int32_t>(value))
                                                       : Value(static_cast<std::int64_t>(value))) {}
  explicit TraceArgument(std::string_view text) : value_(text) {}
  explicit TraceArgument(const std::string& text) : value_(std::string_view(text)) {}
  explicit TraceArgument(const char* text)
      : value_(text != nullptr ? std::string_view(text) : std::string_view("(null)")) {}
  explicit TraceArgument(const void* address) : value_(address) {}

  using Value = std::variant<std::int32_t, std::int64_t, std::string_view, const void*>;
  [[nodiscard]] const Value& value() const { return value_; }

private:
  Value value_;
};

/// `format` with its printf conversions (flags, width, precision, length; d i u x X o c s p) filled
/// in from `arguments`. `%%` is one `%`. A conversion that is unknown, has no argument left or one
/// of another kind is written as it stands; nothing beyond the arguments is ever read. %p is
/// written as Windows does: 16 upper-case hexadecimal digits.
/// May throw std::bad_alloc only.
std::string formatPrintf(std::string_view format, std::initializer_list<TraceArgument> arguments);
