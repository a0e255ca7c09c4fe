#include "quillmonctl/ZipFile.h"

#include <gtest/gtest.h>

namespace {

using namespace ctl;

TEST(ZipFile, TheChecksumIsThePublishedOne) {
  EXPECT_EQ(checksum("123456789"), 0xCBF43926U);
  EXPECT_EQ(checksum(""), 0U);
}

// tests/system/test_quillmonctl.py opens an archive with a reader that nobody here wrote.
TEST(ZipFile, AnArchiveEndsWithADirectoryOfItsFiles) {
  ZipFile zip(0x5A758800);
  zip.add("a.txt", "one");
  zip.add("log/b", std::string(70000, 'x'));
  const std::string bytes = zip.bytes();
  EXPECT_EQ(bytes.substr(0, 4), "PK\x03\x04");
  const std::string end = bytes.substr(bytes.size() - 22);
  EXPECT_EQ(end.substr(0, 4), "PK\x05\x06");
  EXPECT_EQ(end[10], 2);
  const auto offset = static_cast<unsigned char>(end[16]) |
                      static_cast<unsigned>(static_cast<unsigned char>(end[17])) << 8U |
                      static_cast<unsigned>(static_cast<unsigned char>(end[18])) << 16U;
  EXPECT_EQ(bytes.substr(offset, 4), "PK\x01\x02");
  EXPECT_EQ(offset, 2 * 30 + 5 + 5 + 3 + 70000);
}

} // namespace
