// The soak harness's process figures: resident memory, the allocator's
// heap, and the bytes of live objects, read at a checkpoint so that two
// checkpoints can be compared.
//
// The live bytes come from the replacements of the global operator new and
// delete in soak_memory.cpp, which count every allocation of the process by
// the usable size of what it got. They are the only replacements of the
// soak executable: link soak_memory.cpp into it once, and into nothing else.
//
// Thread-safe: measureMemory() may run beside any allocation; the
// figures it returns are the caller's.
#pragma once

#include <cstddef>

namespace appex::soak {

struct Memory {
  std::size_t raw = 0;      // resident, as found
  std::size_t trimmed = 0;  // resident, after handing free heap back to the system
  std::size_t heap = 0;     // bytes the allocator counts as in use
  std::size_t live = 0;     // bytes of live objects (operator new)
};

// The process's memory now. Hands free heap back to the system on the way
// (for `trimmed`), which changes `raw` of the next measurement.
Memory measureMemory();

// Bytes in mebibytes, for printing.
double mib(std::size_t bytes);

// `part` as a percentage of `whole`; 0 when `whole` is 0.
double percent(double part, double whole);

}  // namespace appex::soak
