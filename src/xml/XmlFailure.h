#pragma once

#include <stdexcept>

/// An unreadable document, or a library that did not start. what() is the library's message in
/// plain narrow text, so that it may outlive the library's session.
class XmlFailure : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};
