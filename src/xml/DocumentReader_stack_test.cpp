#include "xml/DocumentReader.h"
#include "xml/XmlLibrary.h"
#include "xml/testing/UnreadableDocuments.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <string>

using xml::DocumentReader;
using xml::Vocabulary;
using xml::XmlLibrary;
using xml_testing::repeated;

namespace {

constexpr std::size_t kSmallStack = std::size_t{128} * 1024;

constexpr const XMLCh* kNames[] = {u"r", u"a"};
constexpr Vocabulary kVocabulary{kNames, kNames, {}};

TEST(DocumentReaderStack, TheDeepestDocumentNeedsNoMoreStackThanAnyOther) {
  const XmlLibrary library;
  constexpr std::size_t kDepth = DocumentReader::kMaximumDepth - 1;
  static const std::string document = // some 800 KiB of stack when it was read by recursion
      "<r>" + repeated(kDepth, "<a>") + "deep" + repeated(kDepth, "</a>") + "</r>";
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, kSmallStack), 0);
  static std::string text;
  pthread_t thread{};
  const auto read = [](void*) -> void* {
    DocumentReader reader(document, kVocabulary);
    text = reader.readField(*reader.elements(u"r")[0])[2];
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, &attributes, read, nullptr), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
  EXPECT_EQ(text, "deep");
}

} // namespace
