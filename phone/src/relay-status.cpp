/* What the relay tells: progress while it works, its status on disk, and the commands that show it. */
#include <fcntl.h>
#include <glib.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

#include "post-aside.h"
#include "post-mirror.h"
#include "relay-parts.h"

namespace {

using json = nlohmann::ordered_json;

constexpr size_t kTroubles = 100; /* messages that are told by name */

/* The messages that were set aside, and why. */
json troubles(const followed &a) {
  std::vector<std::pair<std::string, std::string>> found;
  for (const auto &[key, row] : a.rows)
    if (row.state == relay_mail_state::broken) found.emplace_back(key, row.trouble);
  std::sort(found.begin(), found.end());
  if (found.size() > kTroubles) found.resize(kTroubles);
  json out = json::array();
  for (const auto &[key, why] : found) out.push_back({{"message", key}, {"reason", why}});
  return out;
}

bool relay_is_running() {
  std::string error;
  int fd = phone_state_lock("relay.lock", &error, 0);
  if (fd >= 0) close(fd);
  return fd < 0;
}

struct status_record {
  bool running = false;
  std::string pid;
  link_report link;
  json accounts = json::array();
  std::vector<reply_entry> replies;
};

std::string line_of(const json &record, const char *key) {
  auto found = record.find(key);
  return found != record.end() && found->is_string() ? mime_clean_line(found->get<std::string>(), 400) : "";
}

int read_status(status_record *status, std::string *error) {
  phone_state_holder state(phone_state_open(error));
  if (!state) return -1;
  std::string accounts;
  if (relay_note_get(state.get(), note_accounts, &accounts) < 0 ||
      relay_note_get(state.get(), note_pid, &status->pid) < 0 || reply_list(state.get(), &status->replies) < 0) {
    *error = phone_state_error(state.get());
    return -1;
  }
  status->accounts = json::parse(accounts, nullptr, false);
  if (!status->accounts.is_array()) status->accounts = json::array();
  for (json &a : status->accounts) {
    std::string path = a.value("path", std::string()), trouble = post_mirror_trouble(path);
    for (const auto &[message, why] : aside_list(path))
      a["set_aside"].push_back({{"message", message}, {"reason", why}});
    if (!trouble.empty() && line_of(a, "error").empty()) a["error"] = trouble;
  }
  status->running = relay_is_running();
  status->link = link_report_read(state.get());
  return 0;
}

void print_json(const status_record &status) {
  json out = {{"running", status.running}, {"accounts", status.accounts}, {"replies", json::array()}};
  out["link"] = {{"watch", status.link.watch},
                 {"linked_since", status.link.linked_since},
                 {"last_seen", status.link.last_seen},
                 {"trouble", status.link.trouble}};
  if (status.running) out["pid"] = g_ascii_strtoll(status.pid.c_str(), nullptr, 10);
  for (const reply_entry &e : status.replies)
    out["replies"].push_back({{"id", e.id},
                              {"account_id", e.account_id},
                              {"to", e.recipient},
                              {"subject", e.subject},
                              {"state", reply_state_name(e.state)},
                              {"created", e.created},
                              {"attempts", e.attempts},
                              {"sent_again_after_interruption", e.interrupted},
                              {"next_try", e.state == reply_state::queued && e.attempts > 0 ? e.next_time : 0},
                              {"sent", e.done_time},
                              {"error", e.error}});
  printf("%s\n", out.dump(2, ' ', false, json::error_handler_t::replace).c_str());
}

void print_text(const status_record &status) {
  printf("The relay is %s.\n", status.running ? "running" : "not running");
  printf("The watch %s\n", link_in_words(status.link).c_str());
  for (const json &a : status.accounts) {
    std::string error = line_of(a, "error");
    printf("%s (%s): %lld messages, %lld on the watch%s%s\n", line_of(a, "name").c_str(), line_of(a, "path").c_str(),
           static_cast<long long>(a.value("messages", int64_t{0})),
           static_cast<long long>(a.value("on_watch", int64_t{0})), error.empty() ? "" : "; ", error.c_str());
    for (const json &trouble : a.value("set_aside", json::array()))
      printf("  left out: %s: %s\n", line_of(trouble, "message").c_str(), line_of(trouble, "reason").c_str());
  }
  size_t sent = 0;
  for (const reply_entry &e : status.replies) {
    if (e.state == reply_state::sent) {
      sent++;
      continue;
    }
    if (e.state == reply_state::dropped) continue;
    printf("reply %lld to %s (%s): %s, %d tries%s%s\n", static_cast<long long>(e.id),
           mime_clean_line(e.recipient, 200).c_str(), mime_clean_line(e.subject, 200).c_str(),
           reply_state_name(e.state), e.attempts, e.error.empty() ? "" : ": ", e.error.c_str());
  }
  printf("%zu replies sent.\n", sent);
}

/* A running relay looks at its replies again. */
void wake_relay() {
  int fd = open(replies_wake_path().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd >= 0) close(fd);
}

}  // namespace

void progress_advance(progress *p, size_t count) {
  constexpr size_t kWorthTelling = 50, kWidth = 30;
  p->done += count;
  link_stay_alive(p->r->link);
  if (p->total < kWorthTelling) return;
  size_t percent = p->done * 100 / p->total;
  if (p->r->bar) {
    size_t filled = p->done * kWidth / p->total;
    fprintf(stderr, "\r%s [%s%s] %zu/%zu", p->what.c_str(), std::string(filled, '#').c_str(),
            std::string(kWidth - filled, '.').c_str(), p->done, p->total);
    if (p->done >= p->total) fputc('\n', stderr);
  } else if (percent >= p->told + 10 || p->done >= p->total) {
    p->told = percent;
    link_log(p->what + ": " + std::to_string(p->done) + " of " + std::to_string(p->total));
  }
}

void status_write(relay *r) {
  json accounts = json::array();
  for (const auto &a : r->accounts)
    accounts.push_back({{"name", a->settings.name},
                        {"path", a->settings.path},
                        {"address", a->settings.address},
                        {"account_id", a->account_id},
                        {"messages", a->files},
                        {"on_watch", a->relayed},
                        {"last_sync", a->synced},
                        {"set_aside", troubles(*a)},
                        {"error", a->error}});
  std::string text = accounts.dump(-1, ' ', false, json::error_handler_t::replace);
  if (text == r->last_status) return;
  if (relay_note_tell(r->state.get(), note_accounts, text) == 0)
    r->last_status = text;
  else
    link_log(phone_state_error(r->state.get()));
}

int status_take_lock(std::string *error) {
  int fd = phone_state_lock("relay.lock", error);
  if (fd < 0 && error->empty()) *error = "a relay is running already";
  return fd;
}

int relay_print_status(bool as_json) {
  status_record status;
  std::string error;
  if (read_status(&status, &error) < 0) {
    link_log(error);
    return 1;
  }
  if (as_json)
    print_json(status);
  else
    print_text(status);
  return 0;
}

int relay_retry() {
  std::string error;
  phone_state_holder state(phone_state_open(&error));
  if (state && reply_retry_all(state.get()) < 0) error = phone_state_error(state.get());
  if (!error.empty()) {
    link_log(error);
    return 1;
  }
  wake_relay();
  return 0;
}

int relay_drop(int64_t id) {
  std::string error;
  phone_state_holder state(phone_state_open(&error));
  int result = state ? reply_drop(state.get(), id) : -1;
  if (result > 0) {
    wake_relay(); /* the watch is told */
    return 0;
  }
  if (state) error = result < 0 ? phone_state_error(state.get()) : "no such reply waits";
  link_log(error);
  return 1;
}
