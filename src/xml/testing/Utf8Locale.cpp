#include <gtest/gtest.h>

#include <clocale>

namespace {

/// The local code page of the native build is the locale's: UTF-8 for all of these tests. On
/// Windows it is the system's ANSI code page whatever the locale says.
class Utf8Locale : public testing::Environment {
public:
  void SetUp() override {
#ifndef _WIN32
    ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
#endif
  }
};

[[maybe_unused]] const testing::Environment* const utf8Locale =
    testing::AddGlobalTestEnvironment(new Utf8Locale);

} // namespace
