#pragma once

#include "till/Inventory.h"

#include <initializer_list>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

/// The three documents of the protocol, built and read in this one place. docs/protocol.md is their
/// description. All texts are UTF-8.
namespace till {

inline constexpr std::string_view kEnumerateInstances = "enumerateInstances";
inline constexpr std::string_view kGetInstance = "getInstance";
inline constexpr std::string_view kUpdateInstances = "updateInstances";
inline constexpr std::string_view kAddInstance = "addInstance";
inline constexpr std::string_view kModifyInstance = "modifyInstance";
inline constexpr std::string_view kDelInstance = "delInstance";

/// What is wrong with a request, in words for the log and for the error answer.
class RequestError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

struct Request {
  std::string type;
  std::string className;
  std::string id; ///< empty: the request has none
};

/// A request of one of these types, with the class and the id that its type needs. Any declaration
/// is accepted: the bytes are UTF-8 whatever encoding it names. Throws RequestError.
Request readRequest(std::string_view document, std::initializer_list<std::string_view> types);

std::string responseDocument(const std::vector<const Device*>& devices);
std::string errorDocument(std::string_view what);
/// A response with `count` instances of a class, made up, all of a maker that the service keeps.
std::string hugeDocument(std::string_view className, std::size_t count);

/// Marks the start of an event on a stream, to the letter.
inline constexpr std::string_view kEventDeclaration =
    "<?xml version='1.0' encoding='UTF-8' standalone='no' ?>";
inline constexpr std::string_view kEventEnd = "</event>";

/// The service reads this much of a datagram; a longer one is lost as a whole.
inline constexpr std::size_t kLongestDatagram = 1024;

/// A datagram has room for the two fields that are read there, DeviceID and ManufacturerName.
enum class EventFields { DatagramOnly, All };
/// An event about a device, from kEventDeclaration to kEventEnd.
std::string eventDocument(const Device& device, std::string_view classname, std::string_view type,
                          std::string_view code, EventFields fields);

} // namespace till
