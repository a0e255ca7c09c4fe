#include "device_server/Log.h"

#include <fmt/format.h>

#include <ctime>
#include <string>

namespace till {
namespace {

std::string now() {
  const std::time_t seconds = std::time(nullptr);
  // One thread at a time, as the class says. NOLINTNEXTLINE(concurrency-mt-unsafe)
  const std::tm* local = std::localtime(&seconds);
  return local == nullptr
             ? std::string()
             : fmt::format("{:02}:{:02}:{:02} ", local->tm_hour, local->tm_min, local->tm_sec);
}

} // namespace

void Log::event(std::string_view text) {
  if (!options_.quiet) {
    say((options_.timestamps ? now() : std::string()).append(text));
  }
}

void Log::say(std::string_view text) {
  out_ << text << '\n' << std::flush;
}

void Log::error(std::string_view text) {
  errors_ << "quillmon-till: " << text << '\n' << std::flush;
}

} // namespace till
