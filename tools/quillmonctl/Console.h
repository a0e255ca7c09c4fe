#pragma once

#include <string_view>

/// Standard output and error: UTF-8 in, shown as Unicode on a console, written as it is elsewhere.
namespace ctl::console {

void print(std::string_view text);
void printError(std::string_view text);

/// True if standard output is a console that shows colour and the user has not refused it.
bool showsColour();

/// Columns to fill: the console's, but not fewer than 80 nor more than 160; 80 for a file.
unsigned width();

} // namespace ctl::console
