#include "Wire.h"

#include <stdexcept>
#include <variant>

namespace wmi_host::wire {
namespace {

template <class Number>
void append(std::string& bytes, Number number) {
  for (std::size_t i = 0; i < sizeof(Number); ++i) {
    bytes += static_cast<char>((number >> (8 * i)) & 0xff);
  }
}

void appendText(std::string& bytes, std::wstring_view text) {
  append(bytes, static_cast<std::uint32_t>(text.size()));
  for (wchar_t c : text) {
    append(bytes, static_cast<std::uint32_t>(c));
  }
}

void appendScalar(std::string& bytes, const Scalar& value) {
  append(bytes, static_cast<std::uint8_t>(value.index()));
  if (const auto* text = std::get_if<std::wstring>(&value)) {
    appendText(bytes, *text);
  } else if (const auto* truth = std::get_if<bool>(&value)) {
    append(bytes, std::uint64_t{*truth});
  } else if (const auto* number = std::get_if<std::int64_t>(&value)) {
    append(bytes, static_cast<std::uint64_t>(*number));
  } else {
    append(bytes, std::get<std::uint64_t>(value));
  }
}

class Reader {
public:
  explicit Reader(std::string_view bytes) : rest_(bytes) {}

  template <class Number>
  Number number() {
    need(sizeof(Number));
    std::uint64_t result = 0;
    for (std::size_t i = 0; i < sizeof(Number); ++i) {
      result |= std::uint64_t{static_cast<unsigned char>(rest_[i])} << (8 * i);
    }
    rest_.remove_prefix(sizeof(Number));
    return static_cast<Number>(result);
  }
  std::wstring text() {
    std::size_t length = number<std::uint32_t>();
    need(length * 4);
    std::wstring result;
    for (std::size_t i = 0; i < length; ++i) {
      result += static_cast<wchar_t>(number<std::uint32_t>());
    }
    return result;
  }
  Scalar scalar() {
    switch (number<std::uint8_t>()) {
    case 0:
      return number<std::uint64_t>() != 0;
    case 1:
      return static_cast<std::int64_t>(number<std::uint64_t>());
    case 2:
      return number<std::uint64_t>();
    case 3:
      return text();
    default:
      throw std::runtime_error("wire: unknown kind of value");
    }
  }
  void end() const {
    if (!rest_.empty()) {
      throw std::runtime_error("wire: more bytes than expected");
    }
  }

private:
  void need(std::size_t count) const {
    if (rest_.size() < count) {
      throw std::runtime_error("wire: message cut short");
    }
  }

  std::string_view rest_;
};

} // namespace

std::string frame(Kind kind, std::string_view payload) {
  std::string bytes;
  append(bytes, static_cast<std::uint32_t>(payload.size()));
  append(bytes, static_cast<std::uint8_t>(kind));
  return bytes.append(payload);
}

std::uint32_t readHeader(std::string_view header, Kind& kind) {
  Reader reader(header);
  auto length = reader.number<std::uint32_t>();
  auto number = reader.number<std::uint8_t>();
  reader.end();
  if (number > static_cast<std::uint8_t>(Kind::status) || length > kMaxPayload) {
    throw std::runtime_error("wire: not a message");
  }
  kind = static_cast<Kind>(number);
  return length;
}

std::string fromText(std::wstring_view text) {
  std::string bytes;
  appendText(bytes, text);
  return bytes;
}

std::wstring toText(std::string_view payload) {
  Reader reader(payload);
  std::wstring text = reader.text();
  reader.end();
  return text;
}

std::string fromNumber(std::uint32_t number) {
  std::string bytes;
  append(bytes, number);
  return bytes;
}

std::uint32_t toNumber(std::string_view payload) {
  Reader reader(payload);
  auto number = reader.number<std::uint32_t>();
  reader.end();
  return number;
}

std::string fromObject(const Object& object) {
  std::string bytes;
  appendText(bytes, object.type->name);
  append(bytes, static_cast<std::uint32_t>(object.values.size()));
  for (std::size_t i = 0; i < object.values.size(); ++i) {
    const Value& value = object.values[i];
    appendText(bytes, object.type->properties[i].name);
    append(bytes, static_cast<std::uint8_t>(value.isArray));
    append(bytes, static_cast<std::uint32_t>(value.items.size()));
    for (const Scalar& item : value.items) {
      appendScalar(bytes, item);
    }
  }
  return bytes;
}

Object toObject(std::string_view payload, const Repository& repository) {
  Reader reader(payload);
  ClassPointer type = repository.findClass(reader.text());
  if (!type) {
    throw std::runtime_error("wire: an object of an unknown class");
  }
  Object object = Object::instanceOf(type);
  auto count = reader.number<std::uint32_t>();
  for (std::uint32_t i = 0; i < count; ++i) {
    std::optional<std::size_t> index = type->find(reader.text());
    Value value;
    value.isArray = reader.number<std::uint8_t>() != 0;
    auto items = reader.number<std::uint32_t>();
    for (std::uint32_t item = 0; item < items; ++item) {
      value.items.push_back(reader.scalar());
    }
    if (!index) {
      throw std::runtime_error("wire: an unknown property");
    }
    const Property& property = type->properties[*index];
    std::optional<Value> fitted = fit(property.type, property.isArray, value);
    if (!fitted) {
      throw std::runtime_error("wire: a value of the wrong type");
    }
    object.values[*index] = std::move(*fitted);
  }
  reader.end();
  return object;
}

} // namespace wmi_host::wire
