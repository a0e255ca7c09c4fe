#include "service/VersionIdent.h"

#include <gtest/gtest.h>

using service::parseVersionIdent;
using service::printVersion;
using service::VersionLevel;

TEST(VersionIdent, AnUnexpandedIdentHasNoLevel) {
  EXPECT_FALSE(parseVersionIdent("%W%").found);
}

TEST(VersionIdent, AnExpandedIdentGivesFiveCharactersOfReleaseAndTwoOfLevel) {
  const VersionLevel version = parseVersionIdent("@(#)PelmarWMIS12.34 07 more");
  EXPECT_TRUE(version.found);
  EXPECT_EQ(version.release, "12.34");
  EXPECT_EQ(version.level, "07");
}

TEST(VersionIdent, ATruncatedIdentGivesTheAvailableParts) {
  EXPECT_EQ(parseVersionIdent("Pelmar").release, "");
  EXPECT_EQ(parseVersionIdent("Pelmar").level, "");
  EXPECT_EQ(parseVersionIdent("PelmarWMIS1").release, "1");
  EXPECT_EQ(parseVersionIdent("PelmarWMIS12.34 0").level, "0");
  EXPECT_EQ(parseVersionIdent("Pelmar ").level, "");
}

TEST(VersionIdent, TheVersionOutputHasNoLevel) {
  testing::internal::CaptureStdout();
  printVersion();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "ORVEX point-of-service device management\n"
                                                    "Quillmon Service for Windows\n"
                                                    "No level info found\n");
}
