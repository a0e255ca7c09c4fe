#include "PatchedImport.h"
#include "win/CodeSearch.h"

#include <windows.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>

using test_support::PatchedImport;

namespace {

DWORD policyFlags = 0;
PROCESS_MITIGATION_POLICY policyKind = MaxProcessMitigationPolicy;
decltype(GetProcAddress)* realLookUp = nullptr;

BOOL WINAPI observedPolicy(PROCESS_MITIGATION_POLICY kind, PVOID policy, SIZE_T size) {
  policyKind = kind;
  if (size == sizeof policyFlags) {
    policyFlags = *static_cast<const DWORD*>(policy);
  }
  return TRUE;
}

FARPROC WINAPI lookUpWithObservedPolicy(HMODULE module, LPCSTR name) {
  return name == std::string_view("SetProcessMitigationPolicy")
             ? reinterpret_cast<FARPROC>(reinterpret_cast<void*>(observedPolicy))
             : realLookUp(module, name);
}

FARPROC WINAPI lookUpInAnOldSystem(HMODULE, LPCSTR) {
  SetLastError(ERROR_PROC_NOT_FOUND);
  return nullptr;
}

/// Where the library was found; empty if nowhere.
std::string loadedFrom(const std::string& name) {
  char path[MAX_PATH] = "";
  if (const HMODULE module = LoadLibraryA(name.c_str())) {
    GetModuleFileNameA(module, path, MAX_PATH);
    FreeLibrary(module);
  }
  return path;
}

std::string programFolder() {
  char path[MAX_PATH] = "";
  GetModuleFileNameA(nullptr, path, MAX_PATH);
  return std::string(path, std::string_view(path).rfind('\\'));
}

std::string systemFolder() {
  char path[MAX_PATH] = "";
  GetSystemDirectoryA(path, MAX_PATH);
  return path;
}

/// A library that has the test's name: tests in other processes have theirs.
class Library {
public:
  explicit Library(const std::string& folder) : path_(folder + "\\" + name()) {
    CopyFileA((systemFolder() + "\\version.dll").c_str(), path_.c_str(), FALSE);
  }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
  ~Library() { DeleteFileA(path_.c_str()); }

  const std::string& path() const { return path_; }

  static std::string name() {
    return std::string(testing::UnitTest::GetInstance()->current_test_info()->name()) + ".dll";
  }

private:
  std::string path_;
};

TEST(CodeSearch, CodeThatIsPlantedBesideTheProgramIsNotLoaded) {
  const Library planted(programFolder());
  ASSERT_STRCASEEQ(loadedFrom(Library::name()).c_str(), planted.path().c_str());
  win::loadCodeFromSystemOnly();
  EXPECT_EQ(loadedFrom(Library::name()), "");
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MOD_NOT_FOUND));
  EXPECT_NE(loadedFrom("version.dll"), "");
}

TEST(CodeSearch, WhatWmisServersLoadIsFoundInTheirFolderAndNotInTheProgramsOwn) {
  const Library planted(programFolder());
  const Library server(systemFolder() + "\\wbem");
  ASSERT_STRCASEEQ(loadedFrom(Library::name()).c_str(), planted.path().c_str());
  win::loadCodeFromSystemOnly();
  EXPECT_STRCASEEQ(loadedFrom(Library::name()).c_str(), server.path().c_str());
}

TEST(CodeSearch, RemoteAndLowIntegrityImagesAreRefused) {
  const PatchedImport<decltype(GetProcAddress)> patch("GetProcAddress", lookUpWithObservedPolicy);
  realLookUp = patch.original();
  win::loadCodeFromSystemOnly();
  EXPECT_EQ(policyKind, ProcessImageLoadPolicy);
  EXPECT_EQ(policyFlags, 7U); // no remote or low-integrity images; the system folder first
}

TEST(CodeSearch, ASystemThatKnowsNoneOfTheSettingsStaysAsItIs) {
  const Library planted(programFolder());
  const PatchedImport<decltype(GetProcAddress)> patch("GetProcAddress", lookUpInAnOldSystem);
  win::loadCodeFromSystemOnly();
  EXPECT_STRCASEEQ(loadedFrom(Library::name()).c_str(), planted.path().c_str());
}

} // namespace
