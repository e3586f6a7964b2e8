/* libFuzzer target: whatever a server says, each step over it ends, and what is made of a message is one whose every
   part begins a line. The bytes are all the server's answers, on one end of a pair of sockets; the IMAP library itself
   is the installed one, so that only its faults of memory are seen, not its branches. */
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "../src/post-etpan.h"
#include "../src/post-imap.h"
#include "../src/post-stream.h"

namespace {

/* More would not fit between the sockets, and be waited for. */
constexpr size_t kMost = 96u << 10;

void steps(mailimap *session, post_auth auth) {
  std::string error, folder;
  imap_folder opened;
  std::vector<imap_message> messages, changed;
  std::vector<std::pair<uint32_t, uint32_t>> gone;
  post_account account;
  post_server server;
  account.user = "me";
  account.auth = auth;
  if (imap_begin(session, account, server, "sesame", &error) < 0) return;
  if (imap_special_folder(session, "Sent", &folder, &error) < 0) return;
  if (imap_select(session, "INBOX", &opened, &error) < 0) return;
  if (imap_list_newest(session, 200, &messages, &error) < 0) return;
  if (messages.size() > 200) abort();
  if (imap_list_changes(session, 1, 1, &changed, &gone, &error) < 0) return;
  for (bool whole : {false, true}) {
    std::vector<imap_mail> mails;
    for (const imap_message &message : messages) mails.push_back({message.uid});
    mails.push_back({1});
    if (imap_fetch(session, whole, &mails, &error) < 0) return;
  }
  uint32_t uid = 0;
  if (imap_find(session, "<a@b>", &uid, &error) < 0) return;
  if (imap_remove(session, 1, "Trash", &error) < 0) return;
  imap_wait(session, -1, 0, &error);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  signal(SIGPIPE, SIG_IGN);
  if (!etpan_load()) abort();
  stream_bound(0); /* the fuzzer's own clock runs */
  int ends[2];
  if (size > kMost || socketpair(AF_UNIX, SOCK_STREAM, 0, ends) < 0) return 0;
  if (write(ends[1], data, size) != static_cast<ssize_t>(size)) abort();
  shutdown(ends[1], SHUT_WR);
  imap_session session(etpan->mailimap_new(0, nullptr));
  mailstream *stream = mailstream_socket_open_timeout(ends[0], 5);
  stream_guard(etpan->mailstream_get_low(stream));
  int greeted = etpan->mailimap_connect(session.get(), stream);
  if (greeted == MAILIMAP_NO_ERROR_AUTHENTICATED || greeted == MAILIMAP_NO_ERROR_NON_AUTHENTICATED)
    steps(session.get(), size % 2 == 0 ? post_auth::password : post_auth::oauthbearer);
  session.reset();
  close(ends[1]);
  return 0;
}
