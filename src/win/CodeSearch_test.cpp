#include "PatchedImport.h"
#include "win/CodeSearch.h"

#include <windows.h>
#include <gtest/gtest.h>

#include <string>

using test_support::PatchedImport;

namespace {

DWORD policyFlags = 0;
PROCESS_MITIGATION_POLICY policyKind = MaxProcessMitigationPolicy;

WINBOOL WINAPI observedPolicy(PROCESS_MITIGATION_POLICY kind, PVOID policy, SIZE_T size) {
  policyKind = kind;
  if (size == sizeof policyFlags) {
    policyFlags = *static_cast<const DWORD*>(policy);
  }
  return TRUE;
}

bool loads(const char* name) {
  const HMODULE module = LoadLibraryA(name);
  if (module != nullptr) {
    FreeLibrary(module);
  }
  return module != nullptr;
}

/// A library with a unique name beside this program.
class PlantedLibrary {
public:
  PlantedLibrary() {
    char path[MAX_PATH] = "";
    GetModuleFileNameA(nullptr, path, MAX_PATH);
    path_ = path;
    path_.replace(path_.rfind('\\') + 1, std::string::npos, kName);
    GetSystemDirectoryA(path, MAX_PATH);
    CopyFileA((std::string(path) + "\\version.dll").c_str(), path_.c_str(), FALSE);
  }
  PlantedLibrary(const PlantedLibrary&) = delete;
  PlantedLibrary& operator=(const PlantedLibrary&) = delete;
  ~PlantedLibrary() { DeleteFileA(path_.c_str()); }

  static constexpr char kName[] = "quillmon_planted.dll";

private:
  std::string path_;
};

TEST(CodeSearch, CodeThatIsPlantedBesideTheProgramIsNotLoaded) {
  const PlantedLibrary planted;
  ASSERT_TRUE(loads(PlantedLibrary::kName));
  win::loadCodeFromSystemOnly();
  EXPECT_FALSE(loads(PlantedLibrary::kName));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MOD_NOT_FOUND));
  EXPECT_TRUE(loads("version.dll"));
}

TEST(CodeSearch, RemoteAndLowIntegrityImagesAreRefused) {
  const PatchedImport<decltype(SetProcessMitigationPolicy)> patch("SetProcessMitigationPolicy",
                                                                  observedPolicy);
  win::loadCodeFromSystemOnly();
  EXPECT_EQ(policyKind, ProcessImageLoadPolicy);
  EXPECT_EQ(policyFlags, 7U); // no remote or low-integrity images; the system folder first
}

} // namespace
