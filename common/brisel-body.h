/* What the phone, the service and the application agree on about a mail's fields: the tag at a body's end and how large
   each may be. Needs no library. */
#ifndef BRISEL_BODY_H
#define BRISEL_BODY_H

#include <cstddef>

/* A body ends in one of them: more text is to be had from the phone, or the body is whole. */
inline constexpr char tag_more[] = "<tag:thisisover500>";
inline constexpr char tag_complete[] = "<tag:thisisover-1>";
/* What every tag begins with; a number and ">" follow. */
inline constexpr char tag_start[] = "<tag:thisisover";

/* Bounds, in bytes. */
inline constexpr std::size_t body_max = 4u << 20;
inline constexpr std::size_t text_max = 16u << 10; /* subject, names, addresses, templates, replies */
inline constexpr std::size_t token_max = 4u << 10; /* host_tag, message_uid */
inline constexpr std::size_t number_max = 128;     /* one phone number */
inline constexpr std::size_t contacts_max = 64;    /* numbers of one sender */
/* Bounds of one call. */
inline constexpr std::size_t mails_max = 20000;
inline constexpr std::size_t ids_max = 100000;
inline constexpr std::size_t templates_max = 1000;
inline constexpr std::size_t uid_max = 128; /* bytes of a request's uid */
/* What may wait for a phone, requests and the bytes of their texts: a watch that saw none for weeks stays far below. */
inline constexpr std::size_t outbox_entries_max = 20000, outbox_bytes_max = 16u << 20;

#endif
