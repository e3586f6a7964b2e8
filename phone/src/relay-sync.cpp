/* Comparing a mailbox with the watch: what belongs there, what leaves it, and read marks both ways. */
#include <algorithm>
#include <cstring>

#include "post-rest.h"
#include "relay-parts.h"

namespace {

using enum relay_mail_state;

constexpr std::ptrdiff_t kHeadsAtOnce = 64; /* of at most 16 KiB; what a socket does not take goes as answers come */

/* Deletes from the watch; what is gone there already is no error. Returns 0, or -1: the watch's list then tells what is
   left to do. */
int delete_from_watch(followed *a, const std::vector<int> &ids) {
  if (ids.empty()) return 0;
  std::string error;
  int result = host_delete_mails(link_bus(a->r->link), ids, &error);
  if (result == HOST_REFUSED)
    for (int id : ids) {
      result = host_delete_mails(link_bus(a->r->link), {id}, &error);
      if (result < HOST_REFUSED) break;
    }
  if (result >= HOST_REFUSED) return 0;
  a->error = error;
  a->listed = false;
  return -1;
}

int list_mailbox(followed *a, listing *l) {
  std::string error;
  for (int look = 0; look < 2; look++) {
    l->items.clear();
    l->by_key.clear();
    if (a->settings.kind->list(a->settings.path, &l->items, &error) < 0) {
      a->error = error;
      return -1;
    }
    for (size_t i = 0; i < l->items.size(); i++) l->by_key.emplace(l->items[i].key, i);
    /* A file that is being renamed can be missed by a reader of its folder: what seems gone is looked for again. */
    bool all = true;
    for (const auto &[key, row] : a->rows)
      if (!l->by_key.count(key)) all = false;
    if (all) break;
  }
  return 0;
}

void add_new_rows(followed *a, const listing &l) {
  std::vector<const mailbox_item *> fresh;
  for (const mailbox_item &item : l.items)
    if (a->rows.find(item.key) == a->rows.end()) fresh.push_back(&item);
  progress p = {a->r, a->settings.name + ": looking at new messages", fresh.size()};
  for (auto at = fresh.begin(); at != fresh.end();) {
    const auto end = at + std::min(fresh.end() - at, kHeadsAtOnce);
    const std::vector<const mailbox_item *> some(at, end);
    at = end;
    std::vector<int64_t> times = read_arrivals(a, some);
    for (size_t i = 0; i < some.size(); i++) {
      if (times[i] == 0) continue;
      relay_row row;
      row.time = times[i];
      row.fresh = a->known_before || some[i]->arrived;
      row.seen = some[i]->seen;
      row.dirty = true;
      a->rows.emplace(some[i]->key, std::move(row));
    }
    progress_advance(&p, some.size());
  }
}

void choose_window(followed *a, listing *l) {
  std::vector<size_t> order;
  l->rows.assign(l->items.size(), nullptr);
  for (size_t i = 0; i < l->items.size(); i++) {
    auto found = a->rows.find(l->items[i].key);
    if (found == a->rows.end()) continue;
    l->rows[i] = &found->second;
    order.push_back(i);
  }
  int64_t newest = a->settings.newest >= 0 ? a->settings.newest : a->r->settings.newest;
  auto count = static_cast<size_t>(std::min<int64_t>(newest, static_cast<int64_t>(order.size())));
  auto later = [&](size_t x, size_t y) {
    const mailbox_item &p = l->items[x], &q = l->items[y];
    if (l->rows[x]->time != l->rows[y]->time) return l->rows[x]->time > l->rows[y]->time;
    return p.order != q.order ? p.order > q.order : strverscmp(p.key.c_str(), q.key.c_str()) > 0; /* names count up */
  };
  std::partial_sort(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(count), order.end(), later);
  order.resize(count);
  l->window = std::move(order);
}

/* A message that was written to in place is another message: its old form leaves the watch. */
void forget_rewritten(followed *a, const listing &l, std::vector<int> *to_delete) {
  for (const std::string &key : a->rewritten) {
    auto found = a->rows.find(key);
    auto listed = l.by_key.find(key);
    if (found == a->rows.end() || listed == l.by_key.end() || found->second.state == deleted) continue;
    relay_row *row = &found->second;
    std::string nothing, error;
    int64_t time = 0, size = 0;
    if (a->settings.kind->read(a->settings.path, l.items[listed->second], 0, &nothing, &time, &size, &error) < 0 ||
        (size == row->size && row->state != broken))
      continue; /* it was closed by its writer after it had been read in full */
    if (row->state == relayed) to_delete->push_back(row->mail_id);
    row->identity.clear();
    row->trouble.clear();
    row->state = waiting;
    row->mail_id = 0;
    row->dirty = true;
  }
  a->rewritten.clear();
}

/* Messages under new names are read first, so that a renamed one is not taken for one gone and one come. */
void read_names(followed *a, const listing &l) {
  bool leaving = false;
  for (const auto &[key, row] : a->rows) leaving = leaving || (!l.by_key.count(key) && row.state != waiting);
  if (!leaving) return;
  for (size_t i : l.window) {
    relay_row *row = l.rows[i];
    mime_mail mail;
    std::string error;
    if (row->state != waiting || !row->identity.empty() || read_message(a, l.items[i], &mail, &row->size, &error) != 0)
      continue;
    row->identity = mail.message_uid;
    row->dirty = true;
  }
}

/* The mail on the watch is another file's from now on. */
void inherit(relay_row *to, relay_row *from) {
  to->state = from->state;
  to->mail_id = from->mail_id;
  to->row = from->row;
  to->want_seen = to->want_seen || from->want_seen;
  to->want_gone = to->want_gone || from->want_gone;
  to->seen = from->seen;
  to->dirty = true;
  from->state = copy;
  from->mail_id = 0;
  from->dirty = true;
}

/* What left the mailbox or the window leaves the watch, unless the same message stands elsewhere in the mailbox. */
void collect_leaving(followed *a, const listing &l, std::vector<int> *to_delete, std::vector<std::string> *gone) {
  std::vector<bool> inside(l.items.size());
  std::unordered_map<std::string, relay_row *> heirs;
  for (size_t i : l.window) {
    inside[i] = true;
    relay_row &row = *l.rows[i];
    if (!row.identity.empty() && (row.state == waiting || row.state == copy)) heirs.emplace(row.identity, &row);
  }
  for (auto &[key, row] : a->rows) {
    const auto listed = l.by_key.find(key);
    const bool here = listed != l.by_key.end();
    if (here && inside[listed->second]) continue;
    bool holds = row.state == relayed || row.state == deleted || row.state == sending;
    auto heir = holds ? heirs.find(row.identity) : heirs.end();
    if (heir != heirs.end()) {
      inherit(heir->second, &row);
      heirs.erase(heir);
    } else if (row.state == relayed) {
      to_delete->push_back(row.mail_id);
    }
    if (!here) {
      gone->push_back(key);
    } else if (row.state == relayed || row.state == sending) {
      row.state = waiting;
      row.mail_id = 0;
      row.dirty = true;
    }
  }
}

/* A mail was read on the watch: the mailbox is told. */
void mark_in_mailbox(followed *a, const mailbox_item &item, relay_row *row) {
  std::string error;
  const mailbox_kind *kind = a->settings.kind;
  if (!item.seen && kind->set_seen && kind->set_seen(a->settings.path, item, &error) < 0) {
    a->error = error;
    a->again = true;
    return;
  }
  row->want_seen = false;
  row->seen = true;
  row->dirty = true;
}

/* A mail was deleted on the watch: the mailbox is told where that is wanted. */
void delete_in_mailbox(followed *a, const mailbox_item &item, relay_row *row) {
  std::string error;
  const mailbox_kind *kind = a->settings.kind;
  if (a->settings.delete_there && kind->set_gone && kind->set_gone(a->settings.path, item, &error) < 0) {
    a->error = error;
    a->again = true;
    return;
  }
  row->want_gone = false;
  row->dirty = true;
}

/* Brings the read marks together: what changed on one side since both agreed goes to the other. Returns 0, or -1 when
   the service is away or cannot write it down. */
int exchange_seen(followed *a, const listing &l) {
  for (size_t i = 0; i < l.items.size(); i++) {
    const mailbox_item &item = l.items[i];
    relay_row *row = l.rows[i];
    if (!row) continue;
    if (row->want_gone) delete_in_mailbox(a, item, row);
    if (row->want_seen) {
      mark_in_mailbox(a, item, row);
      continue;
    }
    if (row->state != relayed || row->seen == item.seen) continue;
    /* A kind that is only read cannot say that what was read on the watch is unread. */
    if (!item.seen && !a->settings.kind->set_seen) continue;
    mail_change change;
    change.is_read = item.seen;
    if (item.seen) change.is_new = 0;
    std::string error;
    if (host_update_mail(link_bus(a->r->link), row->mail_id, change, &error) < HOST_REFUSED) {
      a->error = error;
      return -1;
    }
    row->seen = item.seen;
    row->dirty = true;
  }
  return 0;
}

/* Mails of this relay on the watch that no message stands behind any more. */
int remove_leftovers(followed *a) {
  std::vector<int> ids;
  for (const auto &[uid, id] : a->unclaimed) ids.push_back(id);
  if (delete_from_watch(a, ids) < 0) return -1;
  a->unclaimed.clear();
  return 0;
}

int sync_steps(followed *a) {
  listing l;
  a->beginnings = rest_may_be(a->settings.path); /* its folder is made before any message */
  if (list_mailbox(a, &l) < 0) return -1;
  a->files = static_cast<int64_t>(l.items.size());
  std::vector<int> to_delete;
  std::vector<std::string> gone;
  const bool rewritten = !a->rewritten.empty();
  add_new_rows(a, l);
  forget_rewritten(a, l, &to_delete);
  choose_window(a, &l);
  read_names(a, l);
  collect_leaving(a, l, &to_delete, &gone);
  int result = delete_from_watch(a, to_delete);
  /* What only came can wait for what becomes of it; but that it was there before must be known at any time. */
  if (result == 0 && !a->known_before) result = known_first(a, true);
  if (result == 0 && (rewritten || !to_delete.empty() || !gone.empty())) {
    phone_state *state = a->r->state.get();
    result = known_save(a, gone, [&] { return phone_state_drop_mails(state, to_delete); });
  }
  if (result == 0)
    for (const std::string &key : gone) a->rows.erase(key);
  if (result == 0) result = exchange_seen(a, l);
  if (result == 0) result = send_window(a, l);
  if (known_note(a) < 0) result = -1;
  if (result == 0) result = remove_leftovers(a);
  if (result == 0 && !a->known_before) result = known_first(a, false);
  return result;
}

}  // namespace

int sync_mailbox(followed *a) {
  std::string before = a->error;
  a->error.clear();
  int result = sync_steps(a);
  if (result == 0) a->checked = false;
  a->relayed =
      std::count_if(a->rows.begin(), a->rows.end(), [](const auto &entry) { return entry.second.state == relayed; });
  if (result == 0) a->synced = relay_now();
  if (!a->error.empty() && a->error != before) link_log(a->settings.name + ": " + a->error);
  return result;
}
