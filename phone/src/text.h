/* Small helpers that the readers of mail and HTML share. */
#ifndef BRISEL_PHONE_TEXT_H
#define BRISEL_PHONE_TEXT_H

#include "../mime.h"

/* Appends one character; what is none becomes U+FFFD. */
void text_append_char(std::string *out, uint32_t character);

/* Valid UTF-8 without control characters; every kind of line end becomes "\n". The input is valid UTF-8 but for
   NULs. */
std::string text_clean(std::string_view text);

/* What an invitation says, line by line: what, when, where, and its description. The text itself when it is none. */
std::string calendar_to_text(const std::string &calendar);

/* format=flowed: a line that ends in a blank goes on in the next one of the same quote depth. */
std::string plain_unflow(const std::string &text, bool delete_space);

/* Text that was signed where it stands: what was signed, without what only a program reads. */
std::string plain_without_armour(const std::string &text);

/* Without trailing blanks and long runs of empty lines: on a small screen they are only scrolling. */
std::string plain_tidy(std::string_view text);

#endif
