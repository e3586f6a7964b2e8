#include <glib.h>

#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "post-account.h"
#include "post-mirror.h"
#include "relay.h"
#include "send.h"

namespace {

relay_account_settings *account_named(relay_settings *settings, const std::string &name) {
  for (relay_account_settings &account : settings->accounts)
    if (account.name == name) return &account;
  settings->accounts.push_back({});
  settings->accounts.back().name = name;
  return &settings->accounts.back();
}

/* A path as people write it: "~" is the home folder; what is relative counts from here. */
std::string full_path(const std::string &path) {
  std::string out = path;
  if (out == "~" || out.rfind("~/", 0) == 0) out = g_get_home_dir() + out.substr(1);
  char *canonical = g_canonicalize_filename(out.c_str(), nullptr);
  out = canonical;
  g_free(canonical);
  return out;
}

/* "Name <address>" or "address"; anything else is only a name. */
void split_address(const std::string &text, relay_account_settings *account) {
  size_t open = text.find('<');
  if (open != std::string::npos && text.back() == '>') {
    account->address = text.substr(open + 1, text.size() - open - 2);
    account->display_name = text.substr(0, open);
    while (!account->display_name.empty() && account->display_name.back() == ' ') account->display_name.pop_back();
  } else if (text.find('@') != std::string::npos) {
    account->address = text;
  }
}

int number_value(const std::string &key, const char *value, int64_t *out, std::string *error) {
  char *end = nullptr;
  gint64 number = g_ascii_strtoll(value, &end, 10);
  if (*value == '\0' || *end != '\0' || number < 0 || number > relay_number_max) {
    *error = key + "=" + value + ": a number is wanted";
    return -1;
  }
  *out = number;
  return 0;
}

int read_general(const std::string &key, const char *value, relay_settings *settings, std::string *error) {
  if (key == "newest") return number_value(key, value, &settings->newest, error);
  if (key == "first") return number_value(key, value, &settings->first, error);
  if (key == "retry-first") return number_value(key, value, &settings->outbox.retry_first, error);
  if (key == "retry-longest") return number_value(key, value, &settings->outbox.retry_longest, error);
  if (key == "sendmail") {
    settings->outbox.sendmail = value;
    return 0;
  }
  if (key == "show") {
    settings->show = value;
    return 0;
  }
  if (key == "phone-name") {
    settings->phone_name = value;
    return 0;
  }
  *error = "[relay] " + key + ": no such setting";
  return -1;
}

int read_account(const std::string &key, const char *value, relay_account_settings *account, std::string *error) {
  if (key == "newest") return number_value(key, value, &account->newest, error);
  if (key == "first") return number_value(key, value, &account->first, error);
  post_account server; /* read for good by add_mirrors() */
  if (int known = post_account_set(&server, key, value, error)) return std::min(known, 0);
  if (key == "maildir" || key == "mbox") {
    account->kind = key == "mbox" ? &mbox_kind : &maildir_kind;
    account->path = full_path(value);
  } else if (key == "address") {
    account->address = value;
  } else if (key == "name") {
    account->display_name = value;
  } else if (key == "color") {
    uint32_t ignored = 0;
    if (parse_color(value, &ignored) < 0) {
      *error = "color=" + std::string(value) + ": eight hexadecimal digits RRGGBBAA are wanted";
      return -1;
    }
    account->color = value;
  } else {
    *error = key + ": no such setting of an account";
    return -1;
  }
  return 0;
}

/* Accounts on servers are followed by way of a Maildir here. */
int add_mirrors(const std::string &file, relay_settings *settings, std::string *error) {
  std::vector<post_account> accounts;
  if (post_accounts_read(file, &accounts, error) < 0) return -1;
  for (const post_account &account : accounts) {
    if (account.imap.empty()) continue;
    relay_account_settings *mailbox = account_named(settings, account.name);
    mailbox->kind = &maildir_kind;
    mailbox->path = post_mirror_path(account.name);
    mailbox->imap_config = file;
    mailbox->delete_there = account.delete_on_server;
    mailbox->folders = post_folders(account);
    if (post_mirror_create(mailbox->path, error) < 0) return -1;
  }
  /* Replies go the same way, unless another one is named. */
  char program[4096];
  ssize_t size = accounts.empty() ? -1 : readlink("/proc/self/exe", program, sizeof program);
  if (size > 0 && settings->outbox.sendmail == outbox_settings().sendmail)
    settings->outbox.sendmail =
        "'" + std::string(program, static_cast<size_t>(size)) + "' submit --config '" + full_path(file) + "'";
  return 0;
}

int read_group(GKeyFile *file, const char *group, relay_settings *settings, std::string *error) {
  relay_account_settings *account = nullptr;
  if (strncmp(group, "account ", 8) == 0 && group[8]) {
    account = account_named(settings, group + 8);
    if (account->address.empty()) split_address(account->name, account);
  } else if (strcmp(group, "relay") != 0) {
    *error = "[" + std::string(group) + "]: only [relay] and [account NAME] are known";
    return -1;
  }
  int result = 0;
  gchar **keys = g_key_file_get_keys(file, group, nullptr, nullptr);
  for (gchar **key = keys; result == 0 && key && *key; key++) {
    gchar *value = g_key_file_get_string(file, group, *key, nullptr);
    result = account ? read_account(*key, value ? value : "", account, error)
                     : read_general(*key, value ? value : "", settings, error);
    g_free(value);
  }
  g_strfreev(keys);
  return result;
}

int split_pair(const std::string &text, std::string *name, std::string *value, std::string *error) {
  size_t equal = text.find('=');
  if (equal == std::string::npos || equal == 0 || equal + 1 >= text.size()) {
    *error = "'" + text + "': NAME=... is wanted";
    return -1;
  }
  *name = text.substr(0, equal);
  *value = text.substr(equal + 1);
  return 0;
}

}  // namespace

int relay_read_config(const std::string &file, relay_settings *settings, std::string *error) {
  GKeyFile *keys = g_key_file_new();
  GError *why = nullptr;
  int result = 0;
  if (!g_key_file_load_from_file(keys, file.c_str(), G_KEY_FILE_NONE, &why)) {
    *error = file + ": " + why->message;
    g_error_free(why);
    result = -1;
  }
  gchar **groups = result == 0 ? g_key_file_get_groups(keys, nullptr) : nullptr;
  for (gchar **group = groups; result == 0 && group && *group; group++) {
    result = read_group(keys, *group, settings, error);
    if (result < 0) *error = file + ": " + *error;
  }
  g_strfreev(groups);
  g_key_file_free(keys);
  return result == 0 ? add_mirrors(file, settings, error) : result;
}

int relay_add_account(const std::string &text, const mailbox_kind *kind, relay_settings *settings, std::string *error) {
  std::string name, path;
  if (split_pair(text, &name, &path, error) < 0) return -1;
  relay_account_settings *account = account_named(settings, name);
  if (account->given) {
    *error = name + ": two mailboxes are given for it; an account has one";
    return -1;
  }
  account->given = true;
  if (account->address.empty()) split_address(name, account);
  account->kind = kind;
  account->path = full_path(path);
  return 0;
}

int relay_set_address(const std::string &text, relay_settings *settings, std::string *error) {
  std::string name, address;
  if (split_pair(text, &name, &address, error) < 0) return -1;
  for (relay_account_settings &account : settings->accounts)
    if (account.name == name) {
      split_address(address, &account);
      return 0;
    }
  *error = name + ": no such account";
  return -1;
}
