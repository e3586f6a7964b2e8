/* The language of the watch's texts, for every process that shows some: the setting, else that of the environment. It
   is gettext's business alone; numbers in files and on the wire stay in the locale "C". Thread: the main one. */
#ifndef BRISEL_PLATFORM_LANGUAGE_H
#define BRISEL_PLATFORM_LANGUAGE_H

#include <string>

/* Before anything else of it, and before a toolkit sets a locale of its own: binds the catalogues of the domains
   "brisel" and "message", and puts the language in effect. */
void platform_language_start(void);
/* Puts the language of the setting in effect, as it is now. */
void platform_language_apply(void);
/* The languages in effect, best first, separated by colons. */
std::string platform_languages(void);
/* Mends the process's locale after somebody set one: messages need one that is not "C", numbers need "C". */
void platform_language_settle(void);
/* NULL, "", "C" and "POSIX" name no language. */
bool platform_language_is_neutral(const char *name);

#endif
