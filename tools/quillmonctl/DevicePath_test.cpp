#include "quillmonctl/DevicePath.h"

#include <gtest/gtest.h>

namespace {

using namespace ctl;

TEST(DevicePath, AClassMayBeNamedWithoutItsPrefix) {
  EXPECT_EQ(className("Scanner"), "UPOS_Scanner");
  EXPECT_EQ(className("UPOS_Scanner"), "UPOS_Scanner");
  EXPECT_EQ(className("__Win32Provider"), "__Win32Provider");
  EXPECT_EQ(className(""), "UPOS_LogicalDevice");
}

TEST(DevicePath, AnIdAloneIsADeviceOfAnyClass) {
  EXPECT_EQ(objectPath("SCANNER1"), "UPOS_LogicalDevice.DeviceID=\"SCANNER1\"");
}

TEST(DevicePath, ASlashSeparatesClassAndId) {
  EXPECT_EQ(objectPath("Scanner/SCANNER1"), "UPOS_Scanner.DeviceID=\"SCANNER1\"");
  EXPECT_EQ(objectPath("UPOS_Scale/A/B"), "UPOS_Scale.DeviceID=\"A/B\"");
}

TEST(DevicePath, AnObjectPathIsUnchanged) {
  for (const char* path : {"UPOS_Scanner.DeviceID=\"SCANNER1\"", "UPOS_Scanner=\"a/b\"", "X=@",
                           "\\\\.\\root\\cimv2:UPOS_Scanner.DeviceID='S'", "root\\cimv2:X=1"}) {
    EXPECT_EQ(objectPath(path), path);
  }
}

TEST(DevicePath, AnIdNamesNoClass) {
  EXPECT_TRUE(isDeviceId("SCANNER1"));
  for (const char* other : {"Scanner/SCANNER1", "UPOS_Scanner.DeviceID=\"S\"", "a:b"}) {
    EXPECT_FALSE(isDeviceId(other)) << other;
  }
}

TEST(DevicePath, ACategoryHasTheClassOfItsName) {
  EXPECT_STREQ(categoryClass("Scanner"), "UPOS_Scanner");
  EXPECT_STREQ(categoryClass("posprinter"), "UPOS_POSPrinter");
  EXPECT_STREQ(categoryClass("UPOS_Scale"), "UPOS_Scale");
  for (const char* none : {"", "Toaster", "Scan", "Scanner "}) {
    EXPECT_EQ(categoryClass(none), nullptr) << none;
  }
}

TEST(DevicePath, APathNamesAClass) {
  EXPECT_EQ(classOf("UPOS_Scanner.DeviceID=\"A.B:C\""), "UPOS_Scanner");
  EXPECT_EQ(classOf("UPOS_Scanner=\"A\""), "UPOS_Scanner");
  EXPECT_EQ(classOf("\\\\.\\root\\cimv2:UPOS_Scale.DeviceID=\"X\""), "UPOS_Scale");
}

} // namespace
