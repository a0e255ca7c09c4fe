#pragma once

#include "Cim.h"

#include <cstdint>
#include <string>
#include <string_view>

/// The messages between a client's and a provider's process: a length of four bytes, the kind, the
/// payload. Numbers are little-endian. Reading throws std::runtime_error if a message is too short
/// or does not match the repository.
namespace wmi_host::wire {

enum class Kind : std::uint8_t {
  hello,     // server: text, the identity published in the registry
  enumerate, // client: text, a class name
  get,       // client: text, an object path
  subscribe, // client: nothing; answered by status, then objects without end
  object,    // server
  status,    // server: number; ends a request
};

constexpr std::uint32_t kHeaderBytes = 5;
constexpr std::uint32_t kMaxPayload = 64u << 20;

struct Message {
  Kind kind = Kind::status;
  std::string payload;
};

std::string frame(Kind kind, std::string_view payload);
/// `header` has kHeaderBytes bytes; sets the kind, returns the payload's length.
std::uint32_t readHeader(std::string_view header, Kind& kind);

std::string fromText(std::wstring_view text);
std::wstring toText(std::string_view payload);
std::string fromNumber(std::uint32_t number);
std::uint32_t toNumber(std::string_view payload);
std::string fromObject(const Object& object);
Object toObject(std::string_view payload, const Repository& repository);

} // namespace wmi_host::wire
