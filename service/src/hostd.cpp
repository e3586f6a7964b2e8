/* brisel-hostd: keeps the watch's mails, and stands between the application and the phone. */
#include <getopt.h>
#include <sys/epoll.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host.h"
#include "notify.h"
#include "platform-language.h"
#include "platform-output.h"
#include "platform-paths.h"
#include "platform-stop.h"
#include "store-format.h"

namespace {

constexpr char usage[] =
    "Usage: brisel-hostd [OPTION]\n"
    "Keep the watch's mails: the only writer of the store, between the application and the phone.\n"
    "Started by the session bus when someone needs it, or by hand.\n"
    "\n"
    "  -h, --help     show this help and exit\n"
    "  -V, --version  show the version and exit\n"
    "\n"
    "The store is $XDG_DATA_HOME/brisel/store.db.\n"
    "BRISEL_MORE_TIMEOUT: seconds that the phone has to send more of a mail (default 15).\n";

int fail(const char *what, int r) {
  fprintf(stderr, "brisel-hostd: %s: %s\n", what, strerror(-r));
  return EXIT_FAILURE;
}

/* 0 to go on; otherwise *code is the exit code. */
int read_arguments(int argc, char **argv, int *code) {
  static const option options[] = {
      {"help", no_argument, nullptr, 'h'},
      {"version", no_argument, nullptr, 'V'},
      {"await-end", required_argument, nullptr, 'a'}, /* for the service alone, see notify-keeper.cpp */
      {nullptr, 0, nullptr, 0}};
  const int c = getopt_long(argc, argv, "hV", options, nullptr);
  *code = EXIT_SUCCESS;
  if (c == 'h') {
    fputs(usage, stdout);
    *code = platform_output_end("brisel-hostd", EXIT_SUCCESS);
    return 1;
  }
  if (c == 'V') {
    puts("brisel-hostd " BRISEL_VERSION);
    *code = platform_output_end("brisel-hostd", EXIT_SUCCESS);
    return 1;
  }
  if (c == 'a') {
    *code = notify_keeper_run(static_cast<pid_t>(atol(optarg)));
    return 1;
  }
  if (c == -1 && optind == argc) return 0;
  if (c == -1) fprintf(stderr, "brisel-hostd: unexpected argument %s\n", argv[optind]);
  *code = 2;
  return 1;
}

bool read_timeout(host *h) {
  const char *text = getenv("BRISEL_MORE_TIMEOUT");
  if (!text) return true;
  char *end = nullptr;
  const double seconds = strtod(text, &end);
  if (end == text || *end || !(seconds > 0) || seconds > 86400) {
    fprintf(stderr, "brisel-hostd: BRISEL_MORE_TIMEOUT is no number of seconds: %s\n", text);
    return false;
  }
  h->more_timeout_usec = static_cast<uint64_t>(seconds * 1e6);
  return true;
}

int stopped_cb(sd_event_source *source, int fd, uint32_t revents, void *data) {
  return sd_event_exit(static_cast<host *>(data)->event, 0);
}

int serve(host *h) {
  int r = sd_event_default(&h->event);
  if (r < 0) return fail("no event loop", r);
  const int stop = platform_stop_open();
  r = stop < 0 ? -errno : sd_event_add_io(h->event, nullptr, stop, EPOLLIN, stopped_cb, h);
  if (r < 0) return fail("signals", r);

  r = sd_bus_open_user(&h->bus);
  if (r < 0) return fail("no session bus", r);
  r = sd_bus_set_exit_on_disconnect(h->bus, 1);
  if (r >= 0) r = sd_bus_add_object_vtable(h->bus, nullptr, host_path, watch_interface, watch_vtable, h);
  if (r >= 0) r = sd_bus_add_object_vtable(h->bus, nullptr, host_path, phone_interface, phone_vtable, h);
  if (r >= 0) r = sd_bus_attach_event(h->bus, h->event, SD_EVENT_PRIORITY_NORMAL);
  if (r < 0) return fail("the session bus", r);

  r = host_follow_file(h, platform_data_dir());
  if (r < 0) return fail("the store's folder", r);

  /* The setting about the link is put right before anyone can ask for the service. */
  link_reset(h);
  r = sd_bus_request_name(h->bus, host_name, 0);
  if (r == -EEXIST) {
    fprintf(stderr, "brisel-hostd: another one is running on this bus\n");
    return EXIT_FAILURE;
  }
  if (r < 0)
    return fail(
        "the name "
        "com.vextora.brisel.Host",
        r);
  /* Clients that were there before learn what an earlier service could not tell them any more. */
  host_announce(h);
  notify_start(h);

  const int code = sd_event_loop(h->event);
  /* No service, no link: the phone connects again to the next one. */
  link_disconnect(h);
  mails_drop(h);
  sd_event_source_disable_unref(h->acknowledged_turn);
  sd_event_source_disable_unref(h->folder_watch);
  sd_event_source_disable_unref(h->file_retry);
  notify_stop(h);
  if (code < 0) return fail("the event loop", code);
  return code;
}

}  // namespace

int main(int argc, char **argv) {
  int code = EXIT_SUCCESS;
  argv[0] = program_invocation_short_name; /* what lines about options begin with */
  if (read_arguments(argc, argv, &code)) return code;
  platform_language_start();
  umask(077); /* mails are for their owner only */
  host h;
  if (!read_timeout(&h)) return 2;
  const char *dir = platform_data_dir();
  if (!dir) {
    fprintf(stderr, "brisel-hostd: the data folder cannot be made: %s\n", strerror(errno));
    return EXIT_FAILURE;
  }
  std::string why;
  h.st = store_open(std::string(dir) + "/" + store_file, &why);
  if (!h.st) {
    fprintf(stderr, "brisel-hostd: %s\n", why.c_str());
    return EXIT_FAILURE;
  }
  if (const int r = pair_start(&h); r < 0) {
    fprintf(stderr, "brisel-hostd: the watch's own id cannot be kept: %s\n", strerror(-r));
    store_close(h.st);
    return EXIT_FAILURE;
  }
  code = serve(&h);
  /* The store first: whoever gets the name next must find it free. */
  store_close(h.st);
  sd_bus_flush_close_unref(h.bus);
  sd_event_unref(h.event);
  return code;
}
