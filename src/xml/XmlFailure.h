#pragma once

#include <stdexcept>

namespace xml {

/// A document is unreadable, or the library did not start. what() is the library's message, copied,
/// so that the exception may outlive the library's session.
class XmlFailure : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

} // namespace xml
