/* What the application and the service agree on about a reply. Needs no library. */
#ifndef BRISEL_REPLY_H
#define BRISEL_REPLY_H

#include <string>

/* What every reply says it is. */
inline constexpr char reply_action[] = "intent.action.email.notifications.reply";
/* Between the address and the name of whom it goes to; only the address when there is no name. */
inline constexpr char reply_name_separator = 0x02;

/* A mail without an address that somebody could be reached at has nobody to reply to: the phone would refuse it. An
   address of digits alone is the number of who sent a text message. */
inline bool reply_has_recipient(const std::string &address) {
  if (address.find_first_of(" \t\r\n") != std::string::npos) return false;
  const size_t at = address.rfind('@');
  if (at == std::string::npos) return !address.empty() && address.find_first_not_of("0123456789") == std::string::npos;
  return at > 0 && at + 1 < address.size();
}

#endif
