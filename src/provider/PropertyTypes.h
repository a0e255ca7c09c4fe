#pragma once

#include <array>
#include <cstddef>
#include <map>
#include <mutex>
#include <string>

namespace provider {

/// The codes of the type words; 0 for an unknown word.
enum PropertyType : int {
  kNoType = 0,
  kString = 1,
  kUint32 = 2,
  kUint64 = 3,
  kBoolean = 4,
  kArrayInt32 = 5,
  kDatetime = 6,
  kEnd = 7,
};

/// The table of type words, shared by all requests. Threads: any. Errors: std::bad_alloc.
class PropertyTypes {
public:
  /// Inserts or overwrites the seven known words.
  void fill();

  /// The word's type. Inserts an unknown word with kNoType.
  PropertyType typeOf(const std::string& word);

private:
  std::mutex mutex_;
  std::map<std::string, PropertyType> types_;
};

/// A cache of the table for one request: looks up each of the first eight words once.
///
/// Owner and thread: the request. Errors: std::bad_alloc.
class RequestTypes {
public:
  explicit RequestTypes(PropertyTypes& table) : table_(table) {}
  PropertyType typeOf(const std::string& word);

private:
  struct Known {
    std::string word;
    PropertyType type;
  };

  PropertyTypes& table_;
  std::array<Known, 8> known_; // the table's seven words and one more
  std::size_t count_ = 0;
};

} // namespace provider
