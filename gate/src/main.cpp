/* brisel-gate: joins a paired phone's stream to the host service. */
#include <getopt.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bluetooth.h"
#include "brisel-bus.h"
#include "gate.h"
#include "platform-output.h"

namespace {

constexpr char usage[] =
    "Usage: brisel-gate [OPTION]...\n"
    "Join standard input and output, where a paired phone is, to the watch's host service.\n"
    "The phone can call what a phone may say, and nothing else on this machine. Meant as the\n"
    "only command of an ssh key: restrict,command=\"brisel-gate\" in authorized_keys.\n"
    "\n"
    "      --idle SECONDS    how long nothing may be heard of the phone (default 55)\n"
    "      --answer SECONDS  how long the phone may be silent after a request, or in\n"
    "                        the middle of a message (default 15)\n"
    "      --bluetooth       offer the profile to bonded phones, and join each that comes\n"
    "      --no-timers       the carrier itself tells when the phone is gone\n"
    "      --phone NAME      whose key it is: no phone takes the places of the others\n"
    "  -h, --help            show this help and exit\n"
    "  -V, --version         show the version and exit\n"
    "\n"
    "BRISEL_GATE_IDLE, BRISEL_GATE_ANSWER: the same as the options.\n";

/* Microseconds; false when the text is no number of seconds. */
bool read_seconds(const char *name, const char *text, uint64_t *usec) {
  char *end = nullptr;
  const double seconds = strtod(text, &end);
  if (end == text || *end || !(seconds > 0) || seconds > 86400) {
    fprintf(stderr, "brisel-gate: %s is no number of seconds: %s\n", name, text);
    return false;
  }
  *usec = static_cast<uint64_t>(seconds * 1e6);
  return true;
}

bool read_environment(gate *g) {
  const char *idle = getenv("BRISEL_GATE_IDLE"), *answer = getenv("BRISEL_GATE_ANSWER");
  g->idle_limit = uint64_t{pair_silence} * 1000000;
  g->answer_limit = uint64_t{pair_request_answer} * 1000000;
  return (!idle || read_seconds("BRISEL_GATE_IDLE", idle, &g->idle_limit)) &&
         (!answer || read_seconds("BRISEL_GATE_ANSWER", answer, &g->answer_limit));
}

/* 0 to go on; otherwise *code is the exit code. */
int read_arguments(int argc, char **argv, gate *g, bool *bluetooth, const char **phone, int *code) {
  static const option options[] = {
      {"idle", required_argument, nullptr, 'i'},  {"answer", required_argument, nullptr, 'a'},
      {"bluetooth", no_argument, nullptr, 'b'},   {"no-timers", no_argument, nullptr, 'n'},
      {"phone", required_argument, nullptr, 'p'}, {"help", no_argument, nullptr, 'h'},
      {"version", no_argument, nullptr, 'V'},     {nullptr, 0, nullptr, 0}};
  *code = 2;
  for (int c; (c = getopt_long(argc, argv, "hV", options, nullptr)) != -1;) switch (c) {
      case 'i':
        if (!read_seconds("--idle", optarg, &g->idle_limit)) return 1;
        break;
      case 'a':
        if (!read_seconds("--answer", optarg, &g->answer_limit)) return 1;
        break;
      case 'b':
        *bluetooth = true;
        break;
      case 'n':
        g->idle_limit = g->answer_limit = 0;
        break;
      case 'p':
        *phone = optarg;
        break;
      case 'h':
        fputs(usage, stdout);
        *code = platform_output_end("brisel-gate", EXIT_SUCCESS);
        return 1;
      case 'V':
        puts("brisel-gate " BRISEL_VERSION);
        *code = platform_output_end("brisel-gate", EXIT_SUCCESS);
        return 1;
      default:
        return 1;
    }
  if (optind == argc) return 0;
  fprintf(stderr, "brisel-gate: unexpected argument %s\n", argv[optind]);
  return 1;
}

/* Whose gate it is, for a share of the places: what its key says; for a key from before it did, where it comes from. */
std::string phone_of(const char *given) {
  const std::string from = getenv("SSH_CONNECTION") ? getenv("SSH_CONNECTION") : "";
  return given ? given : from.substr(0, from.find(' '));
}

/* A login that came over the network may not say where the user's session is. */
void find_session(void) {
  if (getenv("DBUS_SESSION_BUS_ADDRESS") || getenv("XDG_RUNTIME_DIR")) return;
  const std::string folder = "/run/user/" + std::to_string(getuid());
  struct stat is = {};
  if (stat(folder.c_str(), &is) == 0 && is.st_uid == getuid()) setenv("XDG_RUNTIME_DIR", folder.c_str(), 1);
}

}  // namespace

int main(int argc, char **argv) {
  static gate g;
  int code = EXIT_SUCCESS;
  argv[0] = program_invocation_short_name; /* what lines about options begin with */
  if (!read_environment(&g)) return 2;
  bool bluetooth = false;
  const char *phone = nullptr;
  if (read_arguments(argc, argv, &g, &bluetooth, &phone, &code)) return code;
  if (bluetooth) {
    find_session();
    return bluetooth_run();
  }
  if (isatty(STDIN_FILENO)) {
    fprintf(stderr, "brisel-gate: there is a terminal where a paired phone should be; see brisel-gate(1)\n");
    return 2;
  }
  find_session();
  if (!place_take(phone_of(phone).c_str())) return 1;
  /* Large messages give their memory back when they are gone. */
  mallopt(M_MMAP_THRESHOLD, 128 << 10);
  code = gate_run(&g, STDIN_FILENO, STDOUT_FILENO);
  /* At once, whatever waits: nothing of the gate's is to be put away. */
  _exit(code);
}
