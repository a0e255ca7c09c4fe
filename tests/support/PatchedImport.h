#pragma once

#include <windows.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace test_support {

/// The entry of this program's import address table, also when a DLL in it asks; null when the
/// program imports no such function. MSVC's libraries import some by number: such an entry is known
/// by the address that it holds.
inline std::uintptr_t* importSlot(const char* name) {
  const auto base = reinterpret_cast<std::uintptr_t>(GetModuleHandleA(nullptr));
  const auto at = [base](ULONGLONG offset) { return base + static_cast<std::uintptr_t>(offset); };
  const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
  const auto* headers =
      reinterpret_cast<const IMAGE_NT_HEADERS64*>(at(static_cast<ULONGLONG>(dos->e_lfanew)));
  const IMAGE_DATA_DIRECTORY& imports =
      headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
  for (auto* dll = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(at(imports.VirtualAddress));
       dll->Name != 0; ++dll) {
    const auto* entry = reinterpret_cast<const IMAGE_THUNK_DATA64*>(at(dll->OriginalFirstThunk));
    auto* address = reinterpret_cast<std::uintptr_t*>(at(dll->FirstThunk));
    const HMODULE module = GetModuleHandleA(reinterpret_cast<const char*>(at(dll->Name)));
    for (; entry->u1.AddressOfData != 0; ++entry, ++address) {
      const bool byNumber = (entry->u1.Ordinal & IMAGE_ORDINAL_FLAG64) != 0;
      const auto* byName =
          reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(at(entry->u1.AddressOfData));
      if (byNumber ? *address == reinterpret_cast<std::uintptr_t>(GetProcAddress(module, name))
                   : std::string_view(name) == byName->Name) {
        return address;
      }
    }
  }
  return nullptr;
}

/// Puts a function of the test's own in place of one that this program imports from a system DLL,
/// until destruction: so a call of the platform can be watched, or made to fail. Calls that the
/// libraries make among themselves are not touched.
///
/// `Function` is the imported function's type: PatchedImport<decltype(recv)> patch("recv", fake).
/// Threads: set up and torn down while no other thread calls the function.
template <class Function>
class PatchedImport {
public:
  PatchedImport(const char* name, Function* replacement) : slot_(slotOf(name)), original_(*slot_) {
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

  static std::uintptr_t* slotOf(const char* name) {
    if (std::uintptr_t* const slot = importSlot(name)) {
      return slot;
    }
    throw std::runtime_error(std::string("not imported: ") + name);
  }

  std::uintptr_t* slot_;
  std::uintptr_t original_;
};

} // namespace test_support
