#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// What the service makes of a document of a device server. The service's own code reads it, in
/// both strategies; what is added here is only the reason. All texts are UTF-8.
namespace till {

/// Something about a document that its author may not have meant.
struct Finding {
  enum class Level { Note, Problem };
  enum class Strategy { Both, Adapter, Proxy };

  Level level = Level::Problem;
  Strategy strategy = Strategy::Both;
  std::string code;         ///< for scripts: "not-converted"
  std::size_t instance = 0; ///< from 1; 0: the document
  std::string device;
  std::string field;
  std::string text;
};

struct InstanceVerdict {
  std::string className;
  std::string device; ///< its DeviceID; empty: none
  bool kept = false;
};

/// An event in one of the situations that the service can be in.
struct EventVerdict {
  Finding::Strategy strategy = Finding::Strategy::Adapter;
  bool isCached = false; ///< proxy strategy: the service has had an addInstance of the device
  bool published = false;
  std::string effect; ///< on the cache: "stored", "changed", "removed", "none"
};

struct EventTexts {
  std::string type;
  std::string classname;
  std::string device;
  std::string code;
};

struct DocumentReport {
  enum class Kind { Answer, Event, Unreadable };

  Kind kind = Kind::Unreadable;
  std::size_t bytes = 0;
  /// Of the service's reader: 0 read, 1 error answer, -1 unreadable. An event has none.
  std::optional<int> status;
  std::string message; ///< the XML library's
  std::size_t line = 0;
  std::size_t column = 0;
  std::string codePage;
  std::vector<InstanceVerdict> instances;
  std::optional<EventTexts> event;
  std::vector<EventVerdict> eventVerdicts;
  std::vector<Finding> findings;   ///< the first kMostFindings of them
  std::size_t furtherFindings = 0; ///< and so many more
  bool hasProblems = false;        ///< not only notes

  static constexpr std::size_t kMostFindings = 10'000;
};

/// A message cut out of bytes by the service's own reader of frames.
struct Unframed {
  std::string message;
  std::size_t before = 0; ///< bytes dropped in front of the start mark
  bool started = false;
  bool ended = false;
};
Unframed unframe(std::string_view bytes);

/// `bytes` is a document, or a message with its start mark as the first byte. Throws
/// std::bad_alloc. One thread at a time.
DocumentReport checkDocument(std::string_view bytes);

} // namespace till
