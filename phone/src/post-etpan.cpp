/* libetpan and GnuTLS when they are wanted: see the header. */
#include "post-etpan.h"

#include <dlfcn.h>

const etpan_functions *etpan;
const gnutls_functions *gnutls;

namespace {

/* The libraries' functions by their names; false when one has not all. */
#define BRISEL_FIND(name) &&(all->name = reinterpret_cast<decltype(all->name)>(dlsym(library, #name)))

bool find(void *library, etpan_functions *all) {
  return library BRISEL_ETPAN_FUNCTIONS(BRISEL_FIND);
}

bool find(void *library, gnutls_functions *all) {
  return library BRISEL_GNUTLS_FUNCTIONS(BRISEL_FIND);
}

#undef BRISEL_FIND

bool load(void) {
  static etpan_functions mail;
  static gnutls_functions tls;
  if (!find(dlopen("libetpan.so.20", RTLD_NOW | RTLD_LOCAL), &mail) ||
      !find(dlopen("libgnutls.so.30", RTLD_NOW | RTLD_LOCAL), &tls))
    return false;
  etpan = &mail;
  gnutls = &tls;
  return true;
}

}  // namespace

bool etpan_load(void) {
  static const bool loaded = load();
  return loaded;
}
