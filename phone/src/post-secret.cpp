/* Where an account's password or token comes from. */
#include <fcntl.h>
#include <glib.h>
#include <libsecret/secret.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "post-account.h"

namespace {

const SecretSchema kSchema = {"com.vextora.brisel.Account",
                              SECRET_SCHEMA_NONE,
                              {{"account", SECRET_SCHEMA_ATTRIBUTE_STRING}},
                              0,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr};

std::string secret_file(const post_account &account) {
  std::unique_ptr<char, decltype(&g_free)> safe(g_uri_escape_string(account.name.c_str(), "@", FALSE), g_free);
  return std::string(g_get_user_config_dir()) + "/brisel/secrets/" + safe.get();
}

/* The first line of what the command prints. */
int from_command(const std::string &command, std::string *secret, std::string *error) {
  const char *arguments[] = {"/bin/sh", "-c", command.c_str(), nullptr};
  char *out = nullptr;
  int status = 0;
  GError *why = nullptr;
  bool ran = g_spawn_sync(nullptr, const_cast<char **>(arguments), nullptr, G_SPAWN_CHILD_INHERITS_STDIN, nullptr,
                          nullptr, &out, nullptr, &status, &why) &&
             g_spawn_check_wait_status(status, &why);
  if (ran) *secret = std::string(out).substr(0, strcspn(out, "\r\n"));
  g_free(out);
  if (ran && !secret->empty()) return 0;
  *error = std::string("the password command ") + (why ? std::string("failed: ") + why->message : "printed nothing");
  g_clear_error(&why);
  return -1;
}

/* Refuses what others can read: a careless copy is told, not used. */
int from_file(const std::string &file, std::string *secret, std::string *error) {
  int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  struct stat info;
  if (fd < 0) {
    *error = "no password is kept for it; run `brisel-phone setup` again, or give a password-command";
    return -1;
  }
  char text[4096];
  bool safe = fstat(fd, &info) == 0 && (info.st_mode & 077) == 0 && info.st_uid == getuid();
  ssize_t got = safe ? read(fd, text, sizeof text) : 0;
  close(fd);
  if (!safe) {
    *error = file + " can be read by others; take that right away (chmod 600) and change the password";
    return -1;
  }
  secret->assign(text, static_cast<size_t>(std::max<ssize_t>(got, 0)));
  secret->resize(std::min(secret->find_first_of("\r\n"), secret->size()));
  return 0;
}

}  // namespace

int post_secret_read(const post_account &account, std::string *secret, std::string *error) {
  if (!account.password_command.empty()) return from_command(account.password_command, secret, error);
  GError *why = nullptr;
  char *found = secret_password_lookup_sync(&kSchema, nullptr, &why, "account", account.name.c_str(), nullptr);
  g_clear_error(&why); /* no such service: the file is what is left */
  if (found) {
    *secret = found;
    secret_password_free(found);
    return 0;
  }
  if (from_file(secret_file(account), secret, error) == 0) return 0;
  /* A locked keyring does not say what it has. */
  SecretService *service = secret_service_get_sync(SECRET_SERVICE_NONE, nullptr, nullptr);
  SecretCollection *keyring = nullptr;
  if (service)
    keyring =
        secret_collection_for_alias_sync(service, SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, nullptr, nullptr);
  if (keyring && secret_collection_get_locked(keyring))
    *error = "the keyring that may have its password is locked; unlock it, or log in to the desktop";
  g_clear_object(&keyring);
  g_clear_object(&service);
  return -1;
}

int post_secret_store(const post_account &account, const std::string &secret, std::string *error) {
  GError *why = nullptr;
  std::string label = "Mail of " + account.name;
  if (secret_password_store_sync(&kSchema, SECRET_COLLECTION_DEFAULT, label.c_str(), secret.c_str(), nullptr, &why,
                                 "account", account.name.c_str(), nullptr)) {
    unlink(secret_file(account).c_str());
    return 0;
  }
  bool none = g_error_matches(why, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) || (why && why->domain == G_IO_ERROR);
  bool locked = g_error_matches(why, SECRET_ERROR, SECRET_ERROR_IS_LOCKED);
  *error = none     ? "there is no Secret Service here"
           : locked ? "it is locked"
           : why    ? why->message
                    : "its question was refused";
  g_clear_error(&why);
  return -1;
}

int post_secret_store_file(const post_account &account, const std::string &secret, std::string *error) {
  std::string file = secret_file(account);
  std::unique_ptr<char, decltype(&g_free)> folder(g_path_get_dirname(file.c_str()), g_free);
  g_mkdir_with_parents(folder.get(), 0700);
  GError *why = nullptr;
  if (g_file_set_contents_full(file.c_str(), (secret + "\n").c_str(), -1, G_FILE_SET_CONTENTS_CONSISTENT, 0600, &why))
    return 0;
  *error = why->message;
  g_error_free(why);
  return -1;
}

void post_secret_forget(const post_account &account) {
  secret_password_clear_sync(&kSchema, nullptr, nullptr, "account", account.name.c_str(), nullptr);
  unlink(secret_file(account).c_str());
}
