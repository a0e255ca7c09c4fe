#include "quillmonctl/ZipFile.h"

#include <array>
#include <limits>
#include <stdexcept>

namespace ctl {
namespace {

constexpr std::uint32_t kFileSignature = 0x04034b50;
constexpr std::uint32_t kDirectorySignature = 0x02014b50;
constexpr std::uint32_t kEndSignature = 0x06054b50;
constexpr std::uint16_t kVersion = 20;

void put16(std::string& out, std::uint32_t value) {
  out += static_cast<char>(value & 0xFFU);
  out += static_cast<char>(value >> 8U & 0xFFU);
}

void put32(std::string& out, std::uint32_t value) {
  put16(out, value & 0xFFFFU);
  put16(out, value >> 16U);
}

constexpr auto kTable = [] {
  std::array<std::uint32_t, 256> table{};
  for (std::uint32_t i = 0; i < table.size(); ++i) {
    std::uint32_t value = i;
    for (int bit = 0; bit < 8; ++bit) {
      value = value >> 1U ^ ((value & 1U) != 0 ? 0xEDB88320U : 0U);
    }
    table[i] = value;
  }
  return table;
}();

/// CRC-32.
std::uint32_t checksum(std::string_view content) {
  std::uint32_t value = 0xFFFFFFFFU;
  for (const char byte : content) {
    value = kTable[(value ^ static_cast<unsigned char>(byte)) & 0xFFU] ^ value >> 8U;
  }
  return ~value;
}

} // namespace

void ZipFile::add(std::string_view name, std::string_view content) {
  if (files_.size() + directory_.size() + 2 * name.size() + content.size() + 100 >
      std::numeric_limits<std::uint32_t>::max()) {
    throw std::length_error("the archive would exceed 4 GiB");
  }
  std::string common;
  put16(common, kVersion);
  put16(common, 0); // flags
  put16(common, 0); // stored
  put32(common, dosTime_);
  put32(common, checksum(content));
  put32(common, static_cast<std::uint32_t>(content.size()));
  put32(common, static_cast<std::uint32_t>(content.size()));
  put16(common, static_cast<std::uint32_t>(name.size()));
  put16(common, 0); // extra field

  put32(directory_, kDirectorySignature);
  put16(directory_, kVersion);
  directory_ += common;
  put16(directory_, 0); // comment
  put16(directory_, 0); // disk
  put16(directory_, 0); // internal attributes
  put32(directory_, 0); // external attributes
  put32(directory_, static_cast<std::uint32_t>(files_.size()));
  directory_ += name;

  put32(files_, kFileSignature);
  files_ += common;
  files_.append(name).append(content);
  ++count_;
}

std::string ZipFile::bytes() const {
  std::string end;
  put32(end, kEndSignature);
  put16(end, 0); // this disk
  put16(end, 0); // the directory's disk
  put16(end, count_);
  put16(end, count_);
  put32(end, static_cast<std::uint32_t>(directory_.size()));
  put32(end, static_cast<std::uint32_t>(files_.size()));
  put16(end, 0); // comment
  return files_ + directory_ + end;
}

} // namespace ctl
