#include "win/CodeSearch.h"

#include <windows.h>

#include <array>
#include <string_view>

namespace {

/// A function that Windows 7 lacks. If it were imported, the loader would refuse the program there
/// with a message box, which a service cannot show.
template <class Function>
Function* youngFunction(const char* name) noexcept {
  return reinterpret_cast<Function*>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), name)));
}

/// WMI's own in-process servers lie there and may load one another by bare name.
void addFolderOfWmi() noexcept {
  constexpr std::wstring_view kName = L"\\wbem";
  std::array<wchar_t, MAX_PATH + kName.size()> path{}; // ends in zeros
  const UINT length = GetSystemDirectoryW(path.data(), MAX_PATH);
  if (length == 0 || length >= MAX_PATH) {
    return;
  }
  kName.copy(path.data() + length, kName.size());
  if (auto* const add = youngFunction<decltype(AddDllDirectory)>("AddDllDirectory")) {
    add(path.data());
  }
}

} // namespace

void win::loadCodeFromSystemOnly() noexcept {
  addFolderOfWmi();
  if (auto* const set =
          youngFunction<decltype(SetDefaultDllDirectories)>("SetDefaultDllDirectories")) {
    set(LOAD_LIBRARY_SEARCH_SYSTEM32 | LOAD_LIBRARY_SEARCH_USER_DIRS);
  }
  PROCESS_MITIGATION_IMAGE_LOAD_POLICY policy{};
  policy.NoRemoteImages = 1;
  policy.NoLowMandatoryLabelImages = 1;
  policy.PreferSystem32Images = 1;
  if (auto* const set =
          youngFunction<decltype(SetProcessMitigationPolicy)>("SetProcessMitigationPolicy")) {
    set(ProcessImageLoadPolicy, &policy, sizeof policy);
  }
}
