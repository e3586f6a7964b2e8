/*
 * The relay: follows mailboxes and keeps the watch's mails equal to their newest ones.
 *
 * What it knows of every message is on disk (table relay_mail of the phone's state), written before and after each
 * step, so that it may end at any point: the next run finds out from the watch's own list what became of the last step.
 * Thread: one.
 */
#ifndef BRISEL_PHONE_RELAY_H
#define BRISEL_PHONE_RELAY_H

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "outbox.h"
#include "sources.h"

struct relay_account_settings {
  std::string name; /* what the user calls it */
  const mailbox_kind *kind = &maildir_kind;
  std::string path;
  std::string address, display_name, color;
  std::string imap_config;          /* not empty: the path is the mirror of the account of this name in this file */
  std::vector<std::string> folders; /* ... of these folders */
  bool delete_there = false;        /* what the user deletes on the watch is deleted in the mailbox */
  bool given = false;               /* the path comes from the command line */
  int64_t newest = -1, first = -1;  /* -1: as for all */
};

struct relay_settings {
  std::vector<relay_account_settings> accounts;
  int64_t newest = 200; /* mails of each account that the watch has */
  int64_t first = 2048; /* bytes of each body that go at once */
  outbox_settings outbox;
  std::string phone_name; /* empty: the machine's */
  std::string show;       /* the command that shows a mail that the watch hands over; empty: none */
  bool mirrors = true;    /* accounts on servers are followed by processes of this one */
};

/* Adds what a configuration file says. Returns 0, or -1 with a one-line reason. */
int relay_read_config(const std::string &file, relay_settings *settings, std::string *error);
/* Adds an account given as "NAME=PATH"; NAME may be "me@example.org" or "Name <me@example.org>". Options that a file
   gave for the same name are kept. Returns 0, or -1 with a reason. */
int relay_add_account(const std::string &text, const mailbox_kind *kind, relay_settings *settings, std::string *error);
/* Sets an account's address, given as "NAME=ADDRESS". */
int relay_set_address(const std::string &text, relay_settings *settings, std::string *error);

/* Runs until it is ended. Returns the exit code. */
int relay_run(const relay_settings &settings);
/* The same for several watches, each by a process of its own; the mirrors of servers are there once. */
int relay_run_each(const relay_settings &settings, const std::vector<std::string> &watches,
                   const std::vector<std::string> &arguments);
/* Prints what the relay does and what waits. Returns the exit code. */
int relay_print_status(bool json);
/* Makes replies that wait due now (0), or forgets one (its number). Returns the exit code. */
int relay_retry();
int relay_drop(int64_t id);

/* The largest number of mails, bytes or seconds that may be asked for. */
inline constexpr int64_t relay_number_max = int64_t{1} << 40;

/* The host_tag of a relay's mails: this, and the account's name. */
inline constexpr std::string_view relay_tag_begin = "relay:";

/* What every phone does with a request about mail that a relay brought, so that none is lost while only `serve` runs.
   Inside the transaction that keeps the request. uid: see link.h. Returns 0, or -1. */
int relay_keep_request(phone_state *state, const nlohmann::json &request, const std::string &uid);
/* Leaves in a request what is of an account that this phone follows or has followed, or no relay's. All else is for
   the phone that brought the mail. false: there is nothing but that. */
bool relay_leave_others(phone_state *state, const relay_settings &settings, nlohmann::json *request);
/* The mails are gone from the watch by the phone's own hand: they stay in their mailboxes and off the watch. */
int relay_forget_mails(phone_state *state, const std::vector<int> &mail_ids);

#endif
