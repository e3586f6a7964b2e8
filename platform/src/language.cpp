#include "platform-language.h"

#include <libintl.h>

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "brisel-settings.h"
#include "platform-paths.h"
#include "vconf.h"

/* gettext's own counter: raising it makes it look its catalogues up again (its manual says so). */
extern "C" int _nl_msg_cat_cntr;

namespace {

constexpr char locale_folder[] = "/usr/apps/com.vextora.brisel/res/locale";
/* The text ids are no language, so English closes every list of languages. */
constexpr char last_language[] = "en";
/* Always there with this C library, and translated, which "C" never is. */
constexpr char neutral_locale[] = "C.UTF-8";

std::string started_with; /* the languages of the environment, for when the setting is taken away */

/* gettext ends its search at the language "C", whatever follows it in the list: "C.UTF-8" must not bring it in. */
bool names_language(const char *name) {
  return !platform_language_is_neutral(name) && strncmp(name, "C.", 2) != 0;
}

bool language_valid(const char *name) {
  if (!names_language(name) || strlen(name) > 64) return false;
  for (const char *p = name; *p; p++)
    if (!isalnum(static_cast<unsigned char>(*p)) && !strchr("_-@.", *p)) return false;
  return true;
}

/* "de_DE.UTF-8@euro" as the catalogues know it: "de_DE@euro". */
std::string without_codeset(const char *name) {
  std::string out = name;
  const size_t dot = out.find('.');
  if (dot != std::string::npos) {
    const size_t at = out.find('@', dot);
    out.erase(dot, at == std::string::npos ? at : at - dot);
  }
  return out;
}

std::string environment_languages(void) {
  const char *list = getenv("LANGUAGE");
  std::istringstream names(list ? list : "");
  std::string named;
  for (std::string name; std::getline(names, name, ':');)
    if (names_language(name.c_str())) named += (named.empty() ? "" : ":") + name;
  if (!named.empty()) return named;
  for (const char *name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char *value = getenv(name);
    if (value && *value) return language_valid(value) ? without_codeset(value) : "";
  }
  return "";
}

}  // namespace

bool platform_language_is_neutral(const char *name) {
  return !name || !*name || strcmp(name, "C") == 0 || strcmp(name, "POSIX") == 0;
}

void platform_language_settle(void) {
  if (platform_language_is_neutral(setlocale(LC_MESSAGES, nullptr))) setlocale(LC_MESSAGES, neutral_locale);
  if (platform_language_is_neutral(setlocale(LC_CTYPE, nullptr))) setlocale(LC_CTYPE, neutral_locale);
  setlocale(LC_NUMERIC, "C");
  _nl_msg_cat_cntr++;
}

std::string platform_languages(void) {
  char *setting = vconf_get_str(BRISEL_KEY_LANGUAGE);
  std::string list = language_valid(setting) ? without_codeset(setting) : started_with;
  free(setting);
  return list.empty() ? last_language : list + ":" + last_language;
}

void platform_language_apply(void) {
  const std::string languages = platform_languages();
  const char *before = getenv("LANGUAGE");
  if (!before || languages != before) setenv("LANGUAGE", languages.c_str(), 1);
  platform_language_settle();
}

void platform_language_start(void) {
  setlocale(LC_ALL, "");
  started_with = environment_languages();
  platform_language_apply();
  for (const char *domain : {"brisel", "message"}) {
    bindtextdomain(domain, platform_path(locale_folder));
    bind_textdomain_codeset(domain, "UTF-8");
  }
}
