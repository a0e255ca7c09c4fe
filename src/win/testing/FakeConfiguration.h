#pragma once

#include <string>

/// Replaces the configuration reader in unit tests: linked instead of Configuration.cpp. A key that
/// is not set gives the caller's default. Threads: any.
namespace fake_configuration {
void set(const std::string& key, const std::string& text);
void clear();
} // namespace fake_configuration
