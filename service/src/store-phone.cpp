/* What the phone says: accounts, mails, templates and status, checked field by field, each change numbered. Opening is
   in store-open.cpp, the application's requests in store-requests.cpp. */
#include "store.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstring>
#include <ctime>

#include "store-priv.h"

const std::array<field_rule, 15> mail_fields = {{
    {"host_state", field_kind::number, 0},
    {"received_time", field_kind::time, 0},
    {"attachment_count", field_kind::number, 0},
    {"has_image", field_kind::flag, 0},
    {"is_new", field_kind::flag, 0},
    {"account_id", field_kind::number, 0},
    {"security_locked", field_kind::flag, 0},
    {"is_read", field_kind::flag, 0},
    {"host_tag", field_kind::text, token_max},
    {"subject", field_kind::text, text_max},
    {"from_address", field_kind::text, text_max},
    {"from_name", field_kind::text, text_max},
    {"message_uid", field_kind::text, token_max},
    {"contacts", field_kind::contacts, contacts_max},
    {"body", field_kind::text, body_max},
}};

namespace {

/* Every column but mail_id, in the order of mail_fields; the body, the last of those, has its own table. */
constexpr char mail_columns[] =
    "host_state, received_time, attachment_count, has_image, is_new, account_id, security_locked, is_read, host_tag, "
    "subject, from_address, from_name, message_uid, contacts";

/* Colours for accounts whose phone names none: apart from each other on a dark background. */
constexpr uint32_t account_colors[] = {0x4A9EFFFF, 0xFF8A4AFF, 0x5FD068FF, 0xE46BD8FF, 0xFFD24AFF, 0x4AD9D9FF};

}  // namespace

/* --- fields ------------------------------------------------------------------------------------------------------- */

int mail_field_index(const char *name) {
  for (size_t i = 0; i < mail_fields.size(); i++)
    if (!strcmp(mail_fields[i].name, name)) return static_cast<int>(i);
  return -1;
}

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
  if (values.field[2].set && values.field[2].number < 0) return fail(st, store_invalid, "attachment_count is below 0");
  return store_ok;
}

void bind_value(statement *s, size_t index, const field_value &value) {
  const field_kind kind = mail_fields[index].kind;
  const bool text = kind == field_kind::text || kind == field_kind::contacts;
  if (value.null || !value.set) {
    s->bind_null();
  } else if (text) {
    s->bind(value.text);
  } else {
    s->bind(value.number);
  }
}

bool has_text(const field_value &value) {
  return value.set && !value.null && !value.text.empty();
}

/* sqlite3_changes() then tells whether it is another one. */
store_status update_body(store *st, int mail_id, const field_value &body) {
  if (!has_text(body)) return statement(st, "DELETE FROM body WHERE mail_id = ?").bind(mail_id).run();
  return statement(st,
                   "INSERT INTO body (mail_id, text) VALUES (?, ?) ON CONFLICT DO UPDATE SET text = excluded.text"
                   " WHERE text IS NOT excluded.text")
      .bind(mail_id)
      .bind(body.text)
      .run();
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
      statement update(st,
                       "UPDATE account SET email_address = ?2, display_name = ?3, color = ifnull(?4, color) "
                       "WHERE account_id = ?1 AND (email_address IS NOT ?2 OR display_name IS NOT ?3 OR "
                       "(?4 IS NOT NULL AND color IS NOT ?4))");
      update.bind(*id).bind(address);
      name.empty() ? update.bind_null() : update.bind(name);
      rgba ? update.bind(rgba) : update.bind_null();
      const store_status updated = update.run();
      if (updated || sqlite3_changes(st->db) == 0) return updated;
      return add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_ADD, {*id});
    }
    statement insert(st, "INSERT INTO account (account_id, email_address, display_name, color) VALUES (?, ?, ?, ?)");
    *id ? insert.bind(*id) : insert.bind_null();
    insert.bind(address);
    name.empty() ? insert.bind_null() : insert.bind(name);
    insert.bind(rgba);
    store_status added = insert.run();
    if (added) return added;
    const int64_t new_id = sqlite3_last_insert_rowid(st->db);
    if (new_id > INT32_MAX) return fail(st, store_invalid, "there are no account ids left");
    *id = static_cast<int>(new_id);
    if (!rgba) {
      statement color(st, "UPDATE account SET color = ? WHERE account_id = ?");
      const size_t pick = static_cast<size_t>(*id - 1) % std::size(account_colors);
      added = color.bind(account_colors[pick]).bind(*id).run();
      if (added) return added;
    }
    added = add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_ADD, {*id});
    if (added) return added;
    /* A phone that tells of an account knows how many it has, unless it said otherwise. */
    statement known(st, "INSERT OR IGNORE INTO state (key, value) VALUES ('account_count_known', 1)");
    added = known.run();
    if (added || sqlite3_changes(st->db) == 0) return added;
    return add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_COUNT_STATUS, {});
  });
}

store_status store_remove_account(store *st, int id) {
  return transaction(st, [&]() -> store_status {
    if (!account_exists(st, id)) return fail(st, store_invalid, "no account %d", id);
    std::vector<int> mails;
    {
      statement find(st, "SELECT mail_id FROM mail WHERE account_id = ? ORDER BY received_time DESC, mail_id");
      find.bind(id);
      int r;
      while ((r = find.step()) == SQLITE_ROW) mails.push_back(static_cast<int>(find.number(0)));
      if (r != SQLITE_DONE) return fail_sqlite(st);
    }
    store_status status = statement(st, "DELETE FROM mail WHERE account_id = ?").bind(id).run();
    if (!status) status = statement(st, "DELETE FROM account WHERE account_id = ?").bind(id).run();
    /* Mails first: when the account's event comes, none of them is shown any more. */
    if (!status && !mails.empty()) status = add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_NOTI_DELETE, mails);
    if (!status) status = add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_DELETE, {id});
    return status;
  });
}

store_status store_list_accounts(store *st, std::vector<account_value_record> *accounts) {
  statement list(st,
                 "SELECT account_id, account_value, email_address, display_name, color FROM account "
                 "ORDER BY account_id");
  int r;
  while ((r = list.step()) == SQLITE_ROW)
    accounts->push_back({static_cast<int>(list.number(0)), static_cast<int>(list.number(1)), list.text(2), list.text(3),
                         static_cast<uint32_t>(list.number(4))});
  return r == SQLITE_DONE ? store_ok : fail_sqlite(st);
}

store_status store_set_account_count_known(store *st, bool known) {
  return transaction(st, [&]() -> store_status {
    const int before = store_get_state(st, "account_count_known", -1);
    statement set(st, "INSERT OR REPLACE INTO state (key, value) VALUES ('account_count_known', ?)");
    store_status status = set.bind(known ? 1 : 0).run();
    /* Only the way to known is news: the event says that the number is to be had now. */
    if (!status && known && before != 1) status = add_change(st, BRISEL_IPC_CLIENT_EVENT_TYPE_ACCOUNT_COUNT_STATUS, {});
    return status;
  });
}

store_status store_add_mails(store *st, std::vector<mail_values> *mails, std::vector<int> *ids) {
  if (mails->empty()) return store_ok;
  if (mails->size() > mails_max) return fail(st, store_invalid, "more than %zu mails at once", mails_max);
  const int64_t now = time(nullptr);
  for (mail_values &mail : *mails) {
    if (!mail.field[field_account].set) return fail(st, store_invalid, "a mail needs an account_id");
    set_number(&mail, field_time, now);
    set_number(&mail, field_new, 1);
    for (size_t i = 0; i < mail_fields.size(); i++)
      if (mail_fields[i].kind == field_kind::number || mail_fields[i].kind == field_kind::flag) set_number(&mail, i, 0);
    const store_status status = check_values(st, mail);
    if (status) return status;
  }
  ids->clear();
  return transaction(st, [&]() -> store_status {
    const std::string sql =
        std::string("INSERT INTO mail (") + mail_columns + ") VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";
    statement insert(st, sql.c_str());
    statement insert_body(st, sql_set_body);
    int known_account = 0; /* mails of an account come together: one look for all of them */
    for (const mail_values &mail : *mails) {
      const int account = static_cast<int>(mail.field[field_account].number);
      if (account != known_account && !account_exists(st, account))
        return fail(st, store_invalid, "no account %d", account);
      known_account = account;
      for (size_t i = 0; i < field_body; i++) bind_value(&insert, i, mail.field[i]);
      store_status status = insert.run();
      if (status) return status;
      const int64_t id = sqlite3_last_insert_rowid(st->db);
      if (has_text(mail.field[field_body])) {
        status = insert_body.bind(id).bind(mail.field[field_body].text).run();
        if (status) return status;
      }
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
      changed = sqlite3_changes(st->db) > 0;
    }
    for (size_t i = 0; i < field_body; i++) {
      if (!values.field[i].set) continue;
      const std::string name = mail_fields[i].name;
      const std::string sql = "UPDATE mail SET " + name + " = ?1 WHERE mail_id = ?2 AND " + name + " IS NOT ?1";
      statement update(st, sql.c_str());
      bind_value(&update, i, values.field[i]);
      const store_status updated = update.bind(mail_id).run();
      if (updated) return updated;
      changed = changed || sqlite3_changes(st->db) > 0;
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

store_status store_list_mails(store *st, int after_id, size_t limit, size_t bytes, std::vector<mail_values> *mails) {
  const std::string sql =
      std::string("SELECT ") + mail_columns +
      ", text, mail.mail_id FROM mail LEFT JOIN body USING (mail_id) WHERE mail.mail_id > ? ORDER BY mail.mail_id";
  statement list(st, sql.c_str());
  list.bind(after_id);
  size_t used = 0;
  int r = SQLITE_DONE;
  while (mails->size() < limit && (r = list.step()) == SQLITE_ROW) {
    mail_values mail;
    for (size_t i = 0; i < mail_fields.size(); i++) {
      field_value &value = mail.field[i];
      value.set = true;
      value.null = sqlite3_column_type(list.s, static_cast<int>(i)) == SQLITE_NULL;
      if (mail_fields[i].kind == field_kind::text || mail_fields[i].kind == field_kind::contacts) {
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
    mail.mail_id = static_cast<int>(list.number(static_cast<int>(mail_fields.size())));
    if (used > bytes && !mails->empty()) return store_ok;
    mails->push_back(std::move(mail));
  }
  return r == SQLITE_DONE || r == SQLITE_ROW ? store_ok : fail_sqlite(st);
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
    statement insert(st, "INSERT INTO template (position, template_id, text) VALUES (?1, ?1, ?2)");
    for (size_t i = 0; !status && i < texts.size(); i++)
      status = insert.bind(static_cast<int64_t>(i) + 1).bind(texts[i]).run();
    return status;
  });
}

store_status store_list_templates(store *st, std::vector<std::pair<int, std::string>> *templates) {
  statement list(st, "SELECT template_id, text FROM template ORDER BY position");
  int r;
  while ((r = list.step()) == SQLITE_ROW) templates->emplace_back(static_cast<int>(list.number(0)), list.text(1));
  return r == SQLITE_DONE ? store_ok : fail_sqlite(st);
}

store_status store_set_state(store *st, const char *key, int value) {
  statement set(st, "INSERT OR REPLACE INTO state (key, value) VALUES (?, ?)");
  const std::string name = key;
  return set.bind(name).bind(value).run();
}

int store_get_state(store *st, const char *key, int fallback) {
  statement get(st, "SELECT value FROM state WHERE key = ?");
  const std::string name = key;
  return get.bind(name).step() == SQLITE_ROW ? static_cast<int>(get.number(0)) : fallback;
}
