#pragma once

#include <cstddef>
#include <string>

/// The documents of all measurements. A device has eight fields: six texts, a number and a boolean.
/// Its maker's devices are published.
namespace documents {

inline constexpr char kClass[] = "UPOS_Scanner";

/// "DEV" and the number.
std::string deviceId(std::size_t number);
/// An answer of devices 0 to `count` - 1.
std::string answer(std::size_t count);
/// An answer of one device, with that id.
std::string answerFor(const std::string& id);
/// An event about device `number`, with all fields for "addInstance", otherwise with four.
std::string event(const std::string& type, std::size_t number);

} // namespace documents
