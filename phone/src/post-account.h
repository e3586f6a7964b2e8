/*
 * A mail account on servers: what is known of it, and its secret. Accounts stand in the relay's configuration file,
 * each in its group [account NAME]; secrets stand in no such file.
 *
 * Results: 0, or -1 with a reason of one line in *error. Thread: any one.
 */
#ifndef BRISEL_PHONE_POST_ACCOUNT_H
#define BRISEL_PHONE_POST_ACCOUNT_H

#include <cstdint>
#include <string>
#include <vector>

/* The user and secret are not taken by the server; anything else that fails is -1. */
constexpr int post_refused = -2;

enum class post_security { tls, starttls, none };
enum class post_auth { password, xoauth2, oauthbearer };

/* "imaps://host:port", "imap://host" (STARTTLS) and the same with smtp. */
struct post_server {
  std::string host;
  uint16_t port = 0;
  post_security security = post_security::tls;
};

struct post_account {
  std::string name, address, user; /* user: what the servers are told; the address when empty */
  std::string imap, smtp;          /* as written; empty: this direction is not used */
  post_auth auth = post_auth::password;
  std::string password_command;     /* prints the secret: a password, or a token that is valid now */
  std::string ca;                   /* a file of certificates to trust besides the system's */
  std::vector<std::string> folders; /* empty: INBOX */
  std::string sent;  /* the folder that gets a copy of what was sent; empty: the server keeps one itself */
  std::string trash; /* the folder for what is deleted; empty: the one that says of itself that it is for that */
  bool delete_on_server = false; /* what is deleted on the watch; else it stays there */
  bool plain = false;            /* without TLS, on loopback only */
  const std::string &login() const { return user.empty() ? address : user; }
};

/* Those that are followed, each once. */
std::vector<std::string> post_folders(const post_account &account);

/* Takes one setting of an account's group. Returns 1 taken, 0 no setting of this kind, -1 with a reason. */
int post_account_set(post_account *account, const std::string &key, const std::string &value, std::string *error);

/* All accounts of a configuration file that have servers. */
int post_accounts_read(const std::string &file, std::vector<post_account> *accounts, std::string *error);
int post_account_find(const std::string &file, const std::string &name, post_account *account, std::string *error);
/* What was not given is as it was in `known`; its password command, unless another kind of secret was asked for. */
void post_account_keep(post_account *account, const post_account &known, bool auth_given, bool secret_file);
/* Adds or replaces the account's group; everything else in the file stays. The file is new, with its folder, and only
   the user's. */
int post_account_write(const std::string &file, const post_account &account, std::string *error);
int post_account_erase(const std::string &file, const std::string &name, std::string *error);
/* "~/.config/brisel/relay.conf" */
std::string post_config_file();

int post_server_read(const post_account &account, const std::string &url, post_server *server, std::string *error);

/* The folder that the relay follows for an account on servers: a Maildir that post_mirror_run() fills. */
std::string post_mirror_path(const std::string &name);

/* --- secrets --- */

/* From the account's command, else the Secret Service, else the file. */
int post_secret_read(const post_account &account, std::string *secret, std::string *error);
/* Into the Secret Service. */
int post_secret_store(const post_account &account, const std::string &secret, std::string *error);
/* Into a file that only the user can read, for who has no Secret Service and said so. */
int post_secret_store_file(const post_account &account, const std::string &secret, std::string *error);
void post_secret_forget(const post_account &account);

#endif
