#include "xml/XmlLibrary.h"

#include "xml/StartMemory.h"
#include "xml/XmlFailure.h"

#include <xercesc/util/OutOfMemoryException.hpp>
#include <xercesc/util/PanicHandler.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/XMLException.hpp>
#include <xercesc/util/XMLUni.hpp>

#include <optional>

namespace xml {

namespace {

using xercesc::PanicHandler;
using xercesc::XMLPlatformUtils;

/// Thrown instead of the library's default, which ends the process.
struct Panic {
  const char* message;
};

class ThrowingPanicHandler : public PanicHandler {
public:
  [[noreturn]] void panic(const PanicReasons reason) override {
    throw Panic{getPanicReasonString(reason)};
  }
};

/// Never destroyed, like the statics below: a thread may still be reading when the process ends.
PanicHandler& panicHandler() {
  static PanicHandler& handler = *new ThrowingPanicHandler;
  return handler;
}

StartMemory& startMemory() {
  static StartMemory& memory = *new StartMemory;
  return memory;
}

std::mutex& startLock() {
  static std::mutex& lock = *new std::mutex;
  return lock;
}

/// A failed start leaves the library half initialised: ending it or starting it again crashes, so
/// it is never called again. Guarded by startLock().
constinit bool unusable = false;

/// Number of open sessions. The library initialises in the first start and cleans up in the last
/// end. Guarded by startLock().
constinit int sessions = 0;

/// The library's messages are ASCII. Does not use the transcoder, which may not be initialised.
std::string toAscii(const XMLCh* text) {
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
      setFailure("the library could not be started earlier");
      return;
    }
    PanicHandler& handler = panicHandler();
    StartMemory& memory = startMemory();
    unusable = true;
    start(handler, memory);
    unusable = !started_;
  } catch (...) {
    setFailure("");
  }
}

void XmlLibrary::start(PanicHandler& handler, StartMemory& memory) {
  try {
    std::optional<StartMemory::Area> area;
    if (sessions == 0) {
      area.emplace(memory);
    }
    XMLPlatformUtils::Initialize(xercesc::XMLUni::fgXercescDefaultLocale, nullptr, &handler,
                                 &memory);
    ++sessions;
    started_ = true;
  } catch (const xercesc::XMLException& exception) {
    setFailure(toAscii(exception.getMessage()).c_str());
  } catch (const xercesc::OutOfMemoryException&) {
    setFailure("OutOfMemory");
  } catch (const Panic& panic) {
    setFailure(panic.message);
  } catch (const std::exception& exception) {
    setFailure(exception.what());
  }
}

void XmlLibrary::setFailure(const char* message) noexcept {
  try {
    failure_ = message;
  } catch (...) { // out of memory: no message
  }
}

XmlLibrary::~XmlLibrary() {
  if (started_) {
    try {
      const std::scoped_lock lock(startLock());
      std::optional<StartMemory::Area> area;
      if (--sessions == 0) {
        area.emplace(startMemory());
      }
      XMLPlatformUtils::Terminate();
    } catch (...) { // a destructor must not throw
    }
  }
}

void XmlLibrary::require() const {
  if (!started_) {
    throw XmlFailure(failure_);
  }
}

} // namespace xml
