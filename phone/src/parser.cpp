/* Both ends of the parser process: the program that asks, and the process that reads. */
#include "parser.h"

#include <fcntl.h>
#include <glib.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>

#include "cage.h"
#include "text.h"

namespace {

/* Of the process, for one message. The longest in the corpus takes 0.4 s; a process that waits for the processor on a
   crowded machine is not one that hangs, so its own time counts, and the other only ends one that does nothing. */
constexpr int64_t kProcessorTime = 20, kWaitingTime = 120; /* seconds */
constexpr size_t kMaxHeaders = 64u << 10;                  /* bytes of any text that is not the body */
constexpr rlim_t kStack = 8u << 20;
constexpr int kNotStarted = 127; /* its exit code when the program could not be run */

enum request_kind : uint32_t { REQUEST_MAIL = 1, REQUEST_ARRIVAL = 2 };

/* What goes over the socket before the bytes. Both ends are the same program. */
struct request_head {
  uint32_t kind;
  uint32_t at_once; /* its answer waits for no other one */
  uint64_t size;
  mime_limits limits;
};

constexpr size_t kTexts = 9;

struct answer_head {
  int32_t result; /* of mime_parse() */
  int32_t walls;  /* of the cage, CAGE_ */
  uint64_t sizes[kTexts];
  int64_t date; /* or the arrival */
  int32_t attachment_count;
  uint8_t has_image, seen;
};

std::array<std::string *, kTexts> texts_of(mime_mail *mail, std::string *error) {
  return {&mail->subject,    &mail->from_address, &mail->from_name,
          &mail->reply_to,   &mail->body,         &mail->message_uid,
          &mail->message_id, &mail->references,   error};
}

/* --- the program that asks --- */

/* A question, and how much of it the socket took. */
struct question {
  request_head head;
  std::string_view raw;
  size_t written = 0;
  size_t size() const { return sizeof head + raw.size(); }
  bool is_whole() const { return written == size(); }
};

constexpr size_t kTaken = 64u << 10; /* bytes taken from the socket at once */
constexpr int kLookMs = 1000;        /* how often it is looked whether one that says nothing works */

struct parser_process {
  pid_t pid = -1;
  int socket = -1;
  bool told = false; /* that the cage has a hole */
  std::deque<question> ahead;
  size_t careful = 0; /* so many next questions are answered one by one: one of them may end or hold up the process */
  char bytes[kTaken]; /* came from the socket, the first `taken` of them used */
  size_t came = 0, taken = 0;
};

parser_process process;

void (*meanwhile_callback)(void *user_data);
void *meanwhile_data;

question question_of(request_kind kind, std::string_view raw, const mime_limits &limits) {
  question q = {}; /* also what lies between the fields */
  q.head.kind = kind;
  q.head.at_once = process.careful > 0;
  q.head.size = raw.size();
  q.head.limits = limits;
  q.raw = raw;
  return q;
}

int64_t monotonic_seconds() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec;
}

int64_t processor_seconds(pid_t pid) {
  clockid_t clock;
  timespec used = {};
  if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &used) < 0) return 0;
  return used.tv_sec;
}

/* In the child, before the program runs: only calls that are safe there. */
[[noreturn]] void become_parser(int socket) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  rlimit stack = {kStack, kStack};
  setrlimit(RLIMIT_STACK, &stack);
  int silence = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (silence < 0 || dup2(socket, 0) < 0 || dup2(silence, 1) < 0 || dup2(silence, 2) < 0) _exit(kNotStarted);
  close_range(3, ~0u, 0);
  const char *zone = getenv("TZ");
  static char zone_text[256];
  if (zone) snprintf(zone_text, sizeof zone_text, "TZ=%s", zone);
  char name[] = "brisel-phone", command[] = "read-mail";
  char *arguments[] = {name, command, nullptr};
  /* The mail library allocates and frees thousands of small pieces for a message: with the allocator's usual seven of
     each size at hand, a tenth of its instructions are merging pieces and parting them again. */
  char allocator[] = "GLIBC_TUNABLES=glibc.malloc.tcache_count=200";
  char *environment[] = {allocator, zone ? zone_text : nullptr, nullptr};
  execve("/proc/self/exe", arguments, environment);
  _exit(kNotStarted);
}

int start_process(std::string *error) {
  if (process.pid > 0) return 0;
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) < 0) {
    *error = std::string("no reader of mail: ") + strerror(errno);
    return -1;
  }
  pid_t pid = fork();
  if (pid == 0) become_parser(ends[1]);
  close(ends[1]);
  if (pid < 0) {
    *error = std::string("no reader of mail: ") + strerror(errno);
    close(ends[0]);
    return -1;
  }
  timeval look = {kLookMs / 1000, 0};
  setsockopt(ends[0], SOL_SOCKET, SO_RCVTIMEO, &look, sizeof look);
  process.pid = pid;
  process.socket = ends[0];
  return 0;
}

/* Ends the process; returns what waitpid() says of it. */
int end_process() {
  if (process.pid <= 0) return 0;
  close(process.socket);
  kill(process.pid, SIGKILL);
  int status = 0;
  while (waitpid(process.pid, &status, 0) < 0 && errno == EINTR) continue;
  process.pid = -1;
  process.socket = -1;
  process.ahead.clear();
  process.came = process.taken = 0;
  return status;
}

enum exchange_result { EXCHANGE_DONE, EXCHANGE_DIED, EXCHANGE_HUNG };

/* What is left of the time that one question has. */
struct deadline {
  int64_t until = monotonic_seconds() + kWaitingTime;
  int64_t processor_until = 0; /* known when nothing came for a while: most answers are there before */
};

/* Writes what is not written yet of the questions on their way, in their order and as far as the socket takes them. */
bool write_some() {
  constexpr size_t kAtOnce = 64;
  iovec parts[2 * kAtOnce];
  size_t count = 0;
  for (question &q : process.ahead) {
    if (q.is_whole()) continue;
    if (count == std::size(parts)) break;
    const size_t of_head = std::min(q.written, sizeof q.head), of_raw = q.written - of_head;
    parts[count++] = {reinterpret_cast<char *>(&q.head) + of_head, sizeof q.head - of_head};
    parts[count++] = {const_cast<char *>(q.raw.data()) + of_raw, q.raw.size() - of_raw};
  }
  msghdr message = {};
  message.msg_iov = parts;
  message.msg_iovlen = count;
  ssize_t done = sendmsg(process.socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
  if (done < 0) return errno == EAGAIN || errno == EINTR;
  auto left = static_cast<size_t>(done);
  for (question &q : process.ahead) {
    const size_t some = std::min(left, q.size() - q.written);
    q.written += some;
    left -= some;
  }
  return true;
}

/* Waits until something came, writing meanwhile what of the question is not written yet, and takes what is there. */
exchange_result take_some(question *q, deadline *d) {
  process.came = process.taken = 0;
  while (process.came == 0) {
    bool silent = false;
    if (!q->is_whole()) {
      pollfd wait = {process.socket, POLLIN | POLLOUT, 0};
      int ready = poll(&wait, 1, kLookMs);
      if (ready < 0 && errno != EINTR) return EXCHANGE_DIED;
      silent = ready == 0;
      if ((wait.revents & POLLOUT) && !write_some()) return EXCHANGE_DIED;
    }
    /* Of a question that is written the socket waits itself, kLookMs at most. */
    const bool waits = q->is_whole() && !silent;
    ssize_t got = recv(process.socket, process.bytes, sizeof process.bytes, waits ? 0 : MSG_DONTWAIT);
    if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) return EXCHANGE_DIED;
    if (got > 0) process.came = static_cast<size_t>(got);
    /* Also while bytes come: one at a time would last for ever. */
    if (monotonic_seconds() >= d->until) return EXCHANGE_HUNG;
    if (got > 0 || !(silent || waits)) continue;
    if (meanwhile_callback) meanwhile_callback(meanwhile_data);
    const int64_t used = processor_seconds(process.pid);
    if (d->processor_until == 0) d->processor_until = used + kProcessorTime;
    if (used >= d->processor_until) return EXCHANGE_HUNG;
  }
  return EXCHANGE_DONE;
}

exchange_result receive(question *q, deadline *d, char *to, size_t size) {
  while (size > 0) {
    if (process.taken == process.came) {
      exchange_result result = take_some(q, d);
      if (result != EXCHANGE_DONE) return result;
    }
    size_t some = std::min(size, process.came - process.taken);
    memcpy(to, process.bytes + process.taken, some);
    process.taken += some;
    to += some;
    size -= some;
  }
  return EXCHANGE_DONE;
}

/* One question and its answer. `answer` is filled in when it is done. */
exchange_result ask(request_kind kind, std::string_view raw, const mime_limits &limits, answer_head *answer,
                    std::array<std::string, kTexts> *texts) {
  if (process.ahead.empty()) process.ahead.push_back(question_of(kind, raw, limits));
  question *q = &process.ahead.front();
  deadline d;
  if (!process.ahead.back().is_whole() && !write_some()) return EXCHANGE_DIED;
  exchange_result result = receive(q, &d, reinterpret_cast<char *>(answer), sizeof *answer);
  for (size_t i = 0; i < kTexts && result == EXCHANGE_DONE; i++) {
    if (answer->sizes[i] > limits.text + kMaxHeaders) return EXCHANGE_DIED;
    (*texts)[i].resize(answer->sizes[i]);
    result = receive(q, &d, (*texts)[i].data(), answer->sizes[i]);
  }
  if (result != EXCHANGE_DONE) return result;
  process.ahead.pop_front();
  /* What nobody asked for. */
  return process.ahead.empty() && process.taken < process.came ? EXCHANGE_DIED : EXCHANGE_DONE;
}

/* The answer comes from where foreign bytes ruled: it is believed in nothing. */
bool is_clean(const std::string &text) {
  const size_t plain = text_plain_run(text);
  return plain == text.size() ||
         g_utf8_validate(text.data() + plain, static_cast<gssize>(text.size() - plain), nullptr);
}

void tell_holes(int walls) {
  if (process.told || (walls & CAGE_CALLS)) return;
  process.told = true;
  fprintf(stderr,
          "brisel-phone: this kernel offers no filter of system calls (seccomp): mail is read in a process with "
          "bounds, but not in a cage\n");
}

std::string reason_of_death(int status) {
  if (WIFSIGNALED(status)) return std::string("it ends whoever reads it (") + strsignal(WTERMSIG(status)) + ")";
  return "it ends whoever reads it (exit code " + std::to_string(WEXITSTATUS(status)) + ")";
}

parser_result ask_twice(request_kind kind, std::string_view raw, const mime_limits &limits, answer_head *answer,
                        std::array<std::string, kTexts> *texts, std::string *error) {
  /* Out of turn: what was handed over is asked for anew when its turn comes. */
  if (!process.ahead.empty() &&
      (process.ahead.front().head.kind != kind || process.ahead.front().raw.data() != raw.data()))
    end_process();
  /* A process can be killed for reasons that are not the mail's. One that dies of it twice does so again. */
  for (int attempt = 0; attempt < 2; attempt++) {
    if (start_process(error) < 0) return PARSER_LATER;
    /* Where answers come together another one may be to blame. The second time there is none. */
    const size_t waiting = process.ahead.size();
    const bool alone = waiting < 2 || process.ahead.front().head.at_once;
    exchange_result result = ask(kind, raw, limits, answer, texts);
    if (result == EXCHANGE_DONE) {
      tell_holes(answer->walls);
      if (process.careful > 0) process.careful--;
      return PARSER_DONE;
    }
    /* Of one that ended by itself the status is its own, not the signal sent here. */
    int status = end_process();
    process.careful = std::max(process.careful, waiting);
    if (result == EXCHANGE_HUNG && alone) {
      *error = "reading it takes too long";
      return PARSER_SET_ASIDE;
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == kNotStarted) {
      *error = "no reader of mail: the program cannot be started";
      return PARSER_LATER;
    }
    *error = reason_of_death(status);
  }
  return PARSER_SET_ASIDE;
}

/* Puts a message that will be asked for later behind the others, when few enough are on their way. They are written
   together, when an answer is asked for. Returns whether it did. */
bool hand_over(std::string_view raw, const mime_limits &limits) {
  std::string error;
  if (process.ahead.size() >= kParserMostAhead || start_process(&error) < 0) return false;
  process.ahead.push_back(question_of(REQUEST_MAIL, raw, limits));
  return true;
}

/* --- the process that reads --- */

/* What came of the socket and was not asked for yet. */
char ahead[128u << 10];
size_t ahead_at, ahead_end;

bool read_all(void *to, size_t size) {
  auto *at = static_cast<char *>(to);
  while (size > 0) {
    if (ahead_at < ahead_end) {
      size_t some = std::min(size, ahead_end - ahead_at);
      memcpy(at, ahead + ahead_at, some);
      ahead_at += some;
      at += some;
      size -= some;
      continue;
    }
    bool much = size >= sizeof ahead;
    ssize_t got = much ? read(0, at, size) : read(0, ahead, sizeof ahead);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    if (much) {
      at += got;
      size -= static_cast<size_t>(got);
    } else {
      ahead_at = 0;
      ahead_end = static_cast<size_t>(got);
    }
  }
  return true;
}

bool write_all(const void *from, size_t size) {
  const auto *at = static_cast<const char *>(from);
  while (size > 0) {
    ssize_t done = write(0, at, size);
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) return false;
    at += done;
    size -= static_cast<size_t>(done);
  }
  return true;
}

/* Whether the next question is here as a whole: its answer then goes with those before it, as far as they are few. */
bool has_another() {
  request_head head = {};
  const size_t here = ahead_end - ahead_at;
  if (here < sizeof head) return false;
  memcpy(&head, ahead + ahead_at, sizeof head);
  return here - sizeof head >= head.size;
}

}  // namespace

parser_result parser_read(std::string_view raw, const mime_limits &limits, mime_mail *mail, std::string *error) {
  *mail = mime_mail();
  answer_head answer = {};
  std::array<std::string, kTexts> texts;
  parser_result result = ask_twice(REQUEST_MAIL, raw.substr(0, limits.message), limits, &answer, &texts, error);
  if (result != PARSER_DONE) return result;
  if (!std::all_of(texts.begin(), texts.end(), is_clean)) {
    *error = "what was read is no clean text";
    return PARSER_SET_ASIDE;
  }
  std::array<std::string *, kTexts> to = texts_of(mail, error);
  for (size_t i = 0; i < kTexts; i++) *to[i] = std::move(texts[i]);
  mail->date = std::clamp<int64_t>(answer.date, 0, INT32_MAX);
  mail->attachment_count = std::max(answer.attachment_count, 0);
  mail->has_image = answer.has_image != 0;
  mail->seen = answer.seen != 0;
  if (answer.result == 0 && !mail->message_uid.empty()) return PARSER_DONE;
  *error = mime_clean_line(*error, 200);
  return PARSER_NO_MAIL;
}

bool parser_ahead(std::string_view raw, const mime_limits &limits) {
  for (const question &q : process.ahead)
    if (q.raw.data() == raw.data()) return true;
  return hand_over(raw.substr(0, limits.message), limits);
}

void parser_forget() {
  if (!process.ahead.empty()) end_process();
}

std::vector<int64_t> parser_arrivals(const std::vector<std::string_view> &heads) {
  parser_forget();
  std::string ignored;
  if (start_process(&ignored) == 0) {
    for (std::string_view head : heads) process.ahead.push_back(question_of(REQUEST_ARRIVAL, head, mime_limits()));
    write_some();
  }
  std::vector<int64_t> arrivals;
  for (std::string_view head : heads) {
    answer_head answer = {};
    std::array<std::string, kTexts> texts;
    std::string error;
    parser_result result = ask_twice(REQUEST_ARRIVAL, head, mime_limits(), &answer, &texts, &error);
    arrivals.push_back(result == PARSER_DONE ? std::clamp<int64_t>(answer.date, 0, INT32_MAX) : 0);
  }
  return arrivals;
}

void parser_meanwhile(void (*callback)(void *user_data), void *user_data) {
  meanwhile_callback = callback;
  meanwhile_data = user_data;
}

void parser_close() {
  end_process();
}

int parser_serve() {
  signal(SIGPIPE, SIG_IGN);
  mime_init();
  int walls = cage_enter();
  std::string raw, out;
  for (request_head head; read_all(&head, sizeof head);) {
    raw.resize(head.size);
    if (!read_all(raw.data(), raw.size())) break;
    mime_mail mail;
    std::string error;
    answer_head answer = {};
    answer.walls = walls;
    if (head.kind == REQUEST_ARRIVAL) {
      answer.date = mime_arrival(raw);
    } else {
      answer.result = mime_parse(raw, head.limits, &mail, &error);
      answer.date = mail.date;
      answer.attachment_count = mail.attachment_count;
      answer.has_image = mail.has_image;
      answer.seen = mail.seen;
    }
    std::array<std::string *, kTexts> texts = texts_of(&mail, &error);
    for (size_t i = 0; i < kTexts; i++) answer.sizes[i] = texts[i]->size();
    out.append(reinterpret_cast<const char *>(&answer), sizeof answer);
    for (const std::string *text : texts) out += *text;
    if (!head.at_once && out.size() < kTaken && has_another()) continue;
    if (!write_all(out.data(), out.size())) break;
    out.clear();
    if (out.capacity() > (4u << 20)) std::string().swap(out);
    if (raw.capacity() > (4u << 20)) std::string().swap(raw);
  }
  return 0;
}
