#pragma once

#include "quillmonctl/Console.h"
#include "quillmonctl/Failure.h"
#include "quillmonctl/Json.h"
#include "quillmonctl/Text.h"

#include <fmt/format.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace ctl {

/// A job of several steps: says each one that is done, and takes all back when one fails.
class Steps {
public:
  explicit Steps(bool json) : json_(json) {}

  void done(const std::string& what) {
    done_.push_back(what);
    say(fmt::format("ok    {}", what));
  }

  /// Not done, and not worth giving up for.
  void warn(const std::string& what, const SystemError& error, const std::string& advice) {
    warnings_.push_back({{"step", what}, {"text", describe(error)}, {"advice", advice}});
    say(fmt::format("WARN  {}: {}", what, describe(error)));
    say(fmt::format("      what to do: {}", advice));
  }

  /// What takes the last step back, and how that is called.
  void onFailure(const std::string& what, std::function<void()> undo) {
    undo_.emplace_back(what, std::move(undo));
  }

  /// Runs `job`; a Failure of its leaves with what was taken back, and what could not be.
  void run(const std::function<void()>& job) {
    try {
      job();
    } catch (Failure& failure) {
      for (auto step = undo_.rbegin(); step != undo_.rend(); ++step) {
        try {
          step->second();
          failure.undone.push_back(step->first);
        } catch (const Failure& other) {
          failure.undone.push_back(fmt::format("NOT {}: {}: {}", step->first, other.step,
                                               other.error ? describe(*other.error) : ""));
        }
      }
      throw;
    }
  }

  Json toJson() const { return {{"steps", done_}, {"warnings", warnings_}}; }

private:
  void say(const std::string& line) const {
    if (!json_) {
      console::print(wrap(line, kWidth, 8));
    }
  }

  bool json_;
  std::vector<std::string> done_;
  Json warnings_ = Json::array();
  std::vector<std::pair<std::string, std::function<void()>>> undo_;
};

} // namespace ctl
