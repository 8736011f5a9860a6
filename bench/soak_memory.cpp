// The soak harness's process figures, and the counting replacements of
// the global operator new and delete they read the live bytes from.
#include "bench/soak_memory.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <new>

namespace appex::soak {
namespace {

// Bytes handed out by operator new and not yet given back, counted by the
// replacements at the end of this file. Exact, unlike the allocator's own
// figures, which also count chunks it keeps cached per thread. (SQLite's
// own allocations are not in it; its cache is bounded.) Constant-initialized:
// allocations made while other files are still being initialized count too.
constinit std::atomic<std::int64_t> liveHeap{0};

std::size_t residentBytes() {
  std::ifstream statm("/proc/self/statm");
  std::size_t pages = 0, resident = 0;
  statm >> pages >> resident;
  return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

}  // namespace

Memory measureMemory() {
  Memory m;
  m.raw = residentBytes();
  ::malloc_trim(0);
  m.trimmed = residentBytes();
  const struct mallinfo2 info = ::mallinfo2();
  m.heap = info.uordblks + info.hblkhd;
  m.live = static_cast<std::size_t>(liveHeap.load());
  return m;
}

double mib(std::size_t bytes) { return static_cast<double>(bytes) / (1024.0 * 1024.0); }

double percent(double part, double whole) { return whole == 0 ? 0 : 100.0 * part / whole; }

}  // namespace appex::soak

// --- Counting allocation ----------------------------------------------------------------
// Every operator new of the process, counted by the usable size of what it
// got, so that live bytes can be read at any moment.

namespace {

void* counted(void* p) {
  if (p) appex::soak::liveHeap.fetch_add(static_cast<std::int64_t>(::malloc_usable_size(p)), std::memory_order_relaxed);
  return p;
}

void release(void* p) noexcept {
  if (!p) return;
  appex::soak::liveHeap.fetch_sub(static_cast<std::int64_t>(::malloc_usable_size(p)), std::memory_order_relaxed);
  std::free(p);
}

void* allocate(std::size_t size) {
  void* p = counted(std::malloc(size ? size : 1));
  if (!p) throw std::bad_alloc();
  return p;
}

void* allocateAligned(std::size_t size, std::align_val_t alignment) {
  const auto a = std::max(static_cast<std::size_t>(alignment), sizeof(void*));
  void* p = counted(std::aligned_alloc(a, (std::max<std::size_t>(size, 1) + a - 1) / a * a));
  if (!p) throw std::bad_alloc();
  return p;
}

}  // namespace

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return counted(std::malloc(size ? size : 1)); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return counted(std::malloc(size ? size : 1)); }
void* operator new(std::size_t size, std::align_val_t a) { return allocateAligned(size, a); }
void* operator new[](std::size_t size, std::align_val_t a) { return allocateAligned(size, a); }
void operator delete(void* p) noexcept { release(p); }
void operator delete[](void* p) noexcept { release(p); }
void operator delete(void* p, std::size_t) noexcept { release(p); }
void operator delete[](void* p, std::size_t) noexcept { release(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { release(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { release(p); }
void operator delete(void* p, std::align_val_t) noexcept { release(p); }
void operator delete[](void* p, std::align_val_t) noexcept { release(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { release(p); }
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept { release(p); }
