#include "xml/XmlLibrary.h"

#include "xml/XmlFailure.h"

#include <xercesc/util/OutOfMemoryException.hpp>
#include <xercesc/util/PanicHandler.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLException.hpp>
#include <xercesc/util/XMLUni.hpp>

namespace {

using xercesc::PanicHandler;
using xercesc::XMLPlatformUtils;

/// Raised where the library's own handler would end the process.
struct Panic {
  const char* message;
};

class ThrowingPanicHandler : public PanicHandler {
public:
  [[noreturn]] void panic(const PanicReasons reason) override {
    throw Panic{getPanicReasonString(reason)};
  }
};

/// Never destroyed: a thread may still be reading when the process ends. Likewise below.
PanicHandler& panicHandler() {
  static PanicHandler& handler = *new ThrowingPanicHandler;
  return handler;
}

std::mutex& startLock() {
  static std::mutex& lock = *new std::mutex;
  return lock;
}

/// A start that failed leaves the library half made: it can neither be ended nor started again
/// without a crash, so it is not touched any more. Guarded by startLock().
constinit bool unusable = false;

/// The library's messages are ASCII; its transcoder may not have been started.
std::string asciiOf(const XMLCh* text) {
  std::string ascii;
  for (; text != nullptr && *text != 0; ++text) {
    ascii += *text < 0x80 ? static_cast<char>(*text) : '?';
  }
  return ascii;
}

} // namespace

std::mutex& xmlLock() {
  static std::mutex& lock = *new std::mutex;
  return lock;
}

XmlLibrary::XmlLibrary() noexcept {
  try {
    const std::scoped_lock lock(startLock());
    if (unusable) {
      noteFailure("the library could not be started earlier");
      return;
    }
    PanicHandler& handler = panicHandler();
    unusable = true;
    start(handler);
    unusable = !started_;
  } catch (...) {
    noteFailure("");
  }
}

void XmlLibrary::start(PanicHandler& handler) {
  try {
    XMLPlatformUtils::Initialize(xercesc::XMLUni::fgXercescDefaultLocale, nullptr, &handler);
    started_ = true;
  } catch (const xercesc::XMLException& exception) {
    noteFailure(asciiOf(exception.getMessage()).c_str());
  } catch (const xercesc::OutOfMemoryException&) {
    noteFailure("OutOfMemory");
  } catch (const Panic& panic) {
    noteFailure(panic.message);
  } catch (const std::exception& exception) {
    noteFailure(exception.what());
  }
}

void XmlLibrary::noteFailure(const char* message) noexcept {
  try {
    failure_ = message;
  } catch (...) { // without memory the failure has no words
  }
}

XmlLibrary::~XmlLibrary() {
  if (started_) {
    try {
      const std::scoped_lock lock(startLock());
      XMLPlatformUtils::Terminate();
    } catch (...) { // nobody is left to be told
    }
  }
}

void XmlLibrary::require() const {
  if (!started_) {
    throw XmlFailure(failure_);
  }
}
