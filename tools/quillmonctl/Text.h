#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// Text for a console of 80 columns. Everything is UTF-8; a code point counts as one column.
namespace ctl {

inline constexpr std::size_t kWidth = 80;

/// Columns of a text.
std::size_t columns(std::string_view text);

/// `text` without what would move the cursor or speak to the console: control characters, which
/// come from devices and peers, appear as "\x1b". A tab is kept if asked for.
std::string printable(std::string_view text, bool keepTabs = false);

/// At most `width` columns; what is cut ends in "...".
std::string truncated(std::string_view text, std::size_t width);

/// `text` in lines of at most `width` columns, each with its end; lines after the first begin with
/// `indent` blanks, of which none is in the last quarter. A word that is too long for a line is
/// broken.
std::string wrap(std::string_view text, std::size_t width, std::size_t indent);

/// Rows under a heading, two blanks between columns; the widest columns are cut until a line fits
/// into `width`. Values are made printable.
std::string table(const std::vector<std::string>& heading,
                  const std::vector<std::vector<std::string>>& rows, std::size_t width = kWidth);

/// "name  value" lines, the values in one column and wrapped there.
std::string pairs(const std::vector<std::pair<std::string, std::string>>& lines,
                  std::size_t width = kWidth);

} // namespace ctl
