/* Owns the connection, the views, queries and their records, and who is told of changes. The file is
   contacts-file.cpp's, import and removal are contacts-import.cpp's. */
#include "contacts.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "contacts-file.h"
#include "dlog.h"
#include "platform-paths.h"
#include "text-check.h"

namespace {

/* --- views --- */

struct view_column {
  unsigned property;
  const char *sql;
  const char *folded_sql; /* the column that holds an address for comparing without case */
  bool is_text;
};

struct view {
  const char *uri;
  const char *from;
  const char *order;
  std::vector<view_column> columns;
};

const std::vector<view> &views() {
  static const std::vector<view> all = {
      {"contacts.person",
       "person",
       "person.id",
       {{0x101, "person.id", nullptr, false}, {0x102, "person.name", nullptr, true}}},
      {"contacts.person/email",
       "email JOIN person ON person.id = email.person_id",
       "person.id, email.id",
       {{0x201, "person.id", nullptr, false},
        {0x202, "person.name", nullptr, true},
        {0x203, "email.address", "email.folded", true}}},
      {"contacts.person/number",
       "number JOIN person ON person.id = number.person_id",
       "person.id, number.id",
       {{0x301, "person.id", nullptr, false},
        {0x302, "person.name", nullptr, true},
        {0x303, "number.number", nullptr, true},
        {0x304, "number.type", nullptr, false}}},
  };
  return all;
}

const view *find_view(const char *uri) {
  if (uri == nullptr) return nullptr;
  const auto found =
      std::find_if(views().begin(), views().end(), [uri](const view &one) { return strcmp(one.uri, uri) == 0; });
  return found != views().end() ? &*found : nullptr;
}

/* --- change notification --- */

struct registration {
  std::string view_uri;
  contacts_db_changed_cb callback;
  void *user_data;
  bool dead = false; /* removed while callbacks run; freed afterwards */
};

int connections;
std::vector<std::unique_ptr<registration>> registrations;
int delivering;

void drop_dead() {
  if (delivering > 0) return;
  std::erase_if(registrations, [](const auto &one) { return one->dead; });
  if (registrations.empty()) contacts_file_unwatch();
}

void file_changed_cb(void) {
  delivering++;
  const size_t count = registrations.size();
  for (size_t i = 0; i < count; i++) {
    const registration *one = registrations[i].get();
    if (!one->dead) one->callback(one->view_uri.c_str(), one->user_data);
  }
  delivering--;
  drop_dead();
}

}  // namespace

const contacts_view_person_s _contacts_person = {"contacts.person", 0x101, 0x102};
const contacts_view_person_email_s _contacts_person_email = {"contacts.person/email", 0x201, 0x202, 0x203};
const contacts_view_person_number_s _contacts_person_number = {"contacts.person/number", 0x301, 0x302, 0x303, 0x304};

/* --- connection --- */

int contacts_connect2(void) {
  /* The file is looked at by each query and not here: a broken one that is repaired works from then on. */
  if (platform_data_dir() == nullptr) {
    __dlog_print(DLOG_ERROR, "CONTACTS", "there is no folder for the contacts");
    return CONTACTS_ERROR_DB;
  }
  connections++;
  return CONTACTS_ERROR_NONE;
}

int contacts_disconnect2(void) {
  if (connections == 0) return CONTACTS_ERROR_NOT_CONNECTED;
  if (--connections == 0) {
    for (const auto &one : registrations) one->dead = true;
    drop_dead();
  }
  return CONTACTS_ERROR_NONE;
}

/* --- queries --- */

struct condition {
  const view_column *column;
  std::vector<std::string> spellings; /* of an address, when case is to be ignored: any of them */
  std::string text;
  int number;
};

struct contacts_filter_s {
  const view *of;
  std::vector<condition> conditions;
};

struct contacts_query_s {
  const view *of;
  std::optional<contacts_filter_s> filter;
};

struct contacts_record_s {
  const view *of;
  std::vector<int> numbers;                      /* by the view's columns */
  std::vector<std::optional<std::string>> texts; /* by the view's columns */
};

struct contacts_list_s {
  std::vector<std::unique_ptr<contacts_record_s>> records;
  size_t current = 0;
};

int contacts_query_create(const char *view_uri, contacts_query_h *query) {
  const view *of = find_view(view_uri);
  if (of == nullptr || query == nullptr) return CONTACTS_ERROR_INVALID_PARAMETER;
  *query = new contacts_query_s{of, std::nullopt};
  return CONTACTS_ERROR_NONE;
}

int contacts_query_destroy(contacts_query_h query) {
  if (query == nullptr) return CONTACTS_ERROR_INVALID_PARAMETER;
  delete query;
  return CONTACTS_ERROR_NONE;
}

int contacts_filter_create(const char *view_uri, contacts_filter_h *filter) {
  const view *of = find_view(view_uri);
  if (of == nullptr || filter == nullptr) return CONTACTS_ERROR_INVALID_PARAMETER;
  *filter = new contacts_filter_s{of, {}};
  return CONTACTS_ERROR_NONE;
}

int contacts_filter_destroy(contacts_filter_h filter) {
  if (filter == nullptr) return CONTACTS_ERROR_INVALID_PARAMETER;
  delete filter;
  return CONTACTS_ERROR_NONE;
}

static const view_column *find_column(const view *of, unsigned property, bool is_text) {
  for (const view_column &column : of->columns) {
    if (column.property == property && column.is_text == is_text) return &column;
  }
  return nullptr;
}

int contacts_filter_add_str(contacts_filter_h filter, unsigned property, int match_flag, const char *value) {
  const bool flag_known = match_flag == CONTACTS_MATCH_EXACTLY || match_flag == CONTACTS_MATCH_FULLSTRING;
  if (filter == nullptr || value == nullptr || !flag_known || !text_utf8_valid(value))
    return CONTACTS_ERROR_INVALID_PARAMETER;
  const view_column *column = find_column(filter->of, property, true);
  /* Case is ignored where the file holds a folded copy to look in. */
  const bool ignore_case = match_flag == CONTACTS_MATCH_FULLSTRING;
  if (column == nullptr || (ignore_case && column->folded_sql == nullptr)) return CONTACTS_ERROR_INVALID_PARAMETER;
  filter->conditions.push_back(
      {column, ignore_case ? contacts_address_spellings(value) : std::vector<std::string>(), value, 0});
  return CONTACTS_ERROR_NONE;
}

int contacts_filter_add_int(contacts_filter_h filter, unsigned property, int match_flag, int value) {
  if (filter == nullptr || match_flag != CONTACTS_MATCH_EQUAL) return CONTACTS_ERROR_INVALID_PARAMETER;
  const view_column *column = find_column(filter->of, property, false);
  if (column == nullptr) return CONTACTS_ERROR_INVALID_PARAMETER;
  filter->conditions.push_back({column, {}, {}, value});
  return CONTACTS_ERROR_NONE;
}

int contacts_query_set_filter(contacts_query_h query, contacts_filter_h filter) {
  if (query == nullptr || filter == nullptr || query->of != filter->of) return CONTACTS_ERROR_INVALID_PARAMETER;
  query->filter = *filter;
  return CONTACTS_ERROR_NONE;
}

static std::string query_sql(const contacts_query_s *query) {
  std::string sql = "SELECT ";
  for (const view_column &column : query->of->columns) {
    if (&column != &query->of->columns.front()) sql += ", ";
    sql += column.sql;
  }
  sql += std::string(" FROM ") + query->of->from;
  /* A filter whose conditions all failed to be added finds nobody: the caller asked for someone in particular. */
  if (query->filter) sql += query->filter->conditions.empty() ? " WHERE 0" : " WHERE 1";
  if (query->filter) {
    for (const condition &one : query->filter->conditions) {
      sql += std::string(" AND ") + (one.spellings.empty() ? one.column->sql : one.column->folded_sql) + " IN (?";
      for (size_t i = 1; i < one.spellings.size(); i++) sql += ", ?";
      sql += ")";
    }
  }
  return sql + " ORDER BY " + query->of->order + " LIMIT ? OFFSET ?";
}

static void bind_query(sql_statement *sql, const contacts_query_s *query, int offset, int limit) {
  if (query->filter) {
    for (const condition &one : query->filter->conditions) {
      for (const std::string &spelling : one.spellings) sql->add(spelling);
      if (!one.spellings.empty()) continue;
      one.column->is_text ? sql->add(one.text) : sql->add(one.number);
    }
  }
  sql->add(limit > 0 ? limit : -1).add(offset);
}

static std::unique_ptr<contacts_record_s> read_record(const sql_statement &sql, const view *of) {
  auto record = std::make_unique<contacts_record_s>();
  record->of = of;
  for (int i = 0; i < static_cast<int>(of->columns.size()); i++) {
    const bool is_text = of->columns[static_cast<size_t>(i)].is_text;
    record->numbers.push_back(is_text ? 0 : sql.integer(i));
    record->texts.emplace_back();
    if (!is_text || sql.is_null(i)) continue;
    /* The file may hold what no import wrote. */
    const std::string text = sql.text(i);
    if (text_utf8_valid(text) && text.find('\0') == std::string::npos) record->texts.back() = text;
  }
  return record;
}

int contacts_db_get_records_with_query(contacts_query_h query, int offset, int limit, contacts_list_h *list) {
  if (query == nullptr || list == nullptr || offset < 0 || limit < 0) return CONTACTS_ERROR_INVALID_PARAMETER;
  if (connections == 0) return CONTACTS_ERROR_NOT_CONNECTED;
  sql_db db;
  if (contacts_file_open_to_read(&db) != 0) return CONTACTS_ERROR_DB;
  auto found = std::make_unique<contacts_list_s>();
  if (db.is_open()) {
    sql_statement sql(&db, query_sql(query));
    bind_query(&sql, query, offset, limit);
    sql_result result;
    while ((result = sql.step()) == sql_row) found->records.push_back(read_record(sql, query->of));
    if (result == sql_failed) {
      contacts_file_failed(db, "read");
      return CONTACTS_ERROR_DB;
    }
  }
  *list = found.release();
  return CONTACTS_ERROR_NONE;
}

int contacts_list_get_current_record_p(contacts_list_h list, contacts_record_h *record) {
  if (list == nullptr || record == nullptr) return CONTACTS_ERROR_INVALID_PARAMETER;
  if (list->current >= list->records.size()) return CONTACTS_ERROR_NO_DATA;
  *record = list->records[list->current].get();
  return CONTACTS_ERROR_NONE;
}

int contacts_list_next(contacts_list_h list) {
  if (list == nullptr) return CONTACTS_ERROR_INVALID_PARAMETER;
  if (list->current < list->records.size()) list->current++;
  return list->current < list->records.size() ? CONTACTS_ERROR_NONE : CONTACTS_ERROR_NO_DATA;
}

int contacts_list_destroy(contacts_list_h list, bool destroy_records) {
  if (list == nullptr) return CONTACTS_ERROR_INVALID_PARAMETER;
  /* Every record here belongs to its list, so there is none that could be left to the caller. */
  delete list;
  return CONTACTS_ERROR_NONE;
}

int contacts_record_get_int(contacts_record_h record, unsigned property, int *value) {
  const view_column *column = record != nullptr ? find_column(record->of, property, false) : nullptr;
  if (column == nullptr || value == nullptr) return CONTACTS_ERROR_INVALID_PARAMETER;
  *value = record->numbers[static_cast<size_t>(column - record->of->columns.data())];
  return CONTACTS_ERROR_NONE;
}

int contacts_record_get_str_p(contacts_record_h record, unsigned property, char **value) {
  const view_column *column = record != nullptr ? find_column(record->of, property, true) : nullptr;
  if (column == nullptr || value == nullptr) return CONTACTS_ERROR_INVALID_PARAMETER;
  auto &text = record->texts[static_cast<size_t>(column - record->of->columns.data())];
  *value = text ? text->data() : nullptr;
  return CONTACTS_ERROR_NONE;
}

int contacts_db_add_changed_cb(const char *view_uri, contacts_db_changed_cb callback, void *user_data) {
  if (find_view(view_uri) == nullptr || callback == nullptr) return CONTACTS_ERROR_INVALID_PARAMETER;
  if (connections == 0) return CONTACTS_ERROR_NOT_CONNECTED;
  if (!contacts_file_watch(file_changed_cb)) return CONTACTS_ERROR_DB;
  registrations.emplace_back(new registration{view_uri, callback, user_data});
  return CONTACTS_ERROR_NONE;
}

int contacts_db_remove_changed_cb(const char *view_uri, contacts_db_changed_cb callback, void *user_data) {
  if (find_view(view_uri) == nullptr || callback == nullptr) return CONTACTS_ERROR_INVALID_PARAMETER;
  for (const auto &one : registrations) {
    if (one->dead || one->view_uri != view_uri || one->callback != callback || one->user_data != user_data) continue;
    one->dead = true;
    drop_dead();
    return CONTACTS_ERROR_NONE;
  }
  return CONTACTS_ERROR_INVALID_PARAMETER;
}
