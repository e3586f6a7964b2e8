/* Reading the mails as a list, beside SQLite stepping over the same rows and handing out the same columns; adding a
   batch of them. As the application reads: another process holds the store, which is opened, read once and closed. */
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

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
bool fill(store *st, int count) {
  static int held = 0;
  std::vector<mail_values> mails;
  for (; held < count; held++) mails.push_back(mail_of(held));
  std::vector<int> ids;
  const bool added = store_add_mails(st, &mails, &ids) == store_ok;
  if (!added) fprintf(stderr, "bench-store: %s\n", store_error(st).c_str());
  return added;
}

store *open_store(void) {
  std::string why;
  store *st = store_open(store_path(), &why);
  if (!st) fprintf(stderr, "bench-store: %s\n", why.c_str());
  return st;
}

/* The process that has the store, as the host service has: it puts mails in when it is told their number, and answers
   with a byte. While it is there, who opens the store need not set up what lies beside it. */
struct holder {
  int to = -1, from = -1;
  pid_t process = -1;
};

int hold(int numbers, int answers) {
  store *st = open_store();
  bool good = st;
  for (int id = 1; good && id <= 2; id++) good = store_add_account(st, &id, "me@example.org", "Me", 0) == store_ok;
  for (int count = 0; good && read(numbers, &count, sizeof count) == sizeof count;)
    good = fill(st, count) && write(answers, "", 1) == 1;
  store_close(st);
  return good ? 0 : 1;
}

bool start_holder(holder *h) {
  int numbers[2], answers[2];
  if (pipe(numbers) || pipe(answers)) return false;
  h->process = fork();
  if (h->process == 0) {
    close(numbers[1]);
    close(answers[0]);
    _exit(hold(numbers[0], answers[1]));
  }
  close(numbers[0]);
  close(answers[1]);
  h->to = numbers[1];
  h->from = answers[0];
  return h->process > 0;
}

bool holds(const holder &h, int count) {
  char byte;
  return write(h.to, &count, sizeof count) == sizeof count && read(h.from, &byte, 1) == 1;
}

bool end_holder(const holder &h) {
  int status = 1;
  close(h.to);
  return waitpid(h.process, &status, 0) == h.process && status == 0;
}

/* --- the application's way --- */

constexpr int first_rows = 24, rows_at_once = 128; /* as the application's list reads them */

int list_with_bodies(void) {
  GSList *list = nullptr;
  int count = 0;
  if (brisel_db_get_full_noti_data_list_by_account_id(0, &list, &count)) count = -1;
  brisel_full_noti_data_list_free(list);
  return count;
}

/* The rows of its first screen, then part by part. */
int rows_of_list(bool all) {
  brisel_mail_place last = {};
  int rows = 0;
  bool more = true;
  for (int most = first_rows; more && (all || rows == 0); most = rows_at_once) {
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
  return rows;
}

/* --- SQLite's way --- */

enum bare_kind { bare_rows, bare_first, bare_bodies };

struct bare_reader {
  sqlite3 *db = nullptr;
  sqlite3_stmt *query = nullptr;
};

/* ours: with the cache, the checks and the locks of the common library's connection, else all as it comes. */
bool open_bare(bare_reader *reader, bare_kind kind, bool ours) {
  const char *from = kind == bare_bodies
                         ? "mail_id, received_time, is_new, account_id, security_locked, is_read, host_state,"
                           " attachment_count, has_image, subject, from_address, from_name, host_tag, message_uid,"
                           " contacts, text FROM mail LEFT JOIN body USING (mail_id)"
                         : "mail_id, received_time, is_new, account_id, security_locked, is_read, subject,"
                           " from_address, from_name FROM mail";
  std::string sql = std::string("SELECT ") + from + " ORDER BY received_time DESC, mail_id";
  if (kind == bare_first) sql += " LIMIT " + std::to_string(first_rows);
  const int flags = SQLITE_OPEN_READONLY | (ours ? SQLITE_OPEN_NOMUTEX : 0);
  return sqlite3_open_v2(store_path().c_str(), &reader->db, flags, nullptr) == SQLITE_OK &&
         (!ours || sqlite3_exec(reader->db, "PRAGMA cache_size = -256; PRAGMA cell_size_check = ON", nullptr, nullptr,
                                nullptr) == SQLITE_OK) &&
         sqlite3_prepare_v2(reader->db, sql.c_str(), -1, &reader->query, nullptr) == SQLITE_OK;
}

int step_bare(const bare_reader &reader) {
  const int columns = sqlite3_column_count(reader.query), numbers = columns == 9 ? 6 : 9;
  int rows = 0;
  while (sqlite3_step(reader.query) == SQLITE_ROW) {
    for (int i = 0; i < numbers; i++) benchmark::DoNotOptimize(sqlite3_column_int64(reader.query, i));
    for (int i = numbers; i < columns; i++) benchmark::DoNotOptimize(sqlite3_column_text(reader.query, i));
    rows++;
  }
  return sqlite3_reset(reader.query) == SQLITE_OK ? rows : -1;
}

void close_bare(bare_reader *reader) {
  sqlite3_finalize(reader->query);
  sqlite3_close(reader->db);
}

/* --- what is measured --- */

template <typename F>
void opened_and_read(benchmark::State &state, int64_t wanted, F read) {
  for (auto _ : state) {
    const int opened = brisel_db_init();
    if (opened || read() != wanted) state.SkipWithError("what was read is not what was stored");
    brisel_db_deinit();
  }
}

void all_rows(benchmark::State &state) {
  opened_and_read(state, state.range(0), [] { return rows_of_list(true); });
}

void few_rows(benchmark::State &state) {
  opened_and_read(state, first_rows, [] { return rows_of_list(false); });
}

void with_bodies(benchmark::State &state) {
  opened_and_read(state, state.range(0), list_with_bodies);
}

/* Read over and over from a connection that stays, as when a list is made anew. */
void rows_again(benchmark::State &state) {
  if (brisel_db_init()) state.SkipWithError("the store cannot be opened");
  for (auto _ : state)
    if (rows_of_list(true) != state.range(0)) state.SkipWithError("what was read is not what was stored");
  brisel_db_deinit();
}

void bare_opened_and_read(benchmark::State &state, bare_kind kind, bool ours) {
  for (auto _ : state) {
    bare_reader reader;
    const bool opened = open_bare(&reader, kind, ours);
    if (!opened || step_bare(reader) != (kind == bare_first ? first_rows : state.range(0)))
      state.SkipWithError("what SQLite read is not what was stored");
    close_bare(&reader);
  }
}

void bare_again(benchmark::State &state) {
  bare_reader reader;
  if (!open_bare(&reader, bare_rows, false)) state.SkipWithError("SQLite cannot open the store");
  for (auto _ : state)
    if (step_bare(reader) != state.range(0)) state.SkipWithError("what SQLite read is not what was stored");
  close_bare(&reader);
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

/* Short ones, and many: the machine has a slow moment now and then. */
constexpr int repetitions = 21;
constexpr double least_s = 0.05;
constexpr const char *sizes[] = {"100", "1000", "10000"};

/* What each figure is of: the two that it compares, as they are registered. */
constexpr struct {
  const char *ours, *bare, *what, *beside;
} figures[] = {
    {"few_rows", "bare_few", "read before the first picture", "SQLite opened, as many rows"},
    {"all_rows", "bare_all", "opened, read, closed", "SQLite opened, all rows"},
    {"all_rows", "same_all", "opened, read, closed, same settings", "SQLite set as ours, all rows"},
    {"rows_again", "bare_again", "read again", "SQLite stepping again, all pages kept"},
    {"with_bodies", "bare_bodies", "with their bodies", "SQLite opened, all mails"},
    {"with_bodies", "same_bodies", "with their bodies, same settings", "SQLite set as ours, all mails"},
};

void register_all(void) {
  const auto add = [](const char *name, auto function) {
    for (const char *mails : sizes)
      benchmark::RegisterBenchmark(name, function)->Arg(atoi(mails))->Unit(benchmark::kMicrosecond)->MinTime(least_s);
  };
  const auto bare = [&](const char *name, bare_kind kind, bool ours) {
    add(name, [=](benchmark::State &state) { bare_opened_and_read(state, kind, ours); });
  };
  add("few_rows", few_rows);
  bare("bare_few", bare_first, false);
  add("all_rows", all_rows);
  bare("bare_all", bare_rows, false);
  bare("same_all", bare_rows, true);
  add("rows_again", rows_again);
  add("bare_again", bare_again);
  add("with_bodies", with_bodies);
  bare("bare_bodies", bare_bodies, false);
  bare("same_bodies", bare_bodies, true);
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
  holder held;
  bool good = start_holder(&held);
  benchmark::Initialize(&argc, argv);
  register_all();
  figure_reporter reporter;
  /* A repetition runs all of one size in turn: what disturbs the machine then disturbs the reference as well. */
  for (const char *mails : sizes) {
    good = good && holds(held, atoi(mails));
    for (int i = 0; good && i < repetitions; i++)
      benchmark::RunSpecifiedBenchmarks(&reporter, std::string("/") + mails + "/");
    for (const auto &[ours, bare, what, beside] : figures)
      if (good)
        figure(std::string("list of ") + mails + " mails, " + what, "us",
               reporter.times[std::string(ours) + "/" + mails], reporter.times[std::string(bare) + "/" + mails],
               beside);
  }
  good = end_holder(held) && good && add_batches() == 0;
  std::filesystem::remove_all(folder);
  return good && !reporter.failed ? 0 : 1;
}
