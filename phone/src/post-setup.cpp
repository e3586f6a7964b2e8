/* From an address and a password to mail on the watch: see the header. */
#include "post-setup.h"

#include <glib.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>

#include "../mime.h"
#include "commands.h"
#include "host.h"
#include "post-find.h"
#include "post-imap.h"
#include "post-mirror.h"
#include "post-smtp.h"
#include "watch.h"

namespace {

int complain(const std::string &text) {
  fprintf(stderr, "brisel-phone: %s\n", text.c_str());
  return 1;
}

bool can_ask() {
  return isatty(STDIN_FILENO) != 0;
}

/* A line from the terminal, without the blanks around it. */
std::string ask(const std::string &question) {
  fprintf(stderr, "%s ", question.c_str());
  std::string line;
  std::getline(std::cin, line);
  size_t first = line.find_first_not_of(" \t\r"), last = line.find_last_not_of(" \t\r");
  return first == std::string::npos ? "" : line.substr(first, last - first + 1);
}

termios before_hiding;

/* An interrupted question leaves the terminal as it was. */
void show_again_cb(int number) {
  tcsetattr(STDIN_FILENO, TCSANOW, &before_hiding);
  signal(number, SIG_DFL);
  raise(number);
}

/* As ask(), unseen. Without a terminal: the first line of standard input. */
std::string ask_secret(const std::string &question) {
  constexpr int kEnds[] = {SIGINT, SIGTERM, SIGHUP};
  bool hidden = can_ask() && tcgetattr(STDIN_FILENO, &before_hiding) == 0;
  if (hidden) {
    for (int number : kEnds) signal(number, show_again_cb);
    termios silent = before_hiding;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent);
    fprintf(stderr, "%s ", question.c_str());
  }
  std::string line;
  std::getline(std::cin, line);
  if (hidden) {
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &before_hiding);
    for (int number : kEnds) signal(number, SIG_DFL);
    fputc('\n', stderr);
  }
  if (line.ends_with('\r')) line.pop_back();
  return line;
}

bool ask_yes(const std::string &question) {
  std::string answer = ask(question + " [y/N]");
  return answer.starts_with('y') || answer.starts_with('Y');
}

/* The servers that were not given: found, else asked for. */
int complete_servers(post_account *account, std::string *error) {
  post_found found;
  bool looked = account->imap.empty();
  bool told = !looked && !account->smtp.empty();
  if (!told) {
    if (looked) fprintf(stderr, "Looking for the servers of %s...\n", account->address.c_str());
    /* Who gave the one that is needed does without the other where nothing can be looked for. */
    if (post_find_servers(*account, &found, error) < 0 && looked && !can_ask()) return -1;
    if (looked && !error->empty()) fprintf(stderr, "%s\n", error->c_str());
    error->clear();
  }
  if (!found.doubtful.empty() && !can_ask()) {
    *error = "the name service says that the mail of " + account->address + " is with " + found.doubtful +
             "; if that is right, say so with --imap " + (looked ? found.imap : account->imap) + " --smtp " +
             (account->smtp.empty() ? found.smtp : account->smtp);
    return -1;
  }
  if (!found.doubtful.empty() &&
      !ask_yes("The name service says that this mail is with " + found.doubtful + ". Is that your provider?"))
    found = post_found();
  if (looked) account->imap = found.imap;
  if (account->smtp.empty()) account->smtp = found.smtp;
  if (account->user.empty()) account->user = found.user;
  if (account->imap.empty() && can_ask())
    account->imap = post_find_typed(*account, "imap", ask("Server for incoming mail (such as imap.example.org):"));
  if (account->smtp.empty() && can_ask())
    account->smtp =
        post_find_typed(*account, "smtp", ask("Server for outgoing mail (such as smtp.example.org; empty: none):"));
  if (!account->imap.empty()) {
    /* Before the password is asked for: who will get it. */
    if (!told)
      fprintf(stderr, "Incoming mail from %s, outgoing mail by %s\n", account->imap.c_str(),
              account->smtp.empty() ? "this machine's sendmail" : account->smtp.c_str());
    return 0;
  }
  *error = "no server was found for " + account->address + "; give it with --imap imaps://HOST and --smtp smtps://HOST";
  return -1;
}

/* Without blanks around it, its domain as name services know it. Returns false when it is no address. */
bool tidy_address(std::string *address) {
  std::string text = mime_clean_line(*address, 400);
  text.erase(0, text.find_first_not_of(' '));
  while (text.ends_with(' ') || text.ends_with('.')) text.pop_back();
  size_t at = text.rfind('@');
  if (at == std::string::npos || at == 0 || at + 1 == text.size()) return false;
  std::string local = text.substr(0, at), within = local;
  bool quoted = local.size() > 2 && local.starts_with('"') && local.ends_with('"');
  if (quoted) within = local.substr(1, local.size() - 2);
  if (within.find_first_of(&" <>,;:@\"()[]\\"[quoted ? 1 : 0]) != std::string::npos) return false;
  g_autofree char *domain = g_hostname_to_ascii(text.c_str() + at + 1);
  *address = local + "@" + (domain ? domain : text.substr(at + 1));
  return true;
}

/* A folder cannot be opened: where the server has no such one, its own are named. */
void say_what_there_is(mailimap *session, const std::string &folder, std::string *error) {
  constexpr size_t kMost = 12;
  std::vector<imap_listed> all;
  std::string ignored, names;
  if (imap_list_folders(session, &all, &ignored) < 0) return;
  for (size_t i = 0; i < all.size(); i++) {
    if (all[i].name == folder) return;
    if (i < kMost) names += (names.empty() ? "" : ", ") + mime_clean_line(all[i].name, 60);
  }
  *error = "there is no folder " + folder + "; the server has " + names + (all.size() > kMost ? ", ..." : "");
}

/* Both directions, as they will be used. Returns 0, -1 or post_refused. */
int try_account(post_account *account, const std::string &secret, bool find_sent, std::string *error) {
  imap_session session;
  imap_folder opened;
  int opening = imap_open(*account, secret, &session, error);
  if (opening < 0) return opening;
  for (const std::string &folder : post_folders(*account))
    if (imap_select(session.get(), folder, &opened, error) < 0) {
      say_what_there_is(session.get(), folder, error);
      return -1;
    }
  if (find_sent && account->sent.empty()) imap_special_folder(session.get(), "Sent", &account->sent, error);
  if (account->smtp.empty()) return 0;
  return smtp_send(*account, secret, {}, "", nullptr, error);
}

/* Where the secret is kept from now on. */
int keep_secret(const setup_options &options, const std::string &secret, std::string *error) {
  if (!options.account.password_command.empty()) return 0;
  std::string why;
  if (!options.secret_file && post_secret_store(options.account, secret, &why) == 0) return 0;
  bool file = options.secret_file;
  if (!file && can_ask())
    file = ask_yes("The password cannot go to a keyring: " + why + ". Keep it in a file that only you can read?");
  if (file) return post_secret_store_file(options.account, secret, error);
  *error = "the password cannot go to a keyring: " + why +
           "; use --password-command, or --secret-file to keep it in a file that only you can read";
  return -1;
}

bool run_quietly(const char **arguments) {
  int status = 0;
  return g_spawn_sync(nullptr, const_cast<char **>(arguments), nullptr,
                      static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_STDERR_TO_DEV_NULL), nullptr, nullptr,
                      nullptr, nullptr, &status, nullptr) &&
         status == 0;
}

/* Returns 0, or -1 with why its mail stays there. */
int remove_from_watch(const std::string &address, std::string *why) {
  std::vector<host_record> accounts;
  host_bus_holder bus = watch_open(why);
  if (!bus || host_list_accounts(bus.get(), &accounts, why) < 0) return -1;
  for (const host_record &one : accounts)
    if (one.text("email_address") == address)
      return host_remove_account(bus.get(), static_cast<int>(one.number("account_id")), why);
  return 0;
}

/* The unit of the relay, where systemd runs the session; else it is said how to start it. */
void start_relay(const setup_options &options) {
  const char *restart[] = {"systemctl", "--user", "restart", "brisel-relay.service", nullptr};
  const char *enable[] = {"systemctl", "--user", "enable", "brisel-relay.service", nullptr};
  if (options.start && options.config == post_config_file() && run_quietly(enable) && run_quietly(restart))
    printf("The relay runs; its mail is on the watch in a moment.\n");
  else if (options.config == post_config_file())
    printf("Start the relay: brisel-phone relay\n");
  else
    printf("Start the relay: brisel-phone relay --config %s\n", options.config.c_str());
}

}  // namespace

/* Asks for the secret and tries it; a wrong one is asked for again, by a terminal. */
int try_secret(post_account *account, std::string *secret, std::string *error) {
  constexpr int kTries = 3;
  for (int n = 1;; n++) {
    error->clear();
    if (!account->password_command.empty()) {
      if (post_secret_read(*account, secret, error) < 0) return -1;
    } else {
      *secret = ask_secret(account->auth == post_auth::password ? "Password:" : "Token:");
    }
    if (secret->empty()) {
      *error = "a password is wanted, on the terminal, on standard input or by --password-command";
      return -1;
    }
    int tried = try_account(account, *secret, true, error);
    if (tried == post_refused)
      *error += account->auth != post_auth::password ? "; is the token valid now?"
                : account->user.empty()              ? "; if it calls you by another name, add --user NAME"
                                                     : "";
    if (tried != post_refused || n == kTries || !can_ask() || !account->password_command.empty()) return tried;
    complain(*error);
  }
}

int command_setup(setup_options options) {
  post_account &account = options.account;
  std::string error, secret;
  const bool asked = account.address.empty() && can_ask();
  if (asked) account.address = ask("E-mail address:");
  if (!tidy_address(&account.address)) {
    complain("an e-mail address is wanted: brisel-phone setup me@example.org");
    return asked ? 1 : wrong_command_line;
  }
  if (account.name.empty()) account.name = account.address;
  if (account.name.find_first_of("[]\n\r") != std::string::npos || account.name == "." || account.name == "..")
    return complain("'" + account.name + "' is no name for an account; give another with --name");
  /* Again for an account that there is, for a new password perhaps: its settings stay. */
  post_account known;
  if (post_account_find(options.config, account.name, &known, &error) == 0 && known.name == account.name)
    post_account_keep(&account, known, options.auth_given, options.secret_file);
  error.clear();
  if (account.imap.starts_with("smtp") || account.smtp.starts_with("imap"))
    return complain("--imap wants imaps://HOST and --smtp smtps://HOST, not the other way round");
  account.imap = post_find_typed(account, "imap", account.imap);
  account.smtp = post_find_typed(account, "smtp", account.smtp);
  if (complete_servers(&account, &error) < 0) return complain(error);
  if (try_secret(&account, &secret, &error) < 0 || keep_secret(options, secret, &error) < 0 ||
      post_mirror_create(post_mirror_path(account.name), &error) < 0 ||
      post_account_write(options.config, account, &error) < 0)
    return complain(error);
  printf("%s is set up%s%s\n", account.name.c_str(), account.sent.empty() ? "" : "; copies of what is sent go to ",
         account.sent.c_str());
  start_relay(options);
  return 0;
}

int command_account_test(const std::string &config, const std::string &name) {
  std::vector<post_account> accounts;
  std::string error;
  if (post_accounts_read(config, &accounts, &error) < 0) return complain(error);
  int result = 0, tried = 0;
  for (post_account &account : accounts) {
    if (!name.empty() && account.name != name && account.address != name) continue;
    tried++;
    std::string secret;
    error.clear();
    bool good = post_secret_read(account, &secret, &error) == 0 && try_account(&account, secret, false, &error) == 0;
    printf("%s: %s\n", account.name.c_str(), good ? "both directions work" : error.c_str());
    if (!good) result = 1;
  }
  if (tried == 0)
    return complain((name.empty() ? "there is no account on a server" : name + ": no such account") +
                    std::string("; `brisel-phone setup` makes one"));
  return result;
}

int command_account_forget(const std::string &config, const std::string &name) {
  post_account account;
  std::string error, why;
  if (post_account_find(config, name, &account, &error) < 0 || post_account_erase(config, account.name, &error) < 0)
    return complain(error);
  post_secret_forget(account);
  /* A relay that runs sees that, and begins anew without it. */
  if (!post_mirror_is_left(post_mirror_path(account.name)))
    complain("a relay that runs must be restarted, or it brings the account back");
  std::error_code failed; /* a name that setup does not take may stand in the file all the same */
  if (account.name != "." && account.name != "..") std::filesystem::remove_all(post_mirror_path(account.name), failed);
  if (failed) complain(post_mirror_path(account.name) + ": " + failed.message());
  if (remove_from_watch(account.address, &why) == 0) {
    printf("%s is forgotten here and on the watch; its mail stays on the server\n", account.name.c_str());
    return 0;
  }
  printf("%s is forgotten here; its mail stays on the server, and on the watch (%s)\n", account.name.c_str(),
         why.c_str());
  return 0;
}

int command_account_servers(const std::string &config) {
  std::vector<post_account> accounts;
  std::string error;
  if (post_accounts_read(config, &accounts, &error) < 0) return complain(error);
  for (const post_account &account : accounts)
    printf("server\t%s\t%s\t%s\n", account.name.c_str(), account.imap.c_str(), account.smtp.c_str());
  return 0;
}
