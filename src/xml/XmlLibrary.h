#pragma once

#include <xercesc/util/PanicHandler.hpp>

#include <mutex>
#include <string>

class StartMemory;

/// The XML lock: one for the whole process, made on first use and never destroyed. Whoever reads or
/// builds a document takes it first, outside of everything else here.
std::mutex& xmlLock();

/// The XML library started for the length of one call: starts it on construction and ends it on
/// destruction, once each. The library counts its starts without a lock; these two are serialised
/// here, so that sessions may overlap on several threads, inside the XML lock or not.
///
/// Owner: the function that reads or builds, on its stack. Everything of the library, a caught
/// exception too, must be gone before its session ends.
/// Errors: a start that failed shows in started(); nothing is thrown by the constructor.
class XmlLibrary {
public:
  XmlLibrary() noexcept;
  XmlLibrary(const XmlLibrary&) = delete;
  XmlLibrary& operator=(const XmlLibrary&) = delete;
  ~XmlLibrary();

  [[nodiscard]] bool started() const noexcept { return started_; }
  /// Why it is not started, in the library's words.
  [[nodiscard]] const std::string& failure() const noexcept { return failure_; }
  /// Throws XmlFailure with failure() unless it is started.
  void require() const;

private:
  void start(xercesc::PanicHandler& handler, StartMemory& memory);
  void setFailure(const char* message) noexcept;

  bool started_ = false;
  std::string failure_;
};
