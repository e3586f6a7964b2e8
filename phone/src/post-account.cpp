/* Accounts in the configuration file. */
#include "post-account.h"

#include <glib.h>
#include <glib/gstdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

namespace {

struct keys_unref {
  void operator()(GKeyFile *keys) const { g_key_file_unref(keys); }
};
using keys_holder = std::unique_ptr<GKeyFile, keys_unref>;

constexpr char kGroup[] = "account ";

/* Returns NULL with a reason; a file that is not there is an empty one when `may_miss` says so. */
keys_holder load(const std::string &file, bool may_miss, std::string *error) {
  keys_holder keys(g_key_file_new());
  GError *why = nullptr;
  if (g_key_file_load_from_file(keys.get(), file.c_str(), G_KEY_FILE_KEEP_COMMENTS, &why)) return keys;
  bool missing = g_error_matches(why, G_FILE_ERROR, G_FILE_ERROR_NOENT);
  *error = file + ": " + why->message;
  g_error_free(why);
  return missing && may_miss ? std::move(keys) : nullptr;
}

/* Whole or not at all, readable for the user alone. */
int save(GKeyFile *keys, const std::string &file, std::string *error) {
  std::unique_ptr<char, decltype(&g_free)> folder(g_path_get_dirname(file.c_str()), g_free);
  g_mkdir_with_parents(folder.get(), 0700);
  gsize size = 0;
  std::unique_ptr<char, decltype(&g_free)> text(g_key_file_to_data(keys, &size, nullptr), g_free);
  GError *why = nullptr;
  if (g_file_set_contents_full(
          file.c_str(), text.get(), static_cast<gssize>(size),
          static_cast<GFileSetContentsFlags>(G_FILE_SET_CONTENTS_CONSISTENT | G_FILE_SET_CONTENTS_DURABLE), 0600, &why))
    return 0;
  *error = why->message;
  g_error_free(why);
  return -1;
}

bool is_loopback(const std::string &host) {
  return host == "localhost" || host == "::1" || host.starts_with("127.");
}

}  // namespace

std::vector<std::string> post_folders(const post_account &account) {
  std::vector<std::string> folders;
  for (const std::string &given : account.folders) { /* this one has a name in any case */
    std::string name = g_ascii_strcasecmp(given.c_str(), "INBOX") == 0 ? "INBOX" : given;
    if (std::find(folders.begin(), folders.end(), name) == folders.end()) folders.push_back(name);
  }
  return folders.empty() ? std::vector<std::string>{"INBOX"} : folders;
}

int post_account_set(post_account *account, const std::string &key, const std::string &value, std::string *error) {
  if (key == "imap" || key == "smtp") {
    (key == "imap" ? account->imap : account->smtp) = value;
  } else if (key == "user") {
    account->user = value;
  } else if (key == "password-command") {
    account->password_command = value;
  } else if (key == "ca") {
    account->ca = value;
  } else if (key == "sent") {
    account->sent = value;
  } else if (key == "trash") {
    account->trash = value;
  } else if (key == "delete") {
    if (value != "server" && value != "watch") {
      *error = "delete=" + value + ": server or watch is wanted";
      return -1;
    }
    account->delete_on_server = value == "server";
  } else if (key == "plain") {
    account->plain = value == "yes";
  } else if (key == "folders") {
    gchar **names = g_strsplit(value.c_str(), ";", -1);
    for (gchar **name = names; *name; name++)
      if (**name) account->folders.push_back(*name);
    g_strfreev(names);
  } else if (key == "auth") {
    if (value != "password" && value != "xoauth2" && value != "oauthbearer") {
      *error = "auth=" + value + ": password, xoauth2 or oauthbearer is wanted";
      return -1;
    }
    account->auth = value == "xoauth2"       ? post_auth::xoauth2
                    : value == "oauthbearer" ? post_auth::oauthbearer
                                             : post_auth::password;
  } else {
    return 0;
  }
  return 1;
}

int post_accounts_read(const std::string &file, std::vector<post_account> *accounts, std::string *error) {
  keys_holder keys = load(file, true, error);
  if (!keys) return -1;
  gchar **groups = g_key_file_get_groups(keys.get(), nullptr);
  int result = 0;
  for (gchar **group = groups; result == 0 && *group; group++) {
    if (!g_str_has_prefix(*group, kGroup)) continue;
    post_account account;
    account.name = *group + strlen(kGroup);
    if (account.name.find('@') != std::string::npos) account.address = account.name;
    gchar **names = g_key_file_get_keys(keys.get(), *group, nullptr, nullptr);
    for (gchar **name = names; result == 0 && name && *name; name++) {
      std::unique_ptr<char, decltype(&g_free)> value(g_key_file_get_string(keys.get(), *group, *name, nullptr), g_free);
      if (strcmp(*name, "address") == 0 && value) account.address = value.get();
      result = std::min(0, post_account_set(&account, *name, value ? value.get() : "", error));
    }
    g_strfreev(names);
    if (!account.imap.empty() || !account.smtp.empty()) accounts->push_back(account);
  }
  g_strfreev(groups);
  return result;
}

int post_account_find(const std::string &file, const std::string &name, post_account *account, std::string *error) {
  std::vector<post_account> all;
  if (post_accounts_read(file, &all, error) < 0) return -1;
  for (post_account &one : all)
    if (one.name == name || one.address == name) {
      *account = std::move(one);
      return 0;
    }
  *error = name + ": no such account in " + file;
  return -1;
}

void post_account_keep(post_account *account, const post_account &known, bool auth_given, bool secret_file) {
  if (account->password_command.empty() && !auth_given && !secret_file)
    account->password_command = known.password_command;
  for (std::string post_account::*text : {&post_account::user, &post_account::imap, &post_account::smtp,
                                          &post_account::ca, &post_account::sent, &post_account::trash})
    if ((account->*text).empty()) account->*text = known.*text;
  if (account->folders.empty()) account->folders = known.folders;
  if (!auth_given) account->auth = known.auth;
  account->delete_on_server = account->delete_on_server || known.delete_on_server;
  account->plain = account->plain || known.plain;
}

int post_account_write(const std::string &file, const post_account &account, std::string *error) {
  keys_holder keys = load(file, true, error);
  if (!keys) return -1;
  std::string group = kGroup + account.name, folders;
  for (const std::string &folder : account.folders) folders += (folders.empty() ? "" : ";") + folder;
  g_key_file_remove_group(keys.get(), group.c_str(), nullptr);
  const char *auth = account.auth == post_auth::xoauth2       ? "xoauth2"
                     : account.auth == post_auth::oauthbearer ? "oauthbearer"
                                                              : "";
  const std::pair<const char *, std::string> settings[] = {
      {"address", account.address == account.name ? "" : account.address},
      {"imap", account.imap},
      {"smtp", account.smtp},
      {"user", account.user},
      {"auth", auth},
      {"password-command", account.password_command},
      {"ca", account.ca},
      {"folders", folders},
      {"sent", account.sent},
      {"trash", account.trash},
      {"delete", account.delete_on_server ? "server" : ""},
      {"plain", account.plain ? "yes" : ""}};
  for (const auto &[key, value] : settings)
    if (!value.empty()) g_key_file_set_string(keys.get(), group.c_str(), key, value.c_str());
  return save(keys.get(), file, error);
}

int post_account_erase(const std::string &file, const std::string &name, std::string *error) {
  keys_holder keys = load(file, false, error);
  if (!keys) return -1;
  if (!g_key_file_remove_group(keys.get(), (kGroup + name).c_str(), nullptr)) {
    *error = name + ": no such account in " + file;
    return -1;
  }
  return save(keys.get(), file, error);
}

std::string post_config_file() {
  return std::string(g_get_user_config_dir()) + "/brisel/relay.conf";
}

int post_server_read(const post_account &account, const std::string &url, post_server *server, std::string *error) {
  size_t scheme_end = url.find("://");
  std::string scheme = url.substr(0, scheme_end == std::string::npos ? 0 : scheme_end);
  bool imap = scheme == "imap" || scheme == "imaps", smtp = scheme == "smtp" || scheme == "smtps";
  std::string rest = scheme_end == std::string::npos ? "" : url.substr(scheme_end + 3);
  while (rest.ends_with('/')) rest.pop_back();
  size_t colon = rest.starts_with('[') ? rest.find(':', rest.find(']')) : rest.rfind(':');
  server->host = rest.substr(0, colon);
  if (server->host.starts_with('[') && server->host.ends_with(']'))
    server->host = server->host.substr(1, server->host.size() - 2);
  guint64 port = 0;
  bool numbered = colon != std::string::npos;
  bool good_port = !numbered || g_ascii_string_to_unsigned(rest.c_str() + colon + 1, 10, 1, 65535, &port, nullptr);
  bool good_host = !server->host.empty() && server->host.find_first_of("[]/@ \t\r\n") == std::string::npos;
  if (!(imap || smtp) || !good_host || !good_port) {
    *error = "'" + url + "': imaps://HOST, imap://HOST, smtps://HOST or smtp://HOST is wanted, with :PORT if need be";
    return -1;
  }
  server->security = scheme.ends_with('s') ? post_security::tls : post_security::starttls;
  if (imap ? port == 465 || port == 587 || port == 25 : port == 143 || port == 993) {
    *error = "port " + std::to_string(port) + " is for " + (imap ? "outgoing" : "incoming") +
             " mail; check --imap and --smtp";
    return -1;
  }
  bool tls = server->security == post_security::tls;
  if (tls ? port == 143 || port == 587 || port == 25 : port == 993 || port == 465) {
    std::string right = (imap ? "imap" : "smtp") + std::string(tls ? "://" : "s://");
    *error = "port " + std::to_string(port) + " begins " + (tls ? "without" : "with") + " encryption; give it as " +
             right + server->host + ":" + std::to_string(port);
    return -1;
  }
  if (port == 0) port = scheme == "imaps" ? 993 : scheme == "imap" ? 143 : scheme == "smtps" ? 465 : 587;
  server->port = static_cast<uint16_t>(port);
  if (account.plain) {
    if (!is_loopback(server->host)) {
      *error = server->host + ": plain=yes is for servers on this machine only; take it out of the account";
      return -1;
    }
    if (server->security == post_security::starttls) server->security = post_security::none;
  }
  return 0;
}

std::string post_mirror_path(const std::string &name) {
  std::unique_ptr<char, decltype(&g_free)> safe(g_uri_escape_string(name.c_str(), "@", FALSE), g_free);
  return std::string(g_get_user_state_dir()) + "/brisel-phone/post/" + safe.get();
}
