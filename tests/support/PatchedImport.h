#pragma once

#include <windows.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>

/// Puts a function of the test's own in place of one that this program imports from a system DLL,
/// until destruction: so a call of the platform can be watched, or made to fail. Calls that the
/// libraries make among themselves are not touched.
///
/// `Function` is the imported function's type: PatchedImport<decltype(recv)> patch("recv", fake).
/// Threads: set up and torn down while no other thread calls the function.
template <class Function>
class PatchedImport {
public:
  PatchedImport(const char* name, Function* replacement) : slot_(find(name)), original_(*slot_) {
    set(reinterpret_cast<std::uintptr_t>(replacement));
  }
  PatchedImport(const PatchedImport&) = delete;
  PatchedImport& operator=(const PatchedImport&) = delete;
  ~PatchedImport() { set(original_); }

  Function* original() const { return reinterpret_cast<Function*>(original_); }

private:
  void set(std::uintptr_t value) {
    DWORD protection = 0;
    VirtualProtect(slot_, sizeof *slot_, PAGE_READWRITE, &protection);
    *const_cast<volatile std::uintptr_t*>(slot_) = value;
    VirtualProtect(slot_, sizeof *slot_, protection, &protection);
  }

  template <class Type>
  static Type* inModule(std::uint64_t offset) {
    const auto base = reinterpret_cast<std::uintptr_t>(GetModuleHandleA(nullptr));
    return reinterpret_cast<Type*>(base + static_cast<std::uintptr_t>(offset));
  }

  /// The entry of this program's import address table; throws when it imports no such function.
  static std::uintptr_t* find(const char* name) {
    const auto* dos = inModule<IMAGE_DOS_HEADER>(0);
    const auto* headers = inModule<IMAGE_NT_HEADERS64>(static_cast<std::uint64_t>(dos->e_lfanew));
    const IMAGE_DATA_DIRECTORY& imports =
        headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    for (auto* dll = inModule<IMAGE_IMPORT_DESCRIPTOR>(imports.VirtualAddress); dll->Name != 0;
         ++dll) {
      const auto* names = inModule<IMAGE_THUNK_DATA64>(dll->OriginalFirstThunk);
      auto* addresses = inModule<std::uintptr_t>(dll->FirstThunk);
      for (; names->u1.AddressOfData != 0; ++names, ++addresses) {
        const bool byNumber = (names->u1.Ordinal & IMAGE_ORDINAL_FLAG64) != 0;
        if (!byNumber &&
            std::strcmp(inModule<IMAGE_IMPORT_BY_NAME>(names->u1.AddressOfData)->Name, name) == 0) {
          return addresses;
        }
      }
    }
    throw std::runtime_error(std::string("not imported: ") + name);
  }

  std::uintptr_t* slot_;
  std::uintptr_t original_;
};
