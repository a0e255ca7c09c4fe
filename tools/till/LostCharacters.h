#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace till {

/// A text of a document that holds a character which the local code page lacks. In UTF-8.
struct LostCharacters {
  std::size_t instance = 0; ///< from 1; 0: of none
  std::string field;        ///< empty: of none
  std::string what;         ///< "the value", or the attribute's name
  std::string original;
  std::string arrived; ///< what the service makes of it
};

/// Looks at the texts that the service reads from a document, which it has found readable. Called
/// within a session of the XML library.
std::vector<LostCharacters> findLostCharacters(const std::string& document);

/// A text in the local code page, as UTF-8.
std::string utf8FromLocal(const std::string& text);

} // namespace till
