/* The phone with one fault more, linked around its own reading: a mail that says so holds up its reader for ever, whose
   processor's seconds pass four times as fast as the machine's. */
#include <ctime>

#include "mime.h"

int really_parse(std::string_view raw, const mime_limits &limits, mime_mail *mail, std::string *error) asm(
    "__real__Z10mime_parseSt17basic_string_viewIcSt11char_traitsIcEERK11mime_limitsP9mime_mailPNSt7__cxx1112basic_"
    "stringIcS1_SaIcEEE");
int held_parse(std::string_view raw, const mime_limits &limits, mime_mail *mail, std::string *error) asm(
    "__wrap__Z10mime_parseSt17basic_string_viewIcSt11char_traitsIcEERK11mime_limitsP9mime_mailPNSt7__cxx1112basic_"
    "stringIcS1_SaIcEEE");
int held_parse(std::string_view raw, const mime_limits &limits, mime_mail *mail, std::string *error) {
  for (volatile bool held = raw.find("hold me up") != std::string_view::npos; held;) continue;
  return really_parse(raw, limits, mail, error);
}

extern "C" int __real_clock_gettime(clockid_t clock, timespec *now);
extern "C" int __wrap_clock_gettime(clockid_t clock, timespec *now) {
  const int result = __real_clock_gettime(clock, now);
  if (clock < 0) now->tv_sec = now->tv_sec * 4 + now->tv_nsec / 250000000; /* another process's */
  return result;
}
