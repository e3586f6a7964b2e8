/* What the phone says: accounts, mails, templates and status, checked field by field, each change numbered. Opening is
   in store-open.cpp, the application's requests in store-requests.cpp. phone-bus.cpp calls it; hostd.cpp and
   phone-link.cpp may for the states. */
#include "store.h"

#include <algorithm>
#include <ctime>
#include <set>

#include "store-priv.h"

namespace {

/* Colours for accounts whose phone names none: apart from each other on a dark background. */
constexpr uint32_t account_colors[] = {0x4A9EFFFF, 0xFF8A4AFF, 0x5FD068FF, 0xE46BD8FF, 0xFFD24AFF, 0x4AD9D9FF};
/* The highest id that may be asked for: the rest of the numbers is for all accounts that come after it. */
constexpr int account_id_chosen_max = 999999999;

}  // namespace

/* --- fields --- */

namespace {

store_status check_text(store *st, const char *name, const std::string &text, size_t max) {
  if (text.size() > max) return fail(st, store_invalid, "%s is longer than %zu bytes", name, max);
  if (text.find('\0') != std::string::npos) return fail(st, store_invalid, "%s holds a zero byte", name);
  return store_ok;
}

store_status check_values(store *st, const mail_values &values) {
  for (size_t i = 0; i < mail_fields.size(); i++) {
    const field_rule &rule = mail_fields[i];
    const field_value &value = values.field[i];
    if (!value.set || value.null) continue;
    switch (rule.kind) {
      case field_kind::text: {
        const store_status status = check_text(st, rule.name, value.text, rule.max);
        if (status) return status;
        break;
      }
      case field_kind::contacts:
        break; /* contacts_to_text checked them */
      case field_kind::flag:
        if (value.number != 0 && value.number != 1) return fail(st, store_invalid, "%s is neither 0 nor 1", rule.name);
        break;
      case field_kind::time:
        if (value.number < 0 || value.number > INT32_MAX)
          return fail(st, store_invalid, "%s is no 32-bit time", rule.name);
        break;
      case field_kind::number:
        if (value.number < INT32_MIN || value.number > INT32_MAX)
          return fail(st, store_invalid, "%s is no 32-bit number", rule.name);
        break;
    }
  }
  if (values.field[field_attachments].set && values.field[field_attachments].number < 0)
    return fail(st, store_invalid, "attachment_count is below 0");
  return store_ok;
}

bool is_text(size_t index) {
  return mail_fields[index].kind == field_kind::text || mail_fields[index].kind == field_kind::contacts;
}

/* The value of the statement's next parameter. */
void add_value(sql_statement *s, size_t index, const field_value &value) {
  if (value.null || !value.set)
    s->add(nullptr);
  else
    is_text(index) ? s->add(value.text) : s->add(value.number);
}

bool has_text(const field_value &value) {
  return value.set && !value.null && !value.text.empty();
}

/* The connection's changed() then tells whether it is another one. */
store_status update_body(store *st, int mail_id, const field_value &body) {
  if (!has_text(body)) return run_sql(st, "DELETE FROM body WHERE mail_id = ?", mail_id);
  return run_sql(st,
                 "INSERT INTO body (mail_id, text) VALUES (?, ?) ON CONFLICT DO UPDATE SET text = excluded.text"
                 " WHERE text IS NOT excluded.text",
                 mail_id, body.text);
}

/* No text rather than an empty one. */
const char *text_or_null(const std::string &text) {
  return text.empty() ? nullptr : text.c_str();
}

void set_number(mail_values *values, size_t index, int64_t number) {
  field_value &value = values->field[index];
  if (value.set) return;
  value.set = true;
  value.number = number;
}

}  // namespace

/* --- the phone's side --------------------------------------------------------------------------------------------- */

store_status store_add_account(store *st, int *id, const std::string &address, const std::string &name, uint32_t rgba) {
  if (*id < 0) return fail(st, store_invalid, "an account id is not below 1");
  if (address.empty()) return fail(st, store_invalid, "an account needs an address");
  store_status status = check_text(st, "address", address, text_max);
  if (!status) status = check_text(st, "name", name, text_max);
  if (status) return status;
  return transaction(st, [&]() -> store_status {
    /* The phone may tell of an account again, with another name say: it stays the same account with its mails, and
       hears as added so that whatever shows accounts reads it anew. Told the same as before, nothing happens. */
    if (*id && account_exists(st, *id)) {
      const store_status updated = run_sql(
          st,
          "UPDATE account SET email_address = ?2, display_name = ?3, color = CASE ?4 WHEN 0 THEN color ELSE ?4 END "
          "WHERE account_id = ?1 AND (email_address IS NOT ?2 OR display_name IS NOT ?3 OR (?4 AND color IS NOT ?4))",
          *id, address, text_or_null(name), rgba);
      if (updated || st->db.changed() == 0) return updated;
      return add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_ADD, {*id});
    }
    /* The ids of all that come later go on from the highest. */
    if (*id > account_id_chosen_max)
      return fail(st, store_invalid, "no account %d, and an id that is chosen ends at %d", *id, account_id_chosen_max);
    store_status added = run_sql(
        st, "INSERT INTO account (account_id, email_address, display_name, color) VALUES (nullif(?, 0), ?, ?, ?)", *id,
        address, text_or_null(name), rgba);
    if (added) return added;
    const int64_t new_id = st->db.last_row();
    if (new_id > INT32_MAX) return fail(st, store_invalid, "there are no account ids left");
    *id = static_cast<int>(new_id);
    added = run_sql(st, "INSERT INTO account_sync (account_id, added, last) VALUES (?1, ?2, ?2)", *id, time(nullptr));
    if (added) return added;
    if (!rgba) {
      const size_t pick = static_cast<size_t>(*id - 1) % std::size(account_colors);
      added = run_sql(st, "UPDATE account SET color = ? WHERE account_id = ?", account_colors[pick], *id);
      if (added) return added;
    }
    added = add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_ADD, {*id});
    if (added) return added;
    /* A phone that tells of an account knows how many it has, unless it said otherwise. */
    added = run_sql(st, "INSERT OR IGNORE INTO state (key, value) VALUES ('account_count_known', 1)");
    if (added || st->db.changed() == 0) return added;
    return add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_COUNT_STATUS, {});
  });
}

store_status store_remove_account(store *st, int id) {
  return transaction(st, [&]() -> store_status {
    if (!account_exists(st, id)) return fail(st, store_invalid, "no account %d", id);
    std::vector<int> mails;
    sql_statement find(&st->db, "SELECT mail_id FROM mail WHERE account_id = ? ORDER BY received_time DESC, mail_id");
    store_status status = read_ids(st, &find.bind(id), &mails);
    if (!status) status = run_sql(st, "DELETE FROM mail WHERE account_id = ?", id);
    if (!status) status = run_sql(st, "DELETE FROM account WHERE account_id = ?", id);
    /* Mails first: when the account's event comes, none of them is shown any more. */
    if (!status && !mails.empty()) status = add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE, mails);
    if (!status) status = add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_DELETE, {id});
    return status;
  });
}

store_status store_list_accounts(store *st, std::vector<account_value_record> *accounts) {
  sql_statement list(&st->db,
                     "SELECT account_id, account_value, email_address, display_name, color FROM account "
                     "ORDER BY account_id");
  sql_result r;
  while ((r = list.step()) == sql_row)
    accounts->push_back(
        {list.integer(0), list.integer(1), list.text(2), list.text(3), static_cast<uint32_t>(list.number(4))});
  return checked(st, r);
}

store_status store_set_account_count_known(store *st, bool known) {
  return transaction(st, [&]() -> store_status {
    const int before = store_get_state(st, "account_count_known", -1);
    store_status status = store_set_state(st, "account_count_known", known ? 1 : 0);
    /* Only the way to known is news: the event says that the number is to be had now. */
    if (!status && known && before != 1) status = add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_COUNT_STATUS, {});
    return status;
  });
}

store_status store_check_mails(store *st, std::vector<mail_values> *mails) {
  if (mails->size() > mails_max) return fail(st, store_invalid, "more than %zu mails at once", mails_max);
  const int64_t now = time(nullptr);
  std::set<int> known_accounts; /* one look for all mails of an account */
  for (mail_values &mail : *mails) {
    if (!mail.field[field_account].set) return fail(st, store_invalid, "a mail needs an account_id");
    set_number(&mail, field_time, now);
    set_number(&mail, field_new, 1);
    for (size_t i = 0; i < mail_fields.size(); i++)
      if (mail_fields[i].kind == field_kind::number || mail_fields[i].kind == field_kind::flag) set_number(&mail, i, 0);
    const store_status status = check_values(st, mail);
    if (status) return status;
    const int account = static_cast<int>(mail.field[field_account].number);
    if (!known_accounts.contains(account) && !account_exists(st, account))
      return fail(st, store_invalid, "no account %d", account);
    known_accounts.insert(account);
  }
  return store_ok;
}

store_status store_add_mails(store *st, std::vector<mail_values> *mails, std::vector<int> *ids) {
  if (mails->empty()) return store_ok;
  const store_status checked_all = store_check_mails(st, mails);
  if (checked_all) return checked_all;
  ids->clear();
  return transaction(st, [&]() -> store_status {
    sql_statement insert(&st->db,
                         "INSERT INTO mail (" + mail_columns() + ") VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
    sql_statement insert_body(&st->db, sql_set_body);
    for (const mail_values &mail : *mails) {
      for (size_t i = 0; i < field_body; i++) add_value(&insert, i, mail.field[i]);
      store_status status = checked(st, insert.run());
      if (status) return status;
      const int64_t id = st->db.last_row();
      if (has_text(mail.field[field_body])) status = run(st, &insert_body, id, mail.field[field_body].text);
      if (status) return status;
      if (id > INT32_MAX) return fail(st, store_invalid, "there are no mail ids left");
      ids->push_back(static_cast<int>(id));
    }
    return add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_ADD, *ids);
  });
}

store_status store_update_mail(store *st, int mail_id, const mail_values &values) {
  store_status status = check_values(st, values);
  if (status) return status;
  return transaction(st, [&]() -> store_status {
    if (!exists(st, "SELECT 1 FROM mail WHERE mail_id = ?", mail_id))
      return fail(st, store_invalid, "no mail %d", mail_id);
    const field_value &account = values.field[field_account];
    if (account.set && !account_exists(st, static_cast<int>(account.number)))
      return fail(st, store_invalid, "no account %d", static_cast<int>(account.number));
    bool changed = false;
    if (values.field[field_body].set) {
      const store_status updated = update_body(st, mail_id, values.field[field_body]);
      if (updated) return updated;
      changed = st->db.changed() > 0;
    }
    for (size_t i = 0; i < field_body; i++) {
      if (!values.field[i].set) continue;
      const std::string name = mail_fields[i].name;
      sql_statement update(&st->db, "UPDATE mail SET " + name + " = ?1 WHERE mail_id = ?2 AND " + name + " IS NOT ?1");
      add_value(&update, i, values.field[i]);
      const store_status updated = checked(st, update.add(mail_id).run());
      if (updated) return updated;
      changed = changed || st->db.changed() > 0;
    }
    return changed ? add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_UPDATE, {mail_id}) : store_ok;
  });
}

store_status store_delete_mails(store *st, const std::vector<int> &ids) {
  return transaction(st, [&]() -> store_status {
    for (const int id : ids)
      if (!exists(st, "SELECT 1 FROM mail WHERE mail_id = ?", id)) return fail(st, store_invalid, "no mail %d", id);
    std::vector<int> gone;
    return delete_and_tell(st, ids, &gone);
  });
}

store_status store_take_back_mails(store *st, const std::vector<int> &ids) {
  return transaction(st, [&]() -> store_status {
    std::vector<int> gone;
    return delete_and_tell(st, ids, &gone);
  });
}

store_status store_list_mails(store *st, int after_id, size_t limit, size_t bytes, std::vector<mail_values> *mails) {
  sql_statement list(&st->db, "SELECT " + mail_columns() +
                                  ", text, mail.mail_id FROM mail LEFT JOIN body USING (mail_id)"
                                  " WHERE mail.mail_id > ? ORDER BY mail.mail_id");
  list.bind(after_id);
  size_t used = 0;
  sql_result r = sql_done;
  while (mails->size() < limit && (r = list.step()) == sql_row) {
    mail_values mail;
    for (size_t i = 0; i < mail_fields.size(); i++) {
      field_value &value = mail.field[i];
      value.set = true;
      value.null = list.is_null(static_cast<int>(i));
      if (is_text(i)) {
        value.text = list.text(static_cast<int>(i));
        used += value.text.size() + 32;
        /* Each number travels as a structure of its own. */
        if (mail_fields[i].kind == field_kind::contacts)
          used += 24 * static_cast<size_t>(std::count(value.text.begin(), value.text.end(), '\n'));
      } else {
        value.number = list.number(static_cast<int>(i));
        used += 32;
      }
    }
    mail.mail_id = list.integer(mail_field_count);
    if (used > bytes && !mails->empty()) return store_ok;
    mails->push_back(std::move(mail));
  }
  return checked(st, r);
}

store_status store_list_mail_ids(store *st, int after_id, size_t limit, size_t bytes, std::vector<mail_name> *mails) {
  sql_statement list(&st->db,
                     "SELECT mail_id, account_id, host_tag, message_uid FROM mail WHERE mail_id > ? ORDER BY mail_id");
  list.bind(after_id);
  size_t used = 0;
  sql_result r = sql_done;
  while (mails->size() < limit && (r = list.step()) == sql_row) {
    mail_name mail = {list.integer(0), list.integer(1), list.text(2), list.text(3)};
    used += mail.host_tag.size() + mail.message_uid.size() + 32;
    if (used > bytes && !mails->empty()) return store_ok;
    mails->push_back(std::move(mail));
  }
  return checked(st, r);
}

store_status store_set_templates(store *st, const std::vector<std::string> &texts) {
  if (texts.size() > templates_max) return fail(st, store_invalid, "more than %zu templates", templates_max);
  for (const std::string &text : texts) {
    if (text.empty()) return fail(st, store_invalid, "a template is empty");
    const store_status status = check_text(st, "a template", text, text_max);
    if (status) return status;
  }
  return transaction(st, [&]() -> store_status {
    store_status status = run_sql(st, "DELETE FROM template");
    sql_statement insert(&st->db, "INSERT INTO template (position, template_id, text) VALUES (?1, ?1, ?2)");
    for (size_t i = 0; !status && i < texts.size(); i++) status = run(st, &insert, i + 1, texts[i]);
    return status;
  });
}

store_status store_list_templates(store *st, std::vector<std::pair<int, std::string>> *templates) {
  sql_statement list(&st->db, "SELECT template_id, text FROM template ORDER BY position");
  sql_result r;
  while ((r = list.step()) == sql_row) templates->emplace_back(list.integer(0), list.text(1));
  return checked(st, r);
}

store_status store_set_state(store *st, const char *key, int value) {
  return run_sql(st, "INSERT OR REPLACE INTO state (key, value) VALUES (?, ?)", key, value);
}

int store_get_state(store *st, const char *key, int fallback) {
  sql_statement get(&st->db, "SELECT value FROM state WHERE key = ?");
  return get.bind(key).step() == sql_row ? get.integer(0) : fallback;
}
