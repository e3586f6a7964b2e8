/* Scoped holders of what the mail library hands out; for the files that walk its objects. */
#ifndef BRISEL_PHONE_GMIME_HOLDERS_H
#define BRISEL_PHONE_GMIME_HOLDERS_H

#include <glib.h>
#include <gmime/gmime.h>

#include <memory>

struct object_unref {
  void operator()(void *object) const {
    if (object) g_object_unref(object);
  }
};

/* A GObject of type T. */
template <typename T>
using object_holder = std::unique_ptr<T, object_unref>;

#endif
