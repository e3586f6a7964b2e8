/* What is told of new mail and refused replies, when, and what is taken back. Every look starts from the store: what it
   says waits is told, what it says is over is withdrawn. */
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "notify-priv.h"
#include "notify.h"
#include "store-format.h"

namespace {

/* Mails that come within so long are looked at together. */
constexpr uint64_t gather_usec = 250000;
/* More mails than these at once become one notification that counts. */
constexpr size_t singles_at_once = 3;
/* So long after its start the service tells nothing new: an application that was there before says by then which list
   it shows. */
constexpr uint64_t settle_usec = 1000000;
/* Mails that come so soon after each other make one sound. */
constexpr uint64_t silence_usec = 2000000;

bool good(const notifier *n, store_status status) {
  if (status < 0) fprintf(stderr, "brisel-hostd: notifications: %s\n", store_error(n->h->st).c_str());
  return status >= 0;
}

uint64_t now_usec(const notifier *n) {
  uint64_t now = 0;
  return sd_event_now(n->h->event, CLOCK_MONOTONIC, &now) < 0 ? 0 : now;
}

bool is_in_view(const notifier *n, int account_id) {
  return n->viewed_account == 0 || (n->viewed_account > 0 && n->viewed_account == account_id);
}

bool take_in(notifier *n) {
  if (now_usec(n) < n->settled_at) {
    notify_look_soon(n);
    return true;
  }
  std::vector<arrival> arrivals;
  const int64_t now = time(nullptr);
  if (!good(n, store_notify_arrivals(n->h->st, now, &arrivals))) return false;
  std::vector<int> to_tell;
  for (const arrival &mail : arrivals)
    if (mail.is_fresh && !is_in_view(n, mail.account_id) && notify_way_of(mail.account_id) != notify_way::off)
      to_tell.push_back(mail.mail_id);
  if (!to_tell.empty()) n->server_is_missing = false; /* there may be one by now that can be started */
  return good(n, store_notify_take(n->h->st, now, arrivals, to_tell));
}

bool is_of_mail(const notice &one) {
  return one.mail_id > 0;
}

bool is_on_its_way(const notifier *n, const notice &one) {
  return std::find(n->flight.begin(), n->flight.end(), one.mail_id) != n->flight.end();
}

void close_number(notifier *n, const notice &one) {
  if (one.number && one.server == n->server) notify_server_close(n, one.number);
}

/* The counting notification's number, or 0. */
uint32_t counting_number(const std::vector<notice> &notices) {
  for (const notice &one : notices)
    if (one.counted && one.number) return one.number;
  return 0;
}

/* Changes those that are wanted, in the store and here. */
bool change(notifier *n, std::vector<notice> *notices, bool (*wanted)(const notice &), void (*how)(notice *)) {
  std::vector<notice> changed;
  for (notice &one : *notices) {
    if (!wanted(one)) continue;
    how(&one);
    changed.push_back(one);
  }
  return good(n, store_notify_put(n->h->st, changed));
}

void wait_again(notice *one) {
  one->step = notice_step::waits;
}

/* Whether a notice has nothing to stand for any more. singles: how many younger single ones there are. */
bool is_over(const notifier *n, const notice &one, size_t singles) {
  /* Nobody knows yet whether the number is this server's. */
  if (one.number && n->server.empty() && !n->server_is_missing) return false;
  const bool lost = one.number && one.server != n->server;
  /* A service that was killed could not know whether it was shown: it is not told again. */
  const bool unknown = one.step == notice_step::handed_over && !is_on_its_way(n, one);
  if (one.is_over || lost || unknown) return true;
  if (!is_of_mail(one)) return false; /* nothing else may hide what went wrong */
  const bool one_too_many = !one.counted && one.step == notice_step::stands && singles >= notices_single_max;
  return one_too_many || is_in_view(n, one.account_id);
}

/* Takes back what is over, in view, or of another server. */
bool withdraw(notifier *n, std::vector<notice> *notices) {
  std::vector<int> gone;
  std::vector<notice> counted_gone;
  size_t singles = 0;
  for (size_t i = notices->size(); i-- > 0;) {
    const notice one = (*notices)[i];
    const bool over = is_over(n, one, singles);
    singles += !one.counted && is_of_mail(one);
    if (!over) continue;
    if (one.counted && one.number)
      counted_gone.push_back(one);
    else
      close_number(n, one);
    gone.push_back(one.mail_id);
    notices->erase(notices->begin() + static_cast<std::ptrdiff_t>(i));
  }
  if (!good(n, store_notify_drop(n->h->st, gone))) return false;
  if (counted_gone.empty()) return true;
  if (!counting_number(*notices)) {
    close_number(n, counted_gone.front());
    return true;
  }
  return change(
      n, notices, [](const notice &one) { return one.counted && one.step == notice_step::stands; }, wait_again);
}

/* Servers say what is pressed to whoever told it alone, and an earlier service hears nothing any more: this one tells
   it anew in its place. */
bool take_over(notifier *n, std::vector<notice> *notices) {
  if (n->took_over || n->server.empty()) return true;
  n->took_over = true;
  return change(
      n, notices, [](const notice &one) { return one.step == notice_step::stands; }, wait_again);
}

/* What stands is told anew in its place when the watch has another language. */
bool follow_words(notifier *n, std::vector<notice> *notices) {
  const std::string words = notify_words();
  if (words == n->words) return true;
  if (!change(
          n, notices, [](const notice &one) { return one.step == notice_step::stands; }, wait_again))
    return false;
  n->words = words;
  return true;
}

/* What was locked after it had been told is told anew, without what must not be seen any more. */
bool hide_locked(notifier *n, std::vector<notice> *notices) {
  return change(
      n, notices, [](const notice &one) { return one.locked && !one.told_locked && one.step == notice_step::stands; },
      wait_again);
}

bool count_many(notifier *n, std::vector<notice> *notices) {
  const auto waits = [](const notice &one) {
    return is_of_mail(one) && one.step == notice_step::waits && !one.counted && !one.number;
  };
  if (static_cast<size_t>(std::count_if(notices->begin(), notices->end(), waits)) <= singles_at_once) return true;
  return change(n, notices, waits, [](notice *one) { one->counted = true; });
}

std::vector<std::string> keys_of(const notify_message &message) {
  std::vector<std::string> keys;
  for (const notify_button &button : message.buttons) keys.push_back(clean_text(button.key));
  return keys;
}

void tell(notifier *n, std::vector<notice> those, const notify_message &message, bool is_quiet) {
  const uint32_t replaces = those.front().counted ? counting_number(those) : those.front().number;
  bool is_news = false;
  for (notice &one : those) {
    is_news |= one.number == 0;
    one.step = notice_step::handed_over;
    one.told_locked = one.locked;
    one.number = replaces;
    one.server = n->server;
    n->flight.push_back(one.mail_id);
  }
  n->flight_keys = n->has_actions ? keys_of(message) : std::vector<std::string>();
  /* On the disk first: killed behind this, the service tells nothing twice. */
  if (!good(n, store_notify_put(n->h->st, those))) {
    n->flight.clear();
    return;
  }
  const uint64_t now = now_usec(n);
  const bool has_sound = is_news && !is_quiet && now >= n->silent_until;
  if (const int r = notify_server_tell(n, message, replaces, is_quiet, has_sound); r < 0) {
    fprintf(stderr, "brisel-hostd: a notification could not be sent: %s\n", strerror(-r));
    n->flight.clear();
    return;
  }
  if (!has_sound) return;
  n->silent_until = now + silence_usec;
  notify_feedback(n, message.event);
}

bool tell_single(notifier *n, const std::vector<notice> &notices) {
  for (const notice &one : notices) {
    if (one.counted || one.step != notice_step::waits) continue;
    if (!is_of_mail(one)) {
      refused_reply reply;
      if (good(n, store_notify_refusal(n->h->st, -one.mail_id, &reply)))
        tell(n, {one}, notify_text_refused(reply), false);
      return true;
    }
    noticed_mail mail;
    if (!good(n, store_notify_mail(n->h->st, one.mail_id, &mail))) return true;
    tell(n, {one}, notify_text_single(n, one.mail_id, mail), notify_way_of(mail.account_id) != notify_way::on);
    return true;
  }
  return false;
}

void tell_counted(notifier *n, const std::vector<notice> &notices) {
  std::vector<notice> those;
  bool waits = false, is_quiet = true;
  for (const notice &one : notices)
    if (one.counted) {
      those.push_back(one);
      if (one.step != notice_step::waits) continue;
      waits = true;
      is_quiet = is_quiet && (one.number || notify_way_of(one.account_id) != notify_way::on);
    }
  if (!waits) return;
  std::vector<noticed_mail> mails;
  for (size_t i = those.size(); i-- > 0 && mails.size() < singles_at_once;) {
    noticed_mail mail;
    if (!good(n, store_notify_mail(n->h->st, those[i].mail_id, &mail))) return;
    mails.push_back(std::move(mail));
  }
  tell(n, those, notify_text_counted(those.size(), mails), is_quiet);
}

void look(notifier *n) {
  if (!take_in(n)) return;
  std::vector<notice> notices;
  if (!good(n, store_notify_list(n->h->st, &notices))) return;
  if (!withdraw(n, &notices) || !take_over(n, &notices) || !follow_words(n, &notices) || !hide_locked(n, &notices))
    return;
  notify_server_listen(n, !notices.empty());
  notify_keeper_want(n, std::any_of(notices.begin(), notices.end(), [](const notice &one) { return one.number != 0; }));
  if (notices.empty() || n->call_slot || n->server_is_missing) return;
  const bool waits =
      std::any_of(notices.begin(), notices.end(), [](const notice &one) { return one.step == notice_step::waits; });
  if (n->server.empty()) {
    if (const int r = notify_server_ask(n, waits); r < 0)
      fprintf(stderr, "brisel-hostd: the notification server could not be asked: %s\n", strerror(-r));
    return;
  }
  if (!waits || !count_many(n, &notices)) return;
  notify_language();
  if (!tell_single(n, notices)) tell_counted(n, notices);
}

int timer_cb(sd_event_source *source, uint64_t usec, void *data) {
  notifier *n = static_cast<notifier *>(data);
  n->timer = sd_event_source_disable_unref(n->timer);
  look(n);
  return 0;
}

int viewer_gone_cb(sd_bus_track *track, void *data) {
  notifier *n = static_cast<notifier *>(data);
  n->viewer = sd_bus_track_unref(n->viewer);
  n->viewed_account = -1;
  return 0;
}

void store_changed_cb(host *h) {
  notify_look_soon(h->notify);
}

std::vector<notice> standing(notifier *n, const std::string &server, uint32_t number) {
  std::vector<notice> all, those;
  if (!number || !good(n, store_notify_list(n->h->st, &all))) return those;
  for (const notice &one : all)
    if (one.number == number && one.server == server) those.push_back(one);
  return those;
}

/* Whether one of that number was given such a button. */
bool has_button(notifier *n, const std::vector<notice> &those, uint32_t number, const std::string &key) {
  std::vector<std::string> keys;
  const notice &first = those.front();
  refused_reply reply;
  noticed_mail mail;
  if (const auto told = n->keys.find(number); told != n->keys.end()) keys = told->second;
  /* An earlier service told it: with those that it would have now. */
  else if (first.counted)
    keys = keys_of(notify_text_counted(those.size(), {}));
  else if (!is_of_mail(first) && good(n, store_notify_refusal(n->h->st, -first.mail_id, &reply)))
    keys = keys_of(notify_text_refused(reply));
  else if (is_of_mail(first) && good(n, store_notify_mail(n->h->st, first.mail_id, &mail)))
    keys = keys_of(notify_text_single(n, first.mail_id, mail));
  return std::find(keys.begin(), keys.end(), key) != keys.end();
}

}  // namespace

void notify_look_soon(notifier *n) {
  if (n->timer) return;
  const uint64_t at = std::max(now_usec(n) + gather_usec, n->settled_at);
  const int r = sd_event_add_time(n->h->event, &n->timer, CLOCK_MONOTONIC, at, 0, timer_cb, n);
  if (r < 0) fprintf(stderr, "brisel-hostd: notifications wait: %s\n", strerror(-r));
}

void notify_answered(notifier *n, notify_outcome outcome, uint32_t number) {
  const std::vector<int> flight = std::move(n->flight);
  n->flight.clear();
  if (number) n->keys[number] = std::move(n->flight_keys);
  std::vector<notice> all, those;
  if (!good(n, store_notify_list(n->h->st, &all))) return;
  for (notice &one : all) {
    if (std::find(flight.begin(), flight.end(), one.mail_id) == flight.end()) continue;
    one.step = outcome == notify_outcome::stands ? notice_step::stands : notice_step::waits;
    if (outcome == notify_outcome::stands) one.number = number;
    those.push_back(one);
  }
  if (outcome == notify_outcome::refused || outcome == notify_outcome::silent)
    good(n, store_notify_drop(n->h->st, flight));
  else
    good(n, store_notify_put(n->h->st, those));
  /* Everything it told of was over before it stood. */
  if (number && those.empty()) notify_server_close(n, number);
  n->server_is_missing = outcome == notify_outcome::silent || outcome == notify_outcome::absent;
  look(n);
}

void notify_go_on(notifier *n) {
  look(n);
}

void notify_closed(notifier *n, const std::string &server, uint32_t number) {
  std::vector<int> ids;
  for (const notice &one : standing(n, server, number)) ids.push_back(one.mail_id);
  if (server == n->server) n->keys.erase(number);
  good(n, store_notify_drop(n->h->st, ids));
}

void notify_pressed(notifier *n, const std::string &server, uint32_t number, const std::string &key) {
  std::vector<int> ids;
  const std::vector<notice> those = standing(n, server, number);
  if (those.empty() || !has_button(n, those, number, key)) return;
  for (const notice &one : those) ids.insert(ids.begin(), one.mail_id);
  notify_server_close(n, number);
  good(n, store_notify_drop(n->h->st, ids));
  notify_do(n, key, ids);
}

void notify_reply_refused(host *h) {
  if (!h->notify) return;
  h->notify->server_is_missing = false; /* there may be one by now that can be started */
  notify_look_soon(h->notify);
}

int notify_list_in_view(host *h, const char *sender, int account_id) {
  notifier *n = h->notify;
  if (!n) return 0;
  n->viewer = sd_bus_track_unref(n->viewer);
  n->viewed_account = -1;
  if (account_id < 0) return 0;
  int r = sd_bus_track_new(h->bus, &n->viewer, viewer_gone_cb, n);
  if (r >= 0) r = sd_bus_track_add_name(n->viewer, sender);
  if (r < 0) {
    n->viewer = sd_bus_track_unref(n->viewer);
    return r;
  }
  n->viewed_account = account_id;
  notify_look_soon(n);
  return 0;
}

void notify_start(host *h) {
  auto *n = new notifier;
  n->h = h;
  h->notify = n;
  h->store_changed = store_changed_cb;
  n->settled_at = now_usec(n) + settle_usec;
  n->words = notify_words();
  notify_follow_words(n);
  if (const int r = notify_server_watch(n); r < 0)
    fprintf(stderr, "brisel-hostd: notification servers cannot be followed: %s\n", strerror(-r));
  /* What an earlier service left: to be told, over meanwhile, or about to be pressed. */
  look(n);
}

void notify_stop(host *h) {
  notifier *n = h->notify;
  if (!n) return;
  h->notify = nullptr;
  h->store_changed = nullptr;
  for (sd_event_source *source : {n->timer, n->settings_watch}) sd_event_source_disable_unref(source);
  for (sd_bus_slot *slot : {n->owner_slot, n->signal_slot, n->call_slot}) sd_bus_slot_unref(slot);
  sd_bus_track_unref(n->viewer);
  notify_keeper_want(n, false);
  delete n;
}
