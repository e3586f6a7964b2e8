/* Pages of memory, got from the kernel before they are written to. Thread: any. */
#ifndef BRISEL_PLATFORM_PAGES_H
#define BRISEL_PLATFORM_PAGES_H

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

/* Gets all pages that the memory has a part in, in one call: at its first touch each would cost one more entry into the
   kernel, which for what is about to be filled is several times what filling it costs. Worth it from some dozens of
   pages on. false: the memory is as it was, because there is little, or the kernel is an old one; nothing is lost. */
inline bool platform_pages_get(const void *memory, size_t size) {
#ifdef MADV_POPULATE_WRITE
  const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  const uintptr_t first = reinterpret_cast<uintptr_t>(memory) & ~(page - 1);
  const uintptr_t end = (reinterpret_cast<uintptr_t>(memory) + size + page - 1) & ~(page - 1);
  return madvise(reinterpret_cast<void *>(first), end - first, MADV_POPULATE_WRITE) == 0;
#else
  return false;
#endif
}

#endif
