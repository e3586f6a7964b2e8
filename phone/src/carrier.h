/*
 * The ways to a watch: an address says which, and each is one stream of bytes that a program of its own carries.
 *
 *   session:                      the host service on this machine's session bus; no stream
 *   ssh://[user@]host[:port]      the OpenSSH client, which starts the gate at the other end
 *   bluetooth:AA:BB:CC:DD:EE:FF   this program's own carry-bluetooth (carrier-bluetooth.cpp), by way of BlueZ
 *   exec:COMMAND                  any other: its standard input and output are the stream
 *
 * A program of its own can be ended at any moment, whatever it waits for, and opens nothing into this process.
 * Thread: any, one at a time for each carrier.
 */
#ifndef BRISEL_PHONE_CARRIER_H
#define BRISEL_PHONE_CARRIER_H

#include <sys/socket.h>
#include <sys/types.h>

#include <string>

enum class carrier_kind { session, ssh, bluetooth, exec };

struct carrier_address {
  carrier_kind kind = carrier_kind::session;
  std::string target; /* ssh: [user@]host; bluetooth: the device's address; exec: the command */
  int port = 0;       /* ssh: 0 is what ssh's own configuration says */
  std::string text() const;
};

/* Reads an address. Returns 0, or -1 with a one-line reason. */
int carrier_parse(const std::string &text, carrier_address *address, std::string *error);
bool carrier_is_address(const std::string &text);

/* What the phone keeps of a paired watch for the way to it. Empty: the user's own ssh decides. */
struct carrier_keys {
  std::string key, known_hosts; /* files */
};

/* A stream that is open, or about to be: what is written waits until there is a way. */
struct carrier {
  int fd = -1;   /* the stream's end here; not blocking */
  pid_t pid = 0; /* the program that carries it */
  int said = -1; /* what the program said on its standard error */
  carrier_kind kind = carrier_kind::session;

  carrier() = default;
  ~carrier();
  carrier(carrier &&other) noexcept;
  carrier &operator=(carrier &&other) noexcept;
  carrier(const carrier &) = delete;
  carrier &operator=(const carrier &) = delete;
};

/* Starts the program and returns at once. Not for session. Returns 0, or -1 with a reason. */
int carrier_open(const carrier_address &address, const carrier_keys &keys, carrier *way, std::string *error);
/* Ends the program; what is not on its way is lost. The stream ends here: who reads it is told so. */
void carrier_hang_up(carrier *way);
/* Why a stream ended, in words for people; empty when its program did not say. */
std::string carrier_reason(const carrier &way);
/* Whether its program waits for the first answer of a machine, as far as can be seen of it from here; then *to is that
   machine's address and port. */
bool carrier_knocks(const carrier &way, sockaddr_storage *to);
/* Whether the other end was reached, as far as the program said: then its reason is the watch's. */
bool carrier_was_answered(const carrier &way);
/* Whether the stream's text is made small on its way; else its user does it. */
bool carrier_compresses(const carrier &way);

/* --- carrier-bluetooth.cpp --- */

/* The program behind a Bluetooth address: joins the watch's serial profile to standard input and output. Returns the
   exit code; a line on standard error says what failed. */
int carrier_serve_bluetooth(const std::string &device);

#endif
