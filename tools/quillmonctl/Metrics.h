#pragma once

#include "quillmonctl/Baseline.h"
#include "quillmonctl/Json.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ctl {

/// What was read of a till, for its metrics.
struct TillReading {
  bool isUp = false;         ///< all that was asked for was answered
  bool isListed = false;     ///< the list of devices is whole
  std::vector<Json> devices; ///< instances of UPOS_LogicalDevice
  /// Instances of the classes of counterClasses, which have counters of their own.
  std::map<std::string, std::vector<Json>> categories;
  std::optional<std::int64_t> lastEvent; ///< seconds since 1970, UTC
};

/// The classes of the MOF that have counters and that one of the devices belongs to.
std::vector<std::string> counterClasses(const std::vector<Json>& devices);

/// "quillmon_scanner_good_scan_total" for UPOS_Scanner's GoodScanCount.
std::string metricName(std::string_view className, std::string_view property);

/// The text that Prometheus and its node exporters' textfile collectors read: the classic text
/// format, in UTF-8, one family after the other. Each series is there once, whatever the devices
/// report: one that is there twice costs a collector its whole scrape. It ends with the line that
/// ends a text of OpenMetrics, where a type "info" is not used: the collectors do not know it.
///
/// With a baseline each device that is expected or present says whether it is expected, and, if the
/// devices were listed, whether it is present.
std::string metricsText(const TillReading& reading, const std::optional<Baseline>& baseline);

} // namespace ctl
