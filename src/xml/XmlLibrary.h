#pragma once

#include <xercesc/util/PanicHandler.hpp>

#include <mutex>
#include <string>

namespace xml {

class StartMemory;

/// The XML lock: one per process, created on first use, never destroyed. Taken before any document
/// is read or built, and before an XmlLibrary is constructed. Exception: the second reading of an
/// event in ProxyImpXmlAdapter.
std::mutex& xmlLock();

/// One session of the XML library: the constructor starts the library, the destructor ends it. The
/// library counts its starts without a lock; starts and ends are serialised here, so sessions may
/// overlap on several threads, with or without the XML lock.
///
/// Owner: the function that reads or builds, on its stack. Every object of the library, caught
/// exceptions included, must be destroyed before the session ends.
/// Errors: the constructor does not throw; see started().
class XmlLibrary {
public:
  XmlLibrary() noexcept;
  XmlLibrary(const XmlLibrary&) = delete;
  XmlLibrary& operator=(const XmlLibrary&) = delete;
  ~XmlLibrary();

  [[nodiscard]] bool started() const noexcept { return started_; }
  /// The library's message when it is not started.
  [[nodiscard]] const std::string& failure() const noexcept { return failure_; }
  /// Throws XmlFailure with failure() unless the library is started.
  void require() const;

private:
  void start(xercesc::PanicHandler& handler, StartMemory& memory);
  void setFailure(const char* message) noexcept;

  bool started_ = false;
  std::string failure_;
};

} // namespace xml
