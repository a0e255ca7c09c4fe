#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <variant>

namespace trace {

/// One argument of a trace line, tagged with its kind. Refers to text without copying it: valid
/// only during the call.
class TraceArgument {
public:
  /// Integers keep their width, so that %d prints what printf prints for that type.
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

/// Formats like printf: flags, width, precision and length; the conversions d i u x X o c s p and
/// %%. A conversion that is unknown or lacks an argument of its kind is copied unchanged; nothing
/// beyond the arguments is read. %p prints 16 upper-case hexadecimal digits, as on Windows.
/// Threads: any. Errors: std::bad_alloc only.
std::string formatPrintf(std::string_view format, std::initializer_list<TraceArgument> arguments);

} // namespace trace
