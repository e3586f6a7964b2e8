/* libcurl when it is wanted: see the header. */
#include "post-curl.h"

#include <dlfcn.h>

namespace {

/* Whether the library has it. */
template <typename F>
bool find(void *library, const char *name, F *function) {
  *function = reinterpret_cast<F>(dlsym(library, name));
  return *function != nullptr;
}

const curl_functions *load(void) {
  static curl_functions all;
  void *library = dlopen("libcurl.so.4", RTLD_NOW | RTLD_LOCAL);
  const bool whole =
      library && find(library, "curl_easy_init", &all.init) && find(library, "curl_easy_cleanup", &all.cleanup) &&
      find(library, "curl_easy_setopt", &all.setopt) && find(library, "curl_easy_perform", &all.perform) &&
      find(library, "curl_easy_getinfo", &all.getinfo) && find(library, "curl_easy_strerror", &all.strerror) &&
      find(library, "curl_slist_append", &all.slist_append) &&
      find(library, "curl_slist_free_all", &all.slist_free_all);
  return whole ? &all : nullptr;
}

}  // namespace

const curl_functions *curl_library(void) {
  static const curl_functions *const library = load();
  return library;
}
