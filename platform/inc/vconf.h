/*
 * The settings store: typed values under path-like keys ("db/setting/date_format").
 * Keys under "memory/" live until the session ends; all others survive restarts. Values are written whole
 * (temporary file, fsync, rename, fsync of the folder): a crash loses or halves nothing.
 * A key is 1 to 255 bytes of [A-Za-z0-9_.-] segments joined by '/', no empty, "." or ".." segment.
 * A value that is missing, broken, too large (over 64 KiB) or of another type reads as unreadable.
 *
 * Thread: get and set any; notification runs on the EFL main loop of the process that asked for it.
 * Errors: 0 on success, -1 on any failure (nothing else), so a caller may test for negative or for -1.
 */
#ifndef BRISEL_PLATFORM_VCONF_H
#define BRISEL_PLATFORM_VCONF_H

enum vconf_type { VCONF_TYPE_NONE = 0, VCONF_TYPE_STRING = 40, VCONF_TYPE_INT = 41, VCONF_TYPE_BOOL = 43 };

/* A changed key as its watchers see it; valid during the callback. */
struct keynode_t;
typedef void (*vconf_callback_fn)(keynode_t *node, void *user_data);

/* Whether a text can be a key, and whether one can be a string's value (UTF-8): no other is ever stored. */
bool vconf_key_valid(const char *key);
bool vconf_text_valid(const char *text);

/* On failure the out value is left untouched. */
int vconf_get_bool(const char *key, int *value); /* 0 or 1 */
int vconf_get_int(const char *key, int *value);
/* A heap copy that the caller frees with free(); NULL when unreadable. Always valid UTF-8. */
char *vconf_get_str(const char *key);
int vconf_set_bool(const char *key, int value);
int vconf_set_int(const char *key, int value);
int vconf_set_str(const char *key, const char *value);
/* 0 also when the key was not there. */
int vconf_unset(const char *key);
/* Calls fn for every existing key in byte order. */
int vconf_list(void (*fn)(const char *key, int type, void *user_data), void *user_data);
/* The type of the stored value, or VCONF_TYPE_NONE. */
int vconf_get_type(const char *key);

/* Calls callback on the main loop after each write of the key by any process, this one included, also when the
   value is the same as before. Several callbacks may watch one key; the pair (callback, user_data) tells them
   apart: a second registration of the same pair fails. */
int vconf_notify_key_changed(const char *key, vconf_callback_fn callback, void *user_data);
/* Drops every registration of callback on key, whatever its user data. -1 when there was none. Safe inside a callback.
 */
int vconf_ignore_key_changed(const char *key, vconf_callback_fn callback);

const char *vconf_keynode_get_name(const keynode_t *node);
int vconf_keynode_get_type(const keynode_t *node);        /* VCONF_TYPE_NONE when unset or unreadable */
int vconf_keynode_get_bool(const keynode_t *node);        /* 0 when of another type */
int vconf_keynode_get_int(const keynode_t *node);         /* 0 when of another type */
const char *vconf_keynode_get_str(const keynode_t *node); /* the node's own; NULL when of another type */

#endif
