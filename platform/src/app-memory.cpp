/* The process's own memory: got before it is needed, given back when it is not. */
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

#include "app-priv.h"
#include "app_efl.h"
#ifdef __GLIBC__
#include <malloc.h>
#endif

#if defined(__GLIBC__) && defined(MADV_POPULATE_WRITE)
namespace {

/* What the heap has grown by at the first picture of an empty list. */
constexpr size_t first_picture = 3584 * 1024;
/* Less than what the C library takes from elsewhere than the heap, and gives back when it is freed. */
constexpr size_t piece_size = 120 * 1024;

/* The first byte of each piece stays: between them the heap has no room for what is as large as the window's pixels,
   and no free end to give back. */
void *pieces[first_picture / piece_size];

/* The heap's memory and not what stands in it: the main loop uses it meanwhile. */
void populate_cb(void *data) {
  const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  for (const void *piece : pieces) {
    const uintptr_t first = reinterpret_cast<uintptr_t>(piece) & ~(page - 1);
    const uintptr_t end = (reinterpret_cast<uintptr_t>(piece) + piece_size + page - 1) & ~(page - 1);
    if (!piece || madvise(reinterpret_cast<void *>(first), end - first, MADV_POPULATE_WRITE) != 0)
      return; /* little memory, or an old kernel */
  }
}

}  // namespace

void app_memory_start(void) {
  if (pieces[0]) return;
  for (void *&piece : pieces) piece = malloc(piece_size);
  for (void *&piece : pieces)
    if (void *rest = piece ? realloc(piece, 1) : nullptr) piece = rest;
  app_beside_add(APP_BESIDE_MEMORY, populate_cb, nullptr);
}
#else
void app_memory_start(void) {}
#endif

void app_efl_memory_trim(void) {
#ifdef __GLIBC__
  malloc_trim(0);
#endif
}
