#include "StartSignal.h"
#include "provider/PropertyTypes.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

using test_support::StartSignal;

namespace {

using provider::PropertyTypes;
using provider::RequestTypes;

struct Row {
  const char* word;
  int type;
};

TEST(PropertyTypes, TheSevenWordsHaveTheirCodes) {
  PropertyTypes types;
  types.fill();
  for (const Row& row : {Row{"string", 1}, Row{"uint32", 2}, Row{"uint64", 3}, Row{"boolean", 4},
                         Row{"ArrayInt32", 5}, Row{"datetime", 6}, Row{"end", 7}}) {
    EXPECT_EQ(types.typeOf(row.word), row.type) << row.word;
  }
}

TEST(PropertyTypes, AnUnknownWordIsInsertedWithCodeZero) {
  PropertyTypes types;
  types.fill();
  for (const char* word : {"", "String", "uint16", "datetime ", "sint64"}) {
    EXPECT_EQ(types.typeOf(word), 0) << word;
    EXPECT_EQ(types.typeOf(word), 0) << word;
  }
}

TEST(PropertyTypes, EveryWordIsUnknownUntilTheTableIsFilled) {
  PropertyTypes types;
  EXPECT_EQ(types.typeOf("uint32"), 0);
  types.fill();
  EXPECT_EQ(types.typeOf("uint32"), 2);
}

TEST(RequestTypes, AnswerAsTheTableDoesHoweverManyWordsThereAre) {
  PropertyTypes table;
  table.fill();
  RequestTypes types(table);
  for (int round = 0; round < 2; ++round) {
    for (int unknown = 0; unknown < 20; ++unknown) {
      EXPECT_EQ(types.typeOf("word" + std::to_string(unknown)), 0);
    }
    for (const char* word : {"string", "uint32", "uint64", "boolean", "ArrayInt32", "datetime"}) {
      EXPECT_EQ(types.typeOf(word), table.typeOf(word)) << word;
    }
    EXPECT_EQ(types.typeOf("uint32"), 2);
  }
}

// Without the lock, concurrent insertions lose a word; the sanitizers report the leak.
TEST(PropertyTypes, ThreadsMayInsertUnknownWordsConcurrently) {
  PropertyTypes types;
  types.fill();
  constexpr int kThreads = 4;
  constexpr int kWords = 20000;
  StartSignal start;
  std::atomic<int> wrong = 0;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      start.wait();
      for (int word = 0; word < kWords; ++word) {
        if (types.typeOf(std::to_string(word * kThreads + thread)) != 0 ||
            types.typeOf("boolean") != 4) {
          ++wrong;
        }
      }
    });
  }
  start.give();
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, 0);
}

} // namespace
