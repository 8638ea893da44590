// SPDX-License-Identifier: MIT
//
// How much memory and CPU time this process has taken so far.

#ifndef ZIRDB_TESTS_SUPPORT_LOAD_MEMORY_H
#define ZIRDB_TESTS_SUPPORT_LOAD_MEMORY_H

#include <malloc.h>
#include <unistd.h>

#include <cstddef>
#include <ctime>
#include <fstream>
#include <stdexcept>

#if defined(__SANITIZE_ADDRESS__)
// NOLINTNEXTLINE(bugprone-reserved-identifier): the sanitizer's name for it
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace load {

/// Bytes in blocks that were not freed. Exact, so that one block too many in a
/// hundred rounds shows.
inline std::size_t allocated_bytes() {
#if defined(__SANITIZE_ADDRESS__)
  return __sanitizer_get_current_allocated_bytes();
#else
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
#endif
}

/// Bytes of physical memory, with what the allocator keeps for later.
inline std::size_t resident_bytes() {
  std::ifstream file("/proc/self/statm");
  std::size_t pages = 0;
  std::size_t resident_pages = 0;
  if (!(file >> pages >> resident_pages)) throw std::runtime_error("statm");
  return resident_pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

/// CPU seconds of this process, so that other programs count little.
inline double cpu_seconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) +
         1e-9 * static_cast<double>(now.tv_nsec);
}

}  // namespace load

#endif  // ZIRDB_TESTS_SUPPORT_LOAD_MEMORY_H
