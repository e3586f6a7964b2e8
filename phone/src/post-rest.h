/*
 * Texts of which only the beginning was fetched: a mirror's folder "rest" has a file for each, named as the message. It
 * is empty while the rest is on the server, then holds the message with the whole text. Who needs it makes a file
 * NAME.wanted, which the mirror's process takes away when it has done what it could. The message's own file stays as it
 * is.
 *
 * Used by the mirror, by the relay and by whoever answers for more of a mail. `source` is as in mail-files.h.
 */
#ifndef BRISEL_PHONE_POST_REST_H
#define BRISEL_PHONE_POST_REST_H

#include <string>

constexpr char rest_folder[] = "/rest", rest_suffix[] = ".wanted";

/* Can the Maildir at `path` hold such texts? */
bool rest_may_be(const std::string &path);
/* Is the text at `source` only a beginning? */
bool rest_is_cut(const std::string &source);
/* The message with the whole text; empty while it is not here. */
std::string rest_read(const std::string &source);
/* Asks for it. Returns 0, or -1. */
int rest_want(const std::string &source);
/* Nobody asks for it (any more). */
bool rest_is_settled(const std::string &source);
/* What of a text that was cut is surely as in the whole text: its end may be half a word, or half a tag. */
std::string rest_surely(const std::string &text);
/* The whole text for who was given the beginning `begun`. */
std::string rest_joined(const std::string &begun, const std::string &whole);

#endif
