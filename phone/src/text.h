/* Small helpers that the readers of mail and HTML share. */
#ifndef BRISEL_PHONE_TEXT_H
#define BRISEL_PHONE_TEXT_H

#include "../mime.h"
#include "text-run.h"

/* How many bytes at the start of a text are of seven bits. */
size_t text_ascii_run(std::string_view text);
/* The same, up to the first NUL. */
size_t text_plain_run(std::string_view text);

/* Appends one character; what is none becomes U+FFFD. */
void text_append_char(std::string *out, uint32_t character);

/* Valid UTF-8 without control characters; every kind of line end becomes "\n". The input is valid UTF-8 but for
   NULs. */
std::string text_clean(std::string_view text);

/* What an invitation says, line by line: in *head what (with a sign when it was cancelled, changed or answered), when,
   when again, and where. Returns false when it is none. */
bool calendar_read(const std::string &calendar, std::string *head, std::string *description);

/* The time zone that calendars call so, as the time zone database calls it; empty: none is known. */
std::string zone_called(std::string_view name);

/* format=flowed: a line that ends in a blank goes on in the next one of the same quote depth. */
std::string plain_unflow(const std::string &text, bool delete_space);

/* Text that was signed where it stands: what was signed, without what only a program reads. */
std::string plain_without_armour(const std::string &text);

/* Text without the files that old programs put into it (uuencode) and without encrypted blocks, for which a line says
   what they are. *files counts the former. */
std::string plain_without_blocks(const std::string &text, int *files);

/* What stands for something encrypted. */
constexpr char plain_encrypted_pgp[] = "🔒 OpenPGP", plain_encrypted_smime[] = "🔒 S/MIME";

/* Without trailing blanks and long runs of empty lines: on a small screen they are only scrolling. */
std::string plain_tidy(std::string_view text);

#endif
