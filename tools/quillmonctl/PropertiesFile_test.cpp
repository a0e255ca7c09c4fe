#include "quillmonctl/PropertiesFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using ctl::PropertiesFile;
using testing::ElementsAre;
using testing::IsEmpty;

std::string afterSet(std::string_view text, std::string_view key, std::string_view value) {
  PropertiesFile file(text);
  file.set(key, value);
  return file.text();
}

TEST(PropertiesFile, OtherLinesAreUnchanged) {
  const char* const texts[] = {"",
                               "\r\n",
                               "[default]",
                               "; a\r\n[default]\r\n  a = 1 ;b\r\n\r\n[other]\na=2\n\nrest",
                               "\xEF\xBB\xBF[default]\na=1",
                               "a\n\r\nb\r",
                               "[default]\r\na=\x84\xFF\r\n"};
  for (const char* const text : texts) {
    EXPECT_EQ(PropertiesFile(text).text(), text);
  }
}

TEST(PropertiesFile, AValueIsReturnedWithoutBlanksAndQuotes) {
  const PropertiesFile file("[default]\r\n a\t=  1 2  \r\nb=\"x\"\r\nc='y'\r\nd=\"z\r\ne=\r\n");
  EXPECT_EQ(file.value("a"), "1 2");
  EXPECT_EQ(file.value("b"), "x");
  EXPECT_EQ(file.value("c"), "y");
  EXPECT_EQ(file.value("d"), "\"z");
  EXPECT_EQ(file.value("e"), "");
  EXPECT_EQ(file.value("f"), std::nullopt);
}

TEST(PropertiesFile, SectionAndKeyAreCaseInsensitive) {
  EXPECT_EQ(PropertiesFile("[DEFAULT]\nA.b=1\n").value("a.B"), "1");
}

TEST(PropertiesFile, TheFirstSectionAndTheFirstKeyCount) {
  const PropertiesFile file("[other]\na=0\n[default]\na=1\na=2\n[default]\na=3\nb=4\n");
  EXPECT_EQ(file.value("a"), "1");
  EXPECT_EQ(file.value("b"), std::nullopt);
}

TEST(PropertiesFile, ACommentIsNoKey) {
  EXPECT_EQ(PropertiesFile("[default]\n;a=1\n#a=2\n").value("a"), std::nullopt);
}

TEST(PropertiesFile, SettingReplacesTheValueAndKeepsTheLinesFormat) {
  EXPECT_EQ(afterSet("; top\r\n[default]\r\n  a =  1\r\n; end\r\n", "A", "22"),
            "; top\r\n[default]\r\n  a =  22\r\n; end\r\n");
  EXPECT_EQ(afterSet("[default]\na=", "a", "1"), "[default]\na=1");
}

TEST(PropertiesFile, SettingAddsTheKeyAtTheSectionsEnd) {
  EXPECT_EQ(afterSet("[default]\r\na=1\r\n\r\n[other]\r\nb=2\r\n", "b", "3"),
            "[default]\r\na=1\r\nb=3\r\n\r\n[other]\r\nb=2\r\n");
  EXPECT_EQ(afterSet("[default]\na=1", "b", "3"), "[default]\na=1\nb=3\n");
}

TEST(PropertiesFile, SettingAddsAMissingSection) {
  EXPECT_EQ(afterSet("", "a", "1"), "[default]\r\na=1\r\n");
  EXPECT_EQ(afterSet("[other]\na=1", "a", "2"), "[other]\na=1\n[default]\na=2\n");
}

TEST(PropertiesFile, ASetValueIsFound) {
  PropertiesFile file("[x]\n[default]\n\n[y]\n");
  file.set("a", "1");
  file.set("b", "2");
  file.set("a", "3");
  EXPECT_EQ(file.value("a"), "3");
  EXPECT_EQ(file.value("b"), "2");
  EXPECT_THAT(file.keys(), ElementsAre("a", "b"));
  EXPECT_THAT(file.problems(), IsEmpty());
}

TEST(PropertiesFile, IgnoredLinesAreReported) {
  EXPECT_THAT(PropertiesFile("a=1\n[default]\nb\nc=1\nC=2\n[other]\nd=1\n").problems(),
              ElementsAre("line 1: a stands outside of the section [default]",
                          "line 3: neither a comment nor KEY=VALUE",
                          "line 5: C was set before; only the first one counts",
                          "line 7: d stands outside of the section [default]"));
}

TEST(PropertiesFile, AMissingSectionIsReported) {
  EXPECT_THAT(PropertiesFile("[defaults]\na=1\n").problems(),
              ElementsAre("line 1: no section [default]: nothing in the file counts"));
  EXPECT_THAT(PropertiesFile("").problems(), IsEmpty());
}

TEST(PropertiesFile, AnotherEncodingIsReported) {
  EXPECT_EQ(PropertiesFile("\xEF\xBB\xBF[default]\na=1\n").problems().front().substr(0, 43),
            "line 1: begins with a byte order mark; save");
  EXPECT_THAT(PropertiesFile("\xFF\xFE[").problems(),
              ElementsAre("line 1: the file is in Unicode (UTF-16); save it as plain text (ANSI)"));
}

} // namespace
