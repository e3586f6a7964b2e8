/* Reading the mails as a list, beside SQLite stepping over the same rows and handing out the same columns. */
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <map>
#include <string>

#include "brisel-common.h"
#include "figure.h"
#include "platform-paths.h"
#include "store.h"

namespace {

std::string store_path(void) {
  return std::string(platform_data_dir()) + "/store.db";
}

mail_values mail_of(int number) {
  const auto text = [](const std::string &value) { return field_value{true, false, 0, value}; };
  const auto set = [](mail_values *mail, const char *name, field_value value) {
    mail->field[static_cast<size_t>(mail_field_index(name))] = std::move(value);
  };
  mail_values mail;
  /* Mostly in the order of arrival, as a phone relays them, but not quite. */
  const int64_t received = 1700000000 + number * 60 + (number * 7919 % 11) * 100;
  set(&mail, "account_id", {true, false, 1 + number % 2, ""});
  set(&mail, "received_time", {true, false, received, ""});
  set(&mail, "subject", text("Re: minutes of meeting " + std::to_string(number)));
  set(&mail, "from_name", text(number % 5 ? "Jordan Example" : "Юлия Пример"));
  set(&mail, "from_address", text("jordan" + std::to_string(number % 300) + "@example.org"));
  set(&mail, "message_uid", text("<" + std::to_string(number) + "@example.org>"));
  std::string body;
  const size_t length = number % 20 ? 600 + static_cast<size_t>(number * 37 % 1800) : 12000;
  while (body.size() < length)
    body += number % 5 ? "All work and no play makes a dull mail. " : "Съешь ещё этих булок. ";
  set(&mail, "body", text(body));
  return mail;
}

/* Makes the store hold exactly count mails; asked for in ascending order. */
void fill(int count) {
  static int held = 0;
  if (held >= count) return;
  std::string why;
  store *st = store_open(store_path(), &why);
  if (!st) {
    fprintf(stderr, "bench-store: %s\n", why.c_str());
    exit(1);
  }
  for (int id = 1; id <= 2; id++)
    if (store_add_account(st, &id, "me@example.org", "Me", 0) != store_ok) exit(1);
  std::vector<mail_values> mails;
  for (; held < count; held++) mails.push_back(mail_of(held));
  std::vector<int> ids;
  if (store_add_mails(st, &mails, &ids) != store_ok) {
    fprintf(stderr, "bench-store: %s\n", store_error(st).c_str());
    exit(1);
  }
  store_close(st);
}

void read_list(benchmark::State &state) {
  fill(static_cast<int>(state.range(0)));
  brisel_db_init();
  for (auto _ : state) {
    GSList *list = nullptr;
    int count = 0;
    if (brisel_db_get_full_noti_data_list_by_account_id(0, &list, &count) || count != state.range(0))
      state.SkipWithError("the list is not what was stored");
    brisel_full_noti_data_list_free(list);
  }
  brisel_db_deinit();
}

/* What the application's list reads: the rows of its first screen, then part by part. */
void read_rows(benchmark::State &state, bool all) {
  constexpr int first = 24, at_once = 128;
  fill(static_cast<int>(state.range(0)));
  brisel_db_init();
  for (auto _ : state) {
    brisel_mail_place last = {};
    int64_t rows = 0;
    bool more = true;
    for (int most = first; more && (all || rows == 0); most = at_once) {
      GSList *list = nullptr;
      int found = 0;
      more = brisel_db_get_noti_rows_after(0, rows ? &last : nullptr, most, &list, &found) == 0 && found == most;
      for (const GSList *cell = list; cell; cell = cell->next) {
        const auto *mail = static_cast<const full_noti_data *>(cell->data);
        last = {mail->mail_id, mail->received_time, mail->security_locked};
      }
      brisel_full_noti_data_list_free(list);
      rows += found;
    }
    if (rows != (all ? state.range(0) : first)) state.SkipWithError("the rows are not what was stored");
  }
  brisel_db_deinit();
}

void first_rows(benchmark::State &state) {
  read_rows(state, false);
}

void all_rows(benchmark::State &state) {
  read_rows(state, true);
}

/* Bare SQLite over the same mails in the same order; the columns of a row are 16 with the body, 15 without. */
void step(benchmark::State &state, const char *columns, const char *from, int column_count) {
  fill(static_cast<int>(state.range(0)));
  sqlite3 *db = nullptr;
  sqlite3_stmt *s = nullptr;
  sqlite3_open_v2(store_path().c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
  const std::string sql = std::string("SELECT ") + columns + " FROM " + from + " ORDER BY received_time DESC, mail_id";
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &s, nullptr) != SQLITE_OK) state.SkipWithError(sqlite3_errmsg(db));
  for (auto _ : state) {
    int rows = 0;
    while (s && sqlite3_step(s) == SQLITE_ROW) {
      for (int i = 0; i < 9; i++) benchmark::DoNotOptimize(sqlite3_column_int64(s, i));
      for (int i = 9; i < column_count; i++) benchmark::DoNotOptimize(sqlite3_column_text(s, i));
      rows++;
    }
    sqlite3_reset(s);
    if (rows != state.range(0)) state.SkipWithError("the rows are not what was stored");
  }
  sqlite3_finalize(s);
  sqlite3_close(db);
}

#define ROW_COLUMNS                                                                                                 \
  "mail_id, host_state, received_time, attachment_count, has_image, is_new, account_id, security_locked, is_read, " \
  "host_tag, subject, from_address, from_name, message_uid, contacts"

void step_mails(benchmark::State &state) {
  step(state, ROW_COLUMNS ", text", "mail LEFT JOIN body USING (mail_id)", 16);
}

void step_rows(benchmark::State &state) {
  step(state, ROW_COLUMNS, "mail", 15);
}

double now_ms(void) {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) / 1e6;
}

/* The same batch through the store and through bare inserts into a copy of its file; both with one sync. The store
   holds more mails then: to be called last. */
int add_batches(void) {
  constexpr int batch = 1000, rounds = 7;
  constexpr const char *row =
      "INSERT INTO mail (account_id, received_time, subject, from_name, from_address, message_uid) "
      "VALUES (?, ?, ?, ?, ?, ?)";
  const std::string bare_path = store_path() + "-bare";
  std::filesystem::copy_file(store_path(), bare_path);
  std::string why;
  store *st = store_open(store_path(), &why);
  sqlite3 *db = nullptr;
  sqlite3_stmt *insert = nullptr, *insert_body = nullptr;
  sqlite3_open(bare_path.c_str(), &db);
  sqlite3_exec(db, "PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL", nullptr, nullptr, nullptr);
  sqlite3_prepare_v2(db, row, -1, &insert, nullptr);
  sqlite3_prepare_v2(db, "INSERT INTO body (mail_id, text) VALUES (?, ?)", -1, &insert_body, nullptr);
  std::vector<double> ours, bare;
  bool good = st && insert && insert_body;
  for (int round = 0; good && round < rounds; round++) {
    std::vector<mail_values> mails;
    for (int n = 0; n < batch; n++) mails.push_back(mail_of((round + 1) * batch + n));
    double start = now_ms();
    sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
    for (const mail_values &mail : mails) {
      const auto field = [&](const char *name) { return mail.field[static_cast<size_t>(mail_field_index(name))]; };
      int column = 0;
      for (const char *name : {"account_id", "received_time"}) sqlite3_bind_int64(insert, ++column, field(name).number);
      for (const char *name : {"subject", "from_name", "from_address", "message_uid"})
        sqlite3_bind_text(insert, ++column, field(name).text.c_str(), -1, SQLITE_TRANSIENT);
      good = good && sqlite3_step(insert) == SQLITE_DONE;
      sqlite3_reset(insert);
      sqlite3_bind_int64(insert_body, 1, sqlite3_last_insert_rowid(db));
      sqlite3_bind_text(insert_body, 2, field("body").text.c_str(), -1, SQLITE_TRANSIENT);
      good = good && sqlite3_step(insert_body) == SQLITE_DONE;
      sqlite3_reset(insert_body);
    }
    good = sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK && good;
    bare.push_back(now_ms() - start);
    std::vector<int> ids;
    start = now_ms();
    good = store_add_mails(st, &mails, &ids) == store_ok && good;
    ours.push_back(now_ms() - start);
  }
  sqlite3_finalize(insert);
  sqlite3_finalize(insert_body);
  if (!good) fprintf(stderr, "bench-store: the batches: %s %s\n", why.c_str(), sqlite3_errmsg(db));
  sqlite3_close(db);
  if (st) store_close(st);
  if (good) figure("a batch of 1000 mails added", "ms", ours, bare, "bare inserts in one commit");
  return good ? 0 : 1;
}

void register_all(void) {
  const std::pair<const char *, void (*)(benchmark::State &)> all[] = {{"step_mails", step_mails},
                                                                       {"step_rows", step_rows},
                                                                       {"read_list", read_list},
                                                                       {"first_rows", first_rows},
                                                                       {"all_rows", all_rows}};
  for (const int mails : {100, 1000, 10000})
    for (const auto &[name, function] : all)
      benchmark::RegisterBenchmark(name, function)->Arg(mails)->Unit(benchmark::kMicrosecond);
}

/* Takes every repetition's processor time instead of printing it. */
struct figure_reporter : benchmark::BenchmarkReporter {
  bool ReportContext(const Context &) override { return true; }
  void ReportRuns(const std::vector<Run> &runs) override {
    for (const Run &run : runs) {
      if (run.error_occurred) fprintf(stderr, "bench-store: %s\n", run.error_message.c_str());
      failed |= run.error_occurred;
      if (run.run_type == Run::RT_Iteration)
        times[run.run_name.function_name + "/" + run.run_name.args].push_back(run.GetAdjustedCPUTime());
    }
  }
  std::map<std::string, std::vector<double>> times;
  bool failed = false;
};

}  // namespace

int main(int argc, char **argv) {
  char folder[] = "/tmp/brisel-bench-XXXXXX";
  if (!mkdtemp(folder)) return 1;
  setenv("XDG_DATA_HOME", folder, 1);
  benchmark::Initialize(&argc, argv);
  register_all();
  figure_reporter reporter;
  /* A repetition runs all of one size in turn: what disturbs the machine then disturbs the reference as well. */
  for (const std::string mails : {"100", "1000", "10000"})
    for (int i = 0; i < 5; i++) benchmark::RunSpecifiedBenchmarks(&reporter, "/" + mails + "$");
  const struct {
    const char *name, *what, *bare, *beside;
  } figures[] = {{"read_list", " mails, with their bodies", "step_mails/", "stepping over the mails"},
                 {"first_rows", " mails, before the first picture", "step_rows/", "stepping over all rows"},
                 {"all_rows", " mails, what a list reads in all", "step_rows/", "stepping over all rows"}};
  for (const std::string mails : {"100", "1000", "10000"})
    for (const auto &[name, what, bare, beside] : figures)
      figure("list of " + mails + what, "us", reporter.times[std::string(name) + "/" + mails],
             reporter.times[bare + mails], beside);
  const int added = add_batches();
  std::filesystem::remove_all(folder);
  return reporter.failed || added ? 1 : 0;
}
