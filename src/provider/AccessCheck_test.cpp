#include "PatchedImport.h"
#include "provider/AccessCheck.h"
#include "provider/testing/ProviderFakes.h"

#include <gtest/gtest.h>
#include <sddl.h>

using test_support::PatchedImport;

namespace {

using win::wbemResult;

constexpr GENERIC_MAPPING kMapping = {0, 0, 0x000F0001, 0x000F0001};

/// Gives the thread a token of the given level for one scope.
class Impersonating {
public:
  explicit Impersonating(SECURITY_IMPERSONATION_LEVEL level, bool denied = false)
      : token_(fakes::callerToken(level, denied)) {
    EXPECT_TRUE(SetThreadToken(nullptr, token_.get()));
  }
  Impersonating(const Impersonating&) = delete;
  Impersonating& operator=(const Impersonating&) = delete;
  ~Impersonating() { SetThreadToken(nullptr, nullptr); }

private:
  win::Handle token_;
};

const char* const kUsers = "O:BAG:BAD:(A;;0x10000001;;;AU)";
const char* const kAdministrators = "O:BAG:BAD:(A;;0x10000001;;;BA)";

HRESULT check(const char* sddl) {
  const win::LocalMemory descriptor = provider::securityDescriptor(sddl);
  EXPECT_TRUE(descriptor);
  return provider::CheckAccess(descriptor.get(), 1, kMapping);
}

TEST(CheckAccess, ACallerWhomTheDescriptorNamesIsGranted) {
  const Impersonating caller(SecurityImpersonation);
  EXPECT_EQ(check(kUsers), S_OK);
  EXPECT_EQ(check(kAdministrators), S_OK);
}

TEST(CheckAccess, ACallerAtIdentificationLevelCanBeChecked) {
  const Impersonating caller(SecurityIdentification);
  EXPECT_EQ(check(kUsers), S_OK);
}

TEST(CheckAccess, ACallerWhomTheDescriptorDoesNotNameIsDenied) {
  const Impersonating caller(SecurityImpersonation, true);
  EXPECT_EQ(check(kUsers), wbemResult(WBEM_E_ACCESS_DENIED));
  EXPECT_EQ(check(kAdministrators), wbemResult(WBEM_E_ACCESS_DENIED));
}

TEST(CheckAccess, OtherGrantedRightsAreNotEnough) {
  const Impersonating caller(SecurityImpersonation);
  EXPECT_EQ(check("O:BAG:BAD:(A;;0x2;;;AU)"), wbemResult(WBEM_E_ACCESS_DENIED));
}

TEST(CheckAccess, WithoutATokenTheResultIsFailed) {
  EXPECT_EQ(check(kUsers), wbemResult(WBEM_E_FAILED));
}

// Kept: a Win32 code never equals the HRESULT that it is compared with.
TEST(CheckAccess, ATokenThatMayNotBeOpenedIsFailedNotDenied) {
  const PatchedImport patch(
      "OpenThreadToken", +[](HANDLE, DWORD, BOOL, PHANDLE) -> BOOL {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
      });
  EXPECT_EQ(check(kUsers), wbemResult(WBEM_E_FAILED));
}

TEST(CheckAccess, TheLiteralHresultAsLastErrorWouldBeDenied) {
  const PatchedImport patch(
      "OpenThreadToken", +[](HANDLE, DWORD, BOOL, PHANDLE) -> BOOL {
        SetLastError(0x80070005);
        return FALSE;
      });
  EXPECT_EQ(check(kUsers), wbemResult(WBEM_E_ACCESS_DENIED));
}

TEST(CheckAccess, ABrokenDescriptorIsDenied) {
  const Impersonating caller(SecurityImpersonation);
  BYTE zeros[sizeof(SECURITY_DESCRIPTOR)] = {};
  EXPECT_EQ(provider::CheckAccess(zeros, 1, kMapping), wbemResult(WBEM_E_ACCESS_DENIED));
}

std::vector<DWORD> offeredLengths;
DWORD demandedLength;

BOOL WINAPI demandAlways(PSECURITY_DESCRIPTOR, HANDLE, DWORD desired, PGENERIC_MAPPING mapping,
                         PPRIVILEGE_SET privileges, LPDWORD length, LPDWORD, LPBOOL) {
  EXPECT_EQ(desired, 1U);
  EXPECT_EQ(mapping->GenericRead, 0U);
  EXPECT_EQ(mapping->GenericWrite, 0U);
  EXPECT_EQ(mapping->GenericExecute, 0x000F0001U);
  EXPECT_EQ(mapping->GenericAll, 0x000F0001U);
  EXPECT_NE(privileges, nullptr);
  offeredLengths.push_back(*length);
  *length = demandedLength;
  SetLastError(ERROR_INSUFFICIENT_BUFFER);
  return FALSE;
}

TEST(CheckAccess, QueriesTheBufferSizeFirst) {
  const Impersonating caller(SecurityImpersonation);
  offeredLengths.clear();
  demandedLength = 44;
  const PatchedImport patch("AccessCheck", &demandAlways);
  EXPECT_EQ(check(kUsers), wbemResult(WBEM_E_ACCESS_DENIED));
  EXPECT_EQ(offeredLengths, (std::vector<DWORD>{0, 44}));
}

TEST(CheckAccess, AGrantAtTheFirstCallIsAccepted) {
  const Impersonating caller(SecurityImpersonation);
  const PatchedImport patch(
      "AccessCheck",
      +[](PSECURITY_DESCRIPTOR, HANDLE, DWORD, PGENERIC_MAPPING, PPRIVILEGE_SET, LPDWORD, LPDWORD,
          LPBOOL allowed) -> BOOL {
        *allowed = TRUE;
        return TRUE;
      });
  EXPECT_EQ(check(kUsers), S_OK);
}

TEST(CheckAccess, ADenialAtTheFirstCallIsFinal) {
  const Impersonating caller(SecurityImpersonation);
  static int calls = 0;
  const PatchedImport patch(
      "AccessCheck",
      +[](PSECURITY_DESCRIPTOR, HANDLE, DWORD, PGENERIC_MAPPING, PPRIVILEGE_SET, LPDWORD, LPDWORD,
          LPBOOL allowed) -> BOOL {
        ++calls;
        *allowed = FALSE;
        return TRUE;
      });
  SetLastError(ERROR_INSUFFICIENT_BUFFER); // stale; must be ignored
  EXPECT_EQ(check(kUsers), wbemResult(WBEM_E_ACCESS_DENIED));
  EXPECT_EQ(calls, 1);
}

TEST(CheckAccess, TheTokenIsClosedAfterwards) {
  const Impersonating caller(SecurityImpersonation);
  static std::vector<HANDLE> closed;
  closed.clear();
  const PatchedImport patch(
      "CloseHandle", +[](HANDLE handle) -> BOOL {
        closed.push_back(handle);
        return TRUE;
      });
  check(kUsers);
  check(kAdministrators);
  EXPECT_EQ(closed.size(), 2U);
}

TEST(SecurityDescriptor, InvalidTextGivesNone) {
  EXPECT_FALSE(provider::securityDescriptor("nonsense"));
}

struct LevelRow {
  SECURITY_IMPERSONATION_LEVEL level;
  DWORD answer;
};

TEST(ThreadImpersonationLevel, IsTheTokensLevel) {
  for (const LevelRow& row :
       {LevelRow{SecurityAnonymous, 1}, LevelRow{SecurityIdentification, 2},
        LevelRow{SecurityImpersonation, 3}, LevelRow{SecurityDelegation, 4}}) {
    SCOPED_TRACE(row.level);
    const Impersonating caller(row.level);
    EXPECT_EQ(provider::threadImpersonationLevel(), row.answer);
  }
}

TEST(ThreadImpersonationLevel, WithoutATokenItIsDelegation) {
  EXPECT_EQ(provider::threadImpersonationLevel(), 4U);
}

struct OpenRow {
  DWORD error;
  DWORD answer;
};

TEST(ThreadImpersonationLevel, DependsOnTheErrorOfOpeningTheToken) {
  static DWORD error;
  const PatchedImport patch(
      "OpenThreadToken", +[](HANDLE, DWORD access, BOOL, PHANDLE) -> BOOL {
        EXPECT_EQ(access, static_cast<DWORD>(TOKEN_QUERY));
        SetLastError(error);
        return FALSE;
      });
  for (const OpenRow& row :
       {OpenRow{ERROR_NO_IMPERSONATION_TOKEN, 4}, OpenRow{ERROR_NO_TOKEN, 4},
        OpenRow{ERROR_CANT_OPEN_ANONYMOUS, 1}, OpenRow{ERROR_ACCESS_DENIED, 1}}) {
    SCOPED_TRACE(row.error);
    error = row.error;
    EXPECT_EQ(provider::threadImpersonationLevel(), row.answer);
  }
}

TEST(ThreadImpersonationLevel, AnUnreadableLevelIsAnonymous) {
  const Impersonating caller(SecurityImpersonation);
  const PatchedImport patch(
      "GetTokenInformation",
      +[](HANDLE, TOKEN_INFORMATION_CLASS, LPVOID, DWORD, PDWORD) -> BOOL { return FALSE; });
  EXPECT_EQ(provider::threadImpersonationLevel(), 1U);
}

} // namespace
