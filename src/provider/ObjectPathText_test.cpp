#include "provider/ObjectPathText.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

using provider::namesInstance;
using provider::ObjectPathText;
using provider::readObjectPath;

namespace {

struct Row {
  const char* trace;
  const char* path;
  const char* className;
  const char* deviceId;
};

constexpr auto kRows = std::to_array<Row>({
    {"the usual path", "UPOS_Scanner.DeviceID=\"SCANNER1\"", "UPOS_Scanner", "SCANNER1"},
    {"empty", "", "", ""},
    {"a class alone is its own device id", "UPOS_Scanner", "UPOS_Scanner", "UPOS_Scanner"},
    {"a key without quotes", "UPOS_Scanner.DeviceID=7", "UPOS_Scanner", "UPOS_Scanner.DeviceID=7"},
    {"one quote in the middle", R"(UPOS_Scale.DeviceID="S1)", "UPOS_Scale", "S1"},
    {"one quote at the end", R"(UPOS_Scale.DeviceID=")", "UPOS_Scale", ""},
    {"a quote alone", R"(")", R"(")", ""},
    {"nothing between the quotes", R"(A.B="")", "A", ""},
    {"two quotes alone", R"("")", R"("")", ""},
    {"dots in the device id", R"(A.B="1.2.3")", "A", "1.2.3"},
    {"dots in the device id only", R"(A="1.2")", R"(A="1)", "1.2"},
    {"escapes stay", R"(A.B="x\"y\\z")", "A", R"(x\"y\\z)"},
    {"two keys reach from the first quote to the last", R"(A.B="1",C="2")", "A", R"(1",C="2)"},
    {"text behind the last quote is dropped", R"(A.B="1" and more)", "A", "1"},
    {"a dot first", R"(.B="1")", "", "1"},
    {"a full path is not understood", R"(\\.\root\cimv2:A.B="1")", R"(\\)", "1"},
    {"high bytes pass", "A.B=\"caf\xE9\"", "A", "caf\xE9"},
});

TEST(ObjectPathText, ClassNameAndDeviceIdAreFoundByTextSearch) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.trace);
    const ObjectPathText read = readObjectPath(row.path);
    EXPECT_EQ(read.className, row.className);
    EXPECT_EQ(read.deviceId, row.deviceId);
  }
}

TEST(ObjectPathText, ALongPathIsReadWhole) {
  const std::string id(1'000'000, 'x');
  const ObjectPathText read = readObjectPath("A.B=\"" + id + "\"");
  EXPECT_EQ(read.className, "A");
  EXPECT_EQ(read.deviceId, id);
}

TEST(ObjectPathText, EmbeddedNulsArePartOfTheText) {
  using namespace std::string_literals;
  const ObjectPathText read = readObjectPath("A\0B.C=\"1\0002\""s);
  EXPECT_EQ(read.className, "A\0B"s);
  EXPECT_EQ(read.deviceId, "1\0002"s);
}

TEST(NamesInstance, IsTrueForAClassTextWithAnUnnamedKeyOnly) {
  for (const char* text :
       {"UPOS_Scanner=5", "UPOS_Scanner=\"S1\"", "UPOS_Scanner=\"\"", "UPOS_Scanner=@",
        "UPOS_Scanner='S1'", "UPOS_Scanner=-5", "UPOS_Scanner=0x1F", "UPOS_Scanner=TRUE",
        "UPOS_Scanner=false", " UPOS_Scanner = 5 ", "root\\cimv2:UPOS_Scanner=5",
        "\\\\host\\root:UPOS_Scanner=\"a=b\""}) {
    EXPECT_TRUE(namesInstance(text)) << text;
  }
  for (const char* text :
       {"", "UPOS_Scanner", "=", "=5", "UPOS_Scanner=", "UPOS_Scanner= ", "5=5", "a b=5",
        "UPOS_Scanner=\"S", "UPOS_Scanner=\"", "UPOS_Scanner=a=b", "UPOS_Scanner=5,6", "root:=5",
        "UPOS_Scanner=-", "UPOS_Scanner=S1", "UPOS_Scanner=-@"}) {
    EXPECT_FALSE(namesInstance(text)) << text;
  }
}

} // namespace
