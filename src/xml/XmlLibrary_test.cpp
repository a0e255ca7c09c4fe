#include "xml/DocumentReader.h"
#include "xml/XmlLibrary.h"
#include "xml/XmlText.h"

#include <gtest/gtest.h>
#include <xercesc/util/PlatformUtils.hpp>

#include <string>
#include <thread>
#include <vector>

using xml::DocumentReader;
using xml::narrow;
using xml::widen;
using xml::XmlLibrary;
using xml::xmlLock;

namespace {

bool libraryIsRunning() {
  return xercesc::XMLPlatformUtils::fgMemoryManager != nullptr;
}

TEST(XmlLibrary, RunsDuringASession) {
  ASSERT_FALSE(libraryIsRunning());
  {
    const XmlLibrary library;
    EXPECT_TRUE(library.started());
    EXPECT_NO_THROW(library.require());
    EXPECT_TRUE(libraryIsRunning());
  }
  EXPECT_FALSE(libraryIsRunning());
}

TEST(XmlLibrary, AnInnerSessionsEndLeavesTheOuterOneRunning) {
  const XmlLibrary outer;
  { const XmlLibrary inner; }
  EXPECT_TRUE(libraryIsRunning());
  EXPECT_EQ(narrow(widen("still here").c_str()), "still here");
}

TEST(XmlLibrary, SessionsOnSeveralThreadsNeedNoXmlLock) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 25;
  std::vector<std::thread> threads;
  std::vector<int> read(kThreads, 0);
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&count = read[static_cast<std::size_t>(thread)]] {
      for (int round = 0; round < kRounds; ++round) {
        const XmlLibrary library;
        DocumentReader document("<r><field name='\xC3\xBC'>text</field></r>");
        const DocumentReader::Elements found = document.elements(u"field");
        if (found.size() == 1 && document.readField(*found[0])[2] == "text") {
          ++count;
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(read, std::vector<int>(kThreads, kRounds));
  EXPECT_FALSE(libraryIsRunning()) << "every start had its end";
}

TEST(XmlLock, IsOneForTheProcess) {
  std::mutex* elsewhere = nullptr;
  std::thread([&] { elsewhere = &xmlLock(); }).join();
  EXPECT_EQ(&xmlLock(), elsewhere);
}

TEST(XmlText, KeepsAsciiAndEmptyText) {
  const XmlLibrary library;
  EXPECT_EQ(narrow(nullptr), "");
  EXPECT_EQ(narrow(u""), "");
  EXPECT_EQ(narrow(u"UPOS_Scanner"), "UPOS_Scanner");
  EXPECT_EQ(widen(""), u"");
  EXPECT_EQ(widen("UPOS_Scanner"), u"UPOS_Scanner");
}

TEST(XmlText, EndsAtTheFirstNul) {
  const XmlLibrary library;
  EXPECT_EQ(widen(std::string("ab\0cd", 5)), u"ab");
}

TEST(XmlText, NeverFailsOnWhatTheCodePageLacks) {
  const XmlLibrary library;
  const XMLCh loneSurrogate[] = {u'a', 0xD800, u'b', 0};
  for (const std::basic_string<XMLCh>& text :
       {std::basic_string<XMLCh>(u"a\u0416\u4E2D\U0001F600b"), std::basic_string<XMLCh>(u"\uFFFE"),
        std::basic_string<XMLCh>(loneSurrogate)}) {
    EXPECT_NE(narrow(text.c_str()), "");
  }
  for (const std::string text : {"a\xFF\xFE\x80z", "\xC3", "\xE2\x82"}) {
    EXPECT_NE(widen(text), u"");
  }
}

#ifndef _WIN32
TEST(XmlText, IsUtf8WhereTheLocaleIs) {
  const XmlLibrary library;
  EXPECT_EQ(narrow(u"M\u00FCller \U0001F600"), "M\xC3\xBCller \xF0\x9F\x98\x80");
  EXPECT_EQ(widen("M\xC3\xBCller \xF0\x9F\x98\x80"), u"M\u00FCller \U0001F600");
}
#endif

} // namespace
