/* Shows a mail on this phone when the watch hands it over: by a command of the user's, which is told where the mail is
   and how far it has been read. Nobody waits for it. The relay's loop calls it. */
#include <glib.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <nlohmann/json.hpp>

#include "mail-files.h"
#include "relay-parts.h"

namespace {

/* Bytes of the text from the place on that the command is told: enough to find it. */
constexpr size_t words_bytes = 80;
/* Mails shown in one minute at most: each is a command that nobody waits for. */
constexpr unsigned shown_max = 32;
constexpr int64_t shown_within = 60; /* seconds */

/* In the command, which does not inherit what its parent's loop listens for. */
void forget_signals_cb(void *user_data) {
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  setsid();
}

/* Whether another one may be; what may not is said once. */
bool has_turn() {
  static int64_t since = -shown_within;
  static unsigned shown = 0;
  timespec now = {};
  clock_gettime(CLOCK_BOOTTIME, &now);
  if (now.tv_sec - since >= shown_within) {
    since = now.tv_sec;
    shown = 0;
  }
  if (shown == shown_max) link_log("the watch hands over more mails than can be shown; the next ones are left out");
  return shown++ < shown_max;
}

/* The first line at the place. */
std::string words_at(phone_state *state, const sent_mail &mail, int64_t position) {
  std::string piece, rest, error;
  bool complete = false;
  if (more_of_mail(state, mail.mail_id, mail.message_uid, position, &piece, &complete, &rest, &error) < 0) return "";
  piece.resize(std::min(piece.find('\n'), piece.size()));
  return piece.substr(0, mime_cut(piece, 0, words_bytes));
}

int position_of(const nlohmann::json &request, size_t at) {
  const auto list = request.find("position_list");
  if (list == request.end() || !list->is_array() || at >= list->size() || !(*list)[at].is_number_integer()) return 0;
  return std::max((*list)[at].get<int>(), 0);
}

void run(const std::string &command, const sent_mail &mail, const std::string &address, int position,
         const std::string &words) {
  gchar **arguments = nullptr;
  GError *error = nullptr;
  gchar **environment = g_get_environ();
  for (const auto &[name, value] :
       std::initializer_list<std::pair<const char *, std::string>>{{"BRISEL_MESSAGE_ID", mail.message_id},
                                                                   {"BRISEL_FILE", mail_source_file(mail.source)},
                                                                   {"BRISEL_ADDRESS", address},
                                                                   {"BRISEL_POSITION", std::to_string(position)},
                                                                   {"BRISEL_WORDS", words}})
    environment = g_environ_setenv(environment, name, value.c_str(), TRUE);
  if (!g_shell_parse_argv(command.c_str(), nullptr, &arguments, &error) ||
      !g_spawn_async(nullptr, arguments, environment,
                     static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_STDOUT_TO_DEV_NULL), forget_signals_cb,
                     nullptr, nullptr, &error))
    link_log("a mail cannot be shown: " + std::string(error->message));
  g_clear_error(&error);
  g_strfreev(arguments);
  g_strfreev(environment);
}

}  // namespace

void show_mails(relay *r, const nlohmann::json &request) {
  if (r->settings.show.empty() || !request.contains("id_list")) return;
  outbox_bury_orphans();
  for (size_t i = 0; i < request["id_list"].size(); i++) {
    sent_mail mail;
    const int position = position_of(request, i);
    if (phone_state_find_number(r->state.get(), request["id_list"][i].get<int>(), &mail) <= 0) continue;
    if (!has_turn()) return;
    std::string address;
    for (const auto &a : r->accounts)
      if (a->account_id == mail.account_id) address = a->settings.address;
    run(r->settings.show, mail, address, position, words_at(r->state.get(), mail, position));
  }
}
