#include "win/Configuration.h"

#include <windows.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>

namespace {

// The file is found from the root of the current drive; the tests stand on drive C of the prefix.
class Configuration : public testing::Test {
protected:
  void SetUp() override {
    SetCurrentDirectoryA("C:\\");
    CreateDirectoryA("C:\\POS", nullptr);
    CreateDirectoryA("C:\\POS\\JavaPOS", nullptr);
    CreateDirectoryA("C:\\POS\\JavaPOS\\Config", nullptr);
    DeleteFileA(configuration::kFile);
  }
  void TearDown() override { DeleteFileA(configuration::kFile); }

  static void write(const std::string& lines) {
    std::ofstream(configuration::kFile) << "[default]\r\n" << lines;
  }
};

TEST_F(Configuration, AMissingFileGivesTheDefault) {
  EXPECT_EQ(configuration::readInt("provider.eventSocket.Port", 42114), 42114U);
  EXPECT_EQ(configuration::readText("provider.eventSocket.IP", "127.0.0.1"), "127.0.0.1");
}

TEST_F(Configuration, AMissingKeyGivesTheDefault) {
  write("other=1\r\n");
  EXPECT_EQ(configuration::readInt("provider.eventSocket.Port", 42114), 42114U);
}

TEST_F(Configuration, ValuesAreReadAfreshAtEachCall) {
  write("upos.requestSocket.Port=1000\r\n");
  EXPECT_EQ(configuration::readInt("upos.requestSocket.Port", 42115), 1000U);
  write("upos.requestSocket.Port=2000\r\n");
  EXPECT_EQ(configuration::readInt("upos.requestSocket.Port", 42115), 2000U);
}

TEST_F(Configuration, TextThatIsNoNumberReadsAsZero) {
  write("provider.maxQueryThreads=many\r\n");
  EXPECT_EQ(configuration::readInt("provider.maxQueryThreads", 1), 0U);
}

TEST_F(Configuration, AnOverlongTextIsCut) {
  write("provider.eventSocket.IP=" + std::string(1000, '1') + "\r\n");
  EXPECT_EQ(configuration::readText("provider.eventSocket.IP", "").size(), 255U);
}

} // namespace
