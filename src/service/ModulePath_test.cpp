#include "service/CommandLine.h"

#include <windows.h>
#include <gtest/gtest.h>

using service::modulePath;

TEST(ModulePath, APathWithABackslashIsKeptWithForwardSlashes) {
  EXPECT_EQ(modulePath("C:\\Program Files\\Quillmon\\quillmon.exe"),
            "C:/Program Files/Quillmon/quillmon.exe");
  EXPECT_EQ(modulePath("bin\\quillmon.exe"), "bin/quillmon.exe");
}

TEST(ModulePath, APathWithoutABackslashIsBelowTheCurrentDirectory) {
  SetCurrentDirectoryA("C:\\windows\\system32");
  EXPECT_EQ(modulePath("quillmon.exe"), "C:/windows/system32/quillmon.exe");
  EXPECT_EQ(modulePath("./quillmon.exe"), "C:/windows/system32/./quillmon.exe");
}
