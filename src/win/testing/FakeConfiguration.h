#pragma once

#include <string>

/// Stands in for the configuration file in unit tests: linked in place of the real reader.
/// Without a text set for a key, the reader's default is what it gives. Any thread.
namespace fake_configuration {
void set(const std::string& key, const std::string& text);
void clear();
} // namespace fake_configuration
