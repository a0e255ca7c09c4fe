#pragma once

#include <windows.h>

#include <cstring>
#include <stdexcept>
#include <string>

/// For tests: replaces one function that this program imports from a system library, for as long as
/// the object lives, so that a call of the platform can be watched or made to fail. Calls that the
/// libraries make among themselves are not touched. One patch of a function at a time.
class ImportPatch {
public:
  template <class Function>
  ImportPatch(const char* name, Function* replacement)
      : slot_(find(name)), original_(exchange(reinterpret_cast<void*>(replacement))) {}
  ImportPatch(const ImportPatch&) = delete;
  ImportPatch& operator=(const ImportPatch&) = delete;
  ~ImportPatch() { exchange(original_); }

private:
  static void** find(const char* name) {
    BYTE* const base = reinterpret_cast<BYTE*>(GetModuleHandleA(nullptr));
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const auto* imports = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(
        base + nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress);
    for (; imports->Name != 0; ++imports) {
      const auto* names =
          reinterpret_cast<const IMAGE_THUNK_DATA*>(base + imports->OriginalFirstThunk);
      auto* slots = reinterpret_cast<void**>(base + imports->FirstThunk);
      for (; names->u1.AddressOfData != 0; ++names, ++slots) {
        if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal)) {
          continue;
        }
        const auto* entry =
            reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
        if (std::strcmp(reinterpret_cast<const char*>(entry->Name), name) == 0) {
          return slots;
        }
      }
    }
    throw std::invalid_argument(std::string("this program does not import ") + name);
  }

  void* exchange(void* function) {
    DWORD protection = 0;
    VirtualProtect(slot_, sizeof *slot_, PAGE_READWRITE, &protection);
    void* const old = *slot_;
    *slot_ = function;
    VirtualProtect(slot_, sizeof *slot_, protection, &protection);
    return old;
  }

  void** slot_;
  void* original_;
};
