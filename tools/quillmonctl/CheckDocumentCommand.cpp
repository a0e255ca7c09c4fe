// quillmonctl check-document

#include "quillmonctl/Commands.h"
#include "quillmonctl/System.h"

namespace ctl {

// This program is run elevated, so it links no XML library; the one that does is another program.
ExitCode checkDocument() {
  return static_cast<ExitCode>(runInstead(programFolder() + "\\quillmon-till.exe"));
}

} // namespace ctl
