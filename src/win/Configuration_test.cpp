#include "ConfigurationFile.h"
#include "win/Configuration.h"

#include <gtest/gtest.h>

#include <string>

using test_support::ConfigurationFile;

namespace {

class Configuration : public testing::Test {
protected:
  ConfigurationFile file_;
};

TEST_F(Configuration, AMissingFileGivesTheDefault) {
  EXPECT_EQ(configuration::readInt("provider.eventSocket.Port", 42114), 42114U);
  EXPECT_EQ(configuration::readText("provider.eventSocket.IP", "127.0.0.1"), "127.0.0.1");
}

TEST_F(Configuration, AMissingKeyGivesTheDefault) {
  ConfigurationFile::write("other=1\r\n");
  EXPECT_EQ(configuration::readInt("provider.eventSocket.Port", 42114), 42114U);
}

TEST_F(Configuration, EachCallReadsTheFile) {
  ConfigurationFile::write("upos.requestSocket.Port=1000\r\n");
  EXPECT_EQ(configuration::readInt("upos.requestSocket.Port", 42115), 1000U);
  ConfigurationFile::write("upos.requestSocket.Port=2000\r\n");
  EXPECT_EQ(configuration::readInt("upos.requestSocket.Port", 42115), 2000U);
}

TEST_F(Configuration, TextThatIsNoNumberReadsAsZero) {
  ConfigurationFile::write("provider.maxQueryThreads=many\r\n");
  EXPECT_EQ(configuration::readInt("provider.maxQueryThreads", 1), 0U);
}

TEST_F(Configuration, ALongTextIsTruncated) {
  ConfigurationFile::write("provider.eventSocket.IP=" + std::string(1000, '1') + "\r\n");
  EXPECT_EQ(configuration::readText("provider.eventSocket.IP", "").size(), 255U);
}

} // namespace
