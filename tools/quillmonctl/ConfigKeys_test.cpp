#include "quillmonctl/ConfigKeys.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

namespace {

using namespace ctl;

bool accepts(const char* key, const char* value) {
  return validationError(*findConfigKey(key), value).empty();
}

TEST(ConfigKeys, EveryDefaultIsValid) {
  for (const ConfigKey& key : configKeys()) {
    EXPECT_EQ(validationError(key, key.defaultValue), "") << key.name;
  }
}

TEST(ConfigKeys, EveryKeyAndItsDefaultIsDocumented) {
  std::ifstream file(DOCS_FOLDER "/operations.md");
  std::ostringstream paper;
  paper << file.rdbuf();
  for (const ConfigKey& key : configKeys()) {
    EXPECT_NE(paper.str().find(std::string("| `") + key.name + "` | " + key.defaultValue + " |"),
              std::string::npos)
        << key.name;
  }
}

TEST(ConfigKeys, KeysAreCaseInsensitive) {
  EXPECT_STREQ(findConfigKey("PROVIDER.maxquerythreads")->name, "provider.maxQueryThreads");
  EXPECT_EQ(findConfigKey("provider.maxQueryThread"), nullptr);
}

TEST(ConfigKeys, ANumberIsDecimalWholeAndInRange) {
  for (const char* good : {"1", "65535", "042114"}) {
    EXPECT_TRUE(accepts("provider.eventSocket.Port", good)) << good;
  }
  for (const char* bad : {"0", "65536", "-1", "+5", "", " 5", "5 ", "0x10", "12abc", "abc", "1.5",
                          "99999999999999999999"}) {
    EXPECT_FALSE(accepts("provider.eventSocket.Port", bad)) << bad;
  }
  EXPECT_TRUE(accepts("provider.dataUpdate.frequency", "0"));
  EXPECT_FALSE(accepts("provider.dataUpdate.frequency", "-0"));
}

TEST(ConfigKeys, AnAddressHasFourPartsOfAByte) {
  for (const char* good : {"127.0.0.1", "0.0.0.0", "255.255.255.255"}) {
    EXPECT_TRUE(accepts("provider.eventSocket.IP", good)) << good;
  }
  for (const char* bad :
       {"", "127.0.0", "127.0.0.1.1", "127.0.0.256", "127.0.0.", ".0.0.1", "localhost", "::1",
        "127.0.0.01", "127.0.0.-1", "127.0.0.-0", "127..0.1"}) {
    EXPECT_FALSE(accepts("provider.eventSocket.IP", bad)) << bad;
  }
}

} // namespace
