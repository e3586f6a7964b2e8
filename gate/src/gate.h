/* The gate's parts around one stream: its bytes, the phone at one end and the host service at the other. One thread,
   one loop (join.cpp); nothing in it waits. */
#ifndef BRISEL_GATE_H
#define BRISEL_GATE_H

#include <systemd/sd-bus.h>

#include <cstddef>
#include <cstdint>

/* --- stream.cpp: bytes ---
   The phone's bytes are counted and measured before sd-bus sees them: it would make room for whatever size a message
   claims to have. Between this end and sd-bus lies a socket pair, so no file descriptor can come along either. */

constexpr size_t message_max = 8u << 20; /* bytes of a message from the phone: the largest body, and others beside it */
constexpr size_t chunk = 64u << 10;

enum class stream_at { greeting, greeted, header, message };

/* Bytes on their way through, never more than a chunk. */
struct passage {
  unsigned char bytes[chunk];
  size_t start = 0, end = 0;
};

struct stream {
  int in, out; /* the phone's; may be one */
  int inner;   /* sd-bus is behind it; -1 while it is not there yet */

  passage coming, going;
  stream_at at = stream_at::greeting;
  size_t greeting_size = 0;
  size_t allowed = 0;      /* of `coming`: bytes that may go on to sd-bus */
  size_t message_left = 0; /* bytes of the message under way that have not been allowed yet */
  /* What the phone may still use up; both grow with time, up to a bound. */
  double messages, bytes;
  uint64_t refilled;            /* microseconds */
  uint64_t wait_until;          /* 0, or when there is enough again */
  uint64_t heard;               /* when the phone's last bytes came */
  uint64_t sent = 0;            /* bytes sent since then */
  const char *breach = nullptr; /* set: what the phone did wrong; nothing more is taken from it */
};

void stream_begin(stream *s, int in, int out, uint64_t now);
/* Whether bytes are to be waited for at the phone's end. */
bool stream_takes(const stream *s);
/* Reads, checks and passes on what it can, without waiting. open: another message may be begun. begun: sd-bus has taken
   the greeting for complete. 1 moved something, 0 not, -1 the phone has left. */
int stream_come(stream *s, bool open, bool begun, uint64_t now);
/* The same for the way out. */
int stream_go(stream *s);
/* A message has begun, and all that could be passed on is; the rest is waited for. */
bool stream_breaks_off(const stream *s);
/* Nothing lies between sd-bus and the phone any more. */
bool stream_sent_all(const stream *s);

/* --- the gate --- */

constexpr unsigned calls_max = 8; /* of the phone that the service has not answered */
constexpr uint64_t queue_max = 8; /* messages that wait for the phone to take them */

struct gate;

/* A call of the phone that the service has not answered. */
struct pending_call {
  gate *g = nullptr;
  sd_bus_message *call = nullptr;
  sd_bus_slot *slot = nullptr;
};

struct gate {
  stream *bytes = nullptr;
  sd_bus *phone = nullptr; /* NULL until the service is found */
  sd_bus *host = nullptr;  /* the session bus */
  char service[256] = "";  /* the host service's own name there */
  pending_call calls[calls_max];
  unsigned calls_count = 0;

  uint64_t idle_limit, answer_limit; /* microseconds; 0: none */
  uint64_t asked = 0;                /* when the first request went out that nothing was heard after; 0: none */

  bool ends = false;         /* no more is taken from anybody; what waits for the phone may still go, for a moment */
  uint64_t ends_by = 0;      /* the end of that moment */
  const char *why = nullptr; /* for people, when it is no usual end */
};

/* microseconds of a clock that nobody sets */
uint64_t gate_now(void);
/* Ends the gate after what waits for the phone is sent, or after a moment. why: for people, or NULL. */
void gate_end(gate *g, const char *why);

/* phone-end.cpp: sd-bus as the phone's other end, on fd. 0, or below 0 an errno. */
int phone_start(gate *g, int fd);
/* Passes a signal of the service on. */
int phone_tell(gate *g, sd_bus_message *signal);

/* host-end.cpp: finds the service; found() is called once it is known. */
int host_start(gate *g, void (*found)(gate *g));
/* Asks the service on the phone's behalf. Answers `call`, now or later. 0, or below 0 an errno. */
int host_ask(gate *g, sd_bus_message *call);

/* places.cpp: a place among those that there are at once, perhaps in the stead of another gate of whoever has most.
   phone: whose gate it is. false, with a word to people: there is none. */
bool place_take(const char *phone);

/* join.cpp: runs until one side leaves, a signal says so, or the phone is not heard any more. The exit code. */
int gate_run(gate *g, int in, int out);

#endif
