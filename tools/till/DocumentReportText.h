#pragma once

#include "quillmonctl/Json.h"
#include "till/DocumentCheck.h"

#include <string>

namespace till {

/// One line: "instance 2 (PINPAD1), field ModelName: ...".
std::string toText(const Finding& finding);

/// For a console of 80 columns; of many instances and findings only the first.
std::string toText(const DocumentReport& report, const std::string& name);
ctl::Json toJson(const DocumentReport& report);

} // namespace till
