/* The process's own memory: got before it is needed, given back when it is not. */
#include <cstddef>
#include <cstdlib>

#include "app-priv.h"
#include "app_efl.h"
#include "platform-pages.h"
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
  for (const void *piece : pieces)
    if (!piece || !platform_pages_get(piece, piece_size)) return; /* little memory, or an old kernel */
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
