/* What is known of each message: its row in memory and on disk, and what the watch's own list says of it. */
#include <sstream>

#include "relay-parts.h"
#include "send.h"

namespace {

using enum relay_mail_state;

int ensure_account(followed *a, const std::vector<host_record> &accounts, std::string *error) {
  std::string label = a->settings.address.empty() ? a->settings.name : a->settings.address;
  phone_state *state = a->r->state.get();
  relay_account_row stored;
  if (relay_account_find(state, a->settings.name, &stored) < 0) {
    *error = phone_state_error(state);
    return -1;
  }
  a->account_id = 0;
  for (const host_record &account : accounts)
    if (account.text("email_address") == label &&
        (a->account_id == 0 || account.number("account_id") == stored.account_id))
      a->account_id = static_cast<int>(account.number("account_id"));
  if (a->account_id == 0) {
    uint32_t rgba = 0;
    if (!a->settings.color.empty()) parse_color(a->settings.color, &rgba);
    std::string name = a->settings.display_name.empty() ? a->settings.name : a->settings.display_name;
    a->account_id = host_add_account(link_bus(a->r->link), 0, label, name, rgba, error);
    if (a->account_id < 0) return -1;
  }
  if (relay_account_keep(state, a->settings.name, {a->account_id, a->settings.address, a->settings.display_name}) == 0)
    return 0;
  *error = phone_state_error(state);
  return -1;
}

/* What was deleted on the watch or by other commands meanwhile, and is only on disk so far, stays deleted. */
int take_over_deleted(followed *a) {
  std::map<std::string, bool> keys;
  if (relay_rows_deleted(a->r->state.get(), a->settings.name, &keys) < 0) return -1;
  for (const auto &[key, want_gone] : keys) {
    auto found = a->rows.find(key);
    if (found == a->rows.end() || found->second.state == deleted) continue;
    found->second.state = deleted;
    found->second.mail_id = 0;
    found->second.want_gone = want_gone;
  }
  return 0;
}

/* Which of the calls that had no answer were stored, as far as the watch's list tells. A batch is stored as a whole:
   when part of it is there, it was. When the watch deleted mails that nobody here knows by number, at least the first
   call was, for they are done in order. */
std::set<int64_t> arrived_batches(const followed &a, bool unknown_deletions,
                                  const std::unordered_map<std::string, int> &by_uid) {
  std::set<int64_t> open, arrived;
  for (const auto &[key, row] : a.rows) {
    if (row.state != sending) continue;
    open.insert(row.batch);
    if (by_uid.count(row.identity)) arrived.insert(row.batch);
  }
  if (unknown_deletions && !open.empty()) arrived.insert(*open.begin());
  return arrived;
}

void match_row(followed *a, relay_row *row, const std::set<int64_t> &arrived,
               std::unordered_map<std::string, int> *by_uid) {
  auto found = by_uid->find(row->identity);
  if (found != by_uid->end()) {
    if (row->state == sending || row->mail_id != found->second) {
      row->dirty = true;
      if (phone_state_set_mail_id(a->r->state.get(), row->row, found->second) < 0)
        link_log(phone_state_error(a->r->state.get()));
    }
    row->state = relayed;
    row->mail_id = found->second;
    by_uid->erase(found);
    return;
  }
  row->dirty = true;
  /* What is missing of a batch that was stored was deleted by the user. A mail whose number was known is marked at its
     deletion: when one is missing all the same, the watch's store is a new one. */
  row->state = row->state == sending && arrived.count(row->batch) ? deleted : waiting;
  row->mail_id = 0;
}

/* What was read on the watch before its number was known here. */
int take_over_marks(followed *a) {
  std::string text;
  if (relay_note_get(a->r->state.get(), note_unknown_marks, &text) < 0) return -1;
  std::istringstream ids(text);
  std::set<int> read;
  for (int id = 0; ids >> id;) read.insert(id);
  for (auto &[key, row] : a->rows)
    if (row.state == relayed && read.count(row.mail_id)) row.want_seen = row.dirty = true;
  return 0;
}

int match_account(followed *a, const std::vector<watch_mail_id> &mails) {
  std::unordered_map<std::string, int> by_uid;
  a->unclaimed.clear();
  std::string tag = relay_tag(*a), unknown;
  for (const watch_mail_id &mail : mails)
    if (mail.account_id == a->account_id && mail.host_tag == tag && !a->r->just_deleted.count(mail.mail_id))
      by_uid[mail.message_uid] = mail.mail_id;
  phone_state *state = a->r->state.get();
  if (take_over_deleted(a) < 0 || relay_note_get(state, note_unknown_deletions, &unknown) < 0) {
    a->error = phone_state_error(state);
    return -1;
  }
  std::set<int64_t> arrived = arrived_batches(*a, !unknown.empty() && unknown != "0", by_uid);
  for (auto &[key, row] : a->rows)
    if (row.state == sending || row.state == relayed) match_row(a, &row, arrived, &by_uid);
  if (take_over_marks(a) < 0) {
    a->error = phone_state_error(state);
    return -1;
  }
  a->unclaimed = std::move(by_uid);
  a->listed = a->just_listed = true;
  return 0;
}

int save_rows(followed *a, const std::vector<std::string> &gone, const std::function<int()> &also,
              decltype(phone_state_change) save) {
  phone_state *state = a->r->state.get();
  int result = save(state, [&] {
    if (also && also() < 0) return -1;
    return relay_rows_write(state, a->settings.name, a->rows, gone);
  });
  if (result < 0) {
    a->error = phone_state_error(state);
    return -1;
  }
  for (auto &[key, row] : a->rows) row.dirty = false;
  return 0;
}

}  // namespace

std::string relay_tag(const followed &a) {
  return std::string(relay_tag_begin) + a.settings.name;
}

int known_load(followed *a) {
  std::string first;
  if (relay_rows_load(a->r->state.get(), a->settings.name, &a->rows) < 0 ||
      relay_note_get(a->r->state.get(), (note_first_of + a->settings.name).c_str(), &first) < 0)
    return -1;
  a->known_before = !a->rows.empty() && first.empty();
  return 0;
}

int known_first(followed *a, bool under_way) {
  phone_state *state = a->r->state.get();
  const int result = phone_state_change(
      state, [&] { return relay_note_set(state, (note_first_of + a->settings.name).c_str(), under_way ? "1" : ""); });
  if (result < 0) a->error = phone_state_error(state);
  if (result == 0) a->known_before = !under_way;
  return result;
}

int known_save(followed *a, const std::vector<std::string> &gone, const std::function<int()> &also) {
  return save_rows(a, gone, also, phone_state_change);
}

int known_note(followed *a) {
  return save_rows(a, {}, nullptr, phone_state_note);
}

void known_reload(followed *a, int mail_id) {
  for (auto &[key, row] : a->rows)
    if (row.mail_id == mail_id && relay_row_reload(a->r->state.get(), a->settings.name, key, &row) < 0)
      link_log(phone_state_error(a->r->state.get()));
}

int known_match(relay *r) {
  std::vector<host_record> accounts;
  std::vector<watch_mail_id> mails;
  std::string error;
  link_ask_waiting(r->link);
  int result = host_list_accounts(link_bus(r->link), &accounts, &error);
  for (auto &a : r->accounts)
    if (result == 0) result = ensure_account(a.get(), accounts, &error);
  r->just_deleted.clear();
  if (result == 0) result = host_list_mail_ids(link_bus(r->link), &mails, &error);
  /* What the user deleted until the list was made must be known before a mail that is missing from it counts as one
     that never arrived; and what he deleted since is still in the list. */
  if (result == 0 && link_take_waiting(r->link) < 0) {
    result = -1;
    error = link_is_connected(r->link) ? "what the watch asked for cannot be kept yet" : "the connection ended";
  }
  if (result < 0) {
    link_log(error);
    for (auto &a : r->accounts) a->error = error;
    return -1;
  }
  for (auto &a : r->accounts)
    if (match_account(a.get(), mails) < 0 || known_save(a.get(), {}) < 0) {
      a->listed = false;
      link_log(a->settings.name + ": " + a->error);
      return -1;
    }
  const auto settle = [r] {
    return relay_note_set(r->state.get(), note_unknown_deletions, "0") < 0 ||
                   relay_note_set(r->state.get(), note_unknown_marks, "") < 0
               ? -1
               : 0;
  };
  if (phone_state_change(r->state.get(), settle) == 0) return 0;
  link_log(phone_state_error(r->state.get()));
  return -1;
}
