#include "win/CodeSearch.h"

#include <windows.h>

void win::loadCodeFromSystemOnly() noexcept {
  SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
  PROCESS_MITIGATION_IMAGE_LOAD_POLICY policy{};
  policy.NoRemoteImages = 1;
  policy.NoLowMandatoryLabelImages = 1;
  policy.PreferSystem32Images = 1;
  SetProcessMitigationPolicy(ProcessImageLoadPolicy, &policy, sizeof policy);
}
