/* libcurl, loaded when it is first wanted: with all that it stands on it takes as long to load as everything else of
   this program together, and what reads a mail or speaks to the watch has no use for it. */
#ifndef BRISEL_PHONE_POST_CURL_H
#define BRISEL_PHONE_POST_CURL_H

#include <curl/curl.h>

#include <memory>

struct curl_functions {
  decltype(&curl_easy_init) init;
  decltype(&curl_easy_cleanup) cleanup;
  decltype(&curl_easy_setopt) setopt;
  decltype(&curl_easy_perform) perform;
  decltype(&curl_easy_getinfo) getinfo;
  decltype(&curl_easy_strerror) strerror;
  decltype(&curl_slist_append) slist_append;
  decltype(&curl_slist_free_all) slist_free_all;
};

/* What is said when it cannot be had. */
inline constexpr char curl_missing[] = "libcurl, which finds servers and sends, is not on this machine";
/* NULL when it cannot be had. It stays loaded. */
const curl_functions *curl_library(void);

struct curl_closer {
  void operator()(CURL *curl) const { curl_library()->cleanup(curl); }
};
using curl_holder = std::unique_ptr<CURL, curl_closer>;

#endif
