// The library's own threads: named so they show as the library's in top,
// perf and gdb, and the ones that work in the background kept out of the
// host's way.
#pragma once

namespace korvel::platform::internal {

// Names the calling thread; Linux keeps the first 15 bytes.
void nameThisThread(const char* name) noexcept;

// Lowers the calling thread's CPU priority below the host's threads (batch
// scheduling, nice +10 over where it is), so delivery work only takes the
// CPU the host does not want: a report call on a busy machine is not left
// waiting behind it. Best effort; nothing changes where the system refuses.
void lowerThisThreadPriority() noexcept;

// Keeps the calling thread's share of the CPU but stops it from preempting
// the thread running on a core when it wakes (batch scheduling): for a
// thread that must keep up with the host's threads, whose wake-ups should
// not land in the middle of a report call. Best effort, like the above.
void batchThisThread() noexcept;

}  // namespace korvel::platform::internal
