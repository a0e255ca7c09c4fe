#include <gtest/gtest.h>

#include <clocale>

namespace {

/// Selects UTF-8 as the local code page of native tests. On Windows the local code page is the
/// system's ANSI code page, whatever the locale.
class Utf8Locale : public testing::Environment {
public:
  void SetUp() override {
#ifndef _WIN32
    // NOLINTNEXTLINE(concurrency-mt-unsafe): before any thread
    ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
#endif
  }
};

[[maybe_unused]] const testing::Environment* const utf8Locale =
    testing::AddGlobalTestEnvironment(new Utf8Locale);

} // namespace
