/* What it costs to read mail in a process of its own: the same messages, in turn in this process and through the
   other one, by the clock and of the processor. usage: bench-parser [DIR] (a folder of messages; without: made ones) */
#include <dirent.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "../phone/mime.h"
#include "figure.h"
#include "parser.h"

namespace {

constexpr int kRounds = 15, kMails = 2000;

/* As mailboxes hold them: two forms of the text, a few kilobytes each, some with an attachment. */
std::string made(int n) {
  std::string words, page;
  for (int i = 0; i < 40 * (2 + n % 10); i++) {
    words += "harbour wind boat lamp table ";
    page += i % 8 == 0 ? "<p>harbour wind boat lamp table " : "bread river stone ";
    if (i % 3 == 2) words += "\n";
  }
  std::string mail = "From: Ann <a" + std::to_string(n) + "@example.org>\nSubject: Mail " + std::to_string(n) +
                     "\nDate: Thu, 1 Jan 2026 10:00:00 +0100\nMessage-ID: <m" + std::to_string(n) +
                     "@x>\nContent-Type: multipart/mixed; boundary=m\n\n--m\nContent-Type: multipart/alternative; "
                     "boundary=a\n\n--a\nContent-Type: text/plain; charset=utf-8\n\n" +
                     words + "\n--a\nContent-Type: text/html; charset=utf-8\n\n" + page + "\n--a--\n";
  if (n % 5 == 0) {
    mail += "--m\nContent-Type: application/pdf\nContent-Transfer-Encoding: base64\n\n";
    for (int i = 0; i < 100; i++) mail += std::string(76, 'Q') + "\n";
  }
  return mail + "--m--\n";
}

std::vector<std::string> mails_of(const char *folder) {
  std::vector<std::string> mails;
  DIR *dir = opendir(folder);
  while (dirent *entry = dir ? readdir(dir) : nullptr) {
    std::ifstream in(std::string(folder) + "/" + entry->d_name, std::ios::binary);
    if (entry->d_name[0] != '.')
      mails.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  if (dir) closedir(dir);
  return mails;
}

struct cost {
  std::vector<double> wall, processor; /* microseconds per message */
};

double processor_now(int who) {
  rusage used = {};
  getrusage(who, &used);
  return static_cast<double>(used.ru_utime.tv_sec + used.ru_stime.tv_sec) * 1e6 +
         static_cast<double>(used.ru_utime.tv_usec + used.ru_stime.tv_usec);
}

/* One pass. The other process is ended behind it, so that what it used is known. */
template <typename F>
void pass(const std::vector<std::string> &mails, cost *c, F read) {
  const auto start = std::chrono::steady_clock::now();
  const double used = processor_now(RUSAGE_SELF) + processor_now(RUSAGE_CHILDREN);
  for (size_t i = 0; i < mails.size(); i++) read(mails[i], i + 1 < mails.size() ? mails[i + 1] : mails[i]);
  const std::chrono::duration<double, std::micro> took = std::chrono::steady_clock::now() - start;
  parser_close();
  const auto count = static_cast<double>(mails.size());
  c->wall.push_back(took.count() / count);
  c->processor.push_back((processor_now(RUSAGE_SELF) + processor_now(RUSAGE_CHILDREN) - used) / count);
}

}  // namespace

int main(int argc, char **argv) {
  if (argc > 1 && strcmp(argv[1], "read-mail") == 0) return parser_serve();
  mime_init();
  std::vector<std::string> mails;
  if (argc > 1) mails = mails_of(argv[1]);
  for (int n = 0; argc == 1 && n < kMails; n++) mails.push_back(made(n));
  if (mails.empty()) return 2;
  const mime_limits limits;
  mime_mail mail;
  std::string error;
  size_t here = 0, there = 0, handed = 0;
  cost child, ahead, alone;
  for (int round = 0; round < kRounds; round++) {
    pass(mails, &alone,
         [&](const std::string &raw, const std::string &) { here += mime_parse(raw, limits, &mail, &error) == 0; });
    pass(mails, &child, [&](const std::string &raw, const std::string &) {
      there += parser_read(raw, limits, &mail, &error) == PARSER_DONE;
    });
    pass(mails, &ahead, [&](const std::string &raw, const std::string &next) {
      if (&raw == &mails.front()) parser_ahead(raw, limits);
      if (&next != &raw) parser_ahead(next, limits);
      handed += parser_read(raw, limits, &mail, &error) == PARSER_DONE;
    });
  }
  figure("a message read in a process of its own", "us", child.wall, alone.wall, "read in the same process");
  figure("a message read in a process of its own, processor", "us", child.processor, alone.processor,
         "read in the same process");
  figure("a message read there, handed over ahead", "us", ahead.wall, alone.wall, "read in the same process");
  figure("a message read there, handed over ahead, processor", "us", ahead.processor, alone.processor,
         "read in the same process");
  return here > 0 && here == there && here == handed ? 0 : 1;
}
