#include "provider/PropertyTypes.h"

namespace provider {

void PropertyTypes::fill() {
  const std::scoped_lock lock(mutex_);
  types_["string"] = kString;
  types_["uint32"] = kUint32;
  types_["uint64"] = kUint64;
  types_["boolean"] = kBoolean;
  types_["ArrayInt32"] = kArrayInt32;
  types_["datetime"] = kDatetime;
  types_["end"] = kEnd;
}

PropertyType PropertyTypes::typeOf(const std::string& word) {
  const std::scoped_lock lock(mutex_);
  return types_[word];
}

PropertyType RequestTypes::typeOf(const std::string& word) {
  for (std::size_t i = 0; i < count_; ++i) {
    if (known_[i].word == word) {
      return known_[i].type;
    }
  }
  const PropertyType type = table_.typeOf(word);
  if (count_ < known_.size()) {
    known_[count_] = {word, type};
    ++count_;
  }
  return type;
}

} // namespace provider
