#pragma once

#include "win/Automation.h"

#include <map>
#include <mutex>
#include <string>

namespace provider {

/// The table of type words, and the conversion of a field's value by its word.
///
/// Threads: any; the table is guarded. Errors: std::bad_alloc.
class PropertyTypes {
public:
  /// Enters the seven known words; a row that is there already is overwritten.
  void fill();

  /// The word's code. A word that is not in the table is entered with code 0.
  int codeOf(const std::string& typeWord);

  /// Converts `value`, which holds the text, in place. A text that does not convert leaves in
  /// `value` whatever the platform leaves there.
  void convert(const std::string& typeWord, win::Variant& value);

private:
  std::mutex mutex_;
  std::map<std::string, int> codes_;
};

} // namespace provider
