#pragma once

#include <windows.h>

/// What the fault shell and the DLL in the program under test share: which calls are to fail, what
/// failed, and what the program holds. Plain data in the section kSection, zero at first; written
/// by the DLL under its own lock while `armed`, by the shell otherwise. The counts of what is held
/// are interlocked and always kept.
namespace faults {

inline constexpr char kSection[] = "Global\\QuillmonFaults";
inline constexpr int kNameSize = 64;
inline constexpr int kMostFunctions = 128;
inline constexpr int kFrames = 16;
inline constexpr int kMostRanges = 1 << 14;
inline constexpr int kMostSeen = 1 << 15;

/// A piece of the program's code, as offsets: [from, to).
struct Range {
  ULONG64 from;
  ULONG64 to;
};

struct Ranges {
  LONG count;
  Range ranges[kMostRanges]; ///< in order
};

enum class Kind : LONG { kAny, kPlatform, kMemory };

struct Function {
  char name[kNameSize]; ///< empty behind the last one
  LONG volatile held;   ///< what it made and nobody has ended: handles, strings, blocks
  LONG64 volatile bytes;
  LONG failures; ///< calls of it that were failed, ever
};

struct Walk {
  LONG volatile armed; ///< the next call that is due fails, and then no more
  Kind kind;
  char only[kNameSize]; ///< fail this function alone; empty: any
  LONG depth;           ///< how many return addresses tell one way to a call from another

  DWORD firstThread; ///< the program's
  ULONG64 mainCall;  ///< its way into main, known from its first run on

  LONG volatile run; ///< one more at each arming: occurrences are counted afresh
  LONG volatile failed;
  char failedName[kNameSize];
  ULONG64 failedStack[kFrames]; ///< from the program's base
  LONG volatile turnKept;       ///< a thread waits for the trace writers' turn that it has
  LONG volatile parked;         ///< the program's first or service thread sleeps for good
  LONG volatile withoutEvents;  ///< the event thread has left COM again: it ends

  Function functions[kMostFunctions];
  Ranges skipped; ///< nothing fails that is called from here
  Ranges mutexes; ///< the runtime's; what they make is not counted as held
  Ranges below;   ///< only what is called from here fails; empty: whatever is called

  LONG seenCount;
  ULONG64 seen[kMostSeen]; ///< the ways that have failed once
};

} // namespace faults
