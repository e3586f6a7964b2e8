/* The link from inside: only link-*.cpp may include it. */
#ifndef BRISEL_PHONE_LINK_PARTS_H
#define BRISEL_PHONE_LINK_PARTS_H

#include <deque>
#include <list>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "link.h"
#include "watch.h"

/* Microseconds. How long a link that is down waits before it is tried again, growing from the one to the other. */
inline constexpr uint64_t kUsecPerSecond = 1000000;
inline constexpr uint64_t kShortestDelay = kUsecPerSecond / 4, kLongestDelay = 30 * kUsecPerSecond;

/* A request as it came, until there is time for it: the bus may bring one while an answer is waited for. */
struct waiting_request {
  int64_t id = 0, have = 0;
  std::string line, peer;
  std::string uid;     /* by which the watch knows the request when it is told what came of it; empty: it asks not */
  bool urgent = false; /* somebody looks at the watch and waits */
};

/* Where a stream is; the session bus is always `open`. */
enum class link_stage {
  down,    /* there is none; the timer `retry` makes the next one */
  opening, /* started, and the first words are on their way */
  refused, /* another phone is linked; this one stays and hears when that has left */
  open
};

/* A question for more of a mail whose answer has to come from a server first. */
struct waiting_more {
  phone_link *link = nullptr;
  waiting_request request;
  nlohmann::json json;
  std::string source;
  sd_event_source *changed = nullptr, *timeout = nullptr;
  waiting_more() = default;
  ~waiting_more();
  waiting_more(const waiting_more &) = delete;
  waiting_more &operator=(const waiting_more &) = delete;
};

/* Another command of this phone that uses the link. */
struct borrower {
  phone_link *link = nullptr;
  sd_bus *bus = nullptr;
  bool left = false;
  std::vector<sd_bus_message *> waiting; /* calls that came while there was no link */
  borrower() = default;
  ~borrower();
  borrower(const borrower &) = delete;
  borrower &operator=(const borrower &) = delete;
};

/* A connection that is asked for only to hear whether the machine answers. */
struct knock {
  int fd = -1;
  sd_event_source *source = nullptr;
};

struct phone_link {
  watch_target target;
  phone_identity me;
  phone_state *state = nullptr;
  const link_handlers *handlers = nullptr;
  void *user_data = nullptr;
  host_bus_holder bus;
  sd_event *event = nullptr;
  int stop_fd = -1; /* written to by SIGTERM and SIGINT */
  sd_event_source *retry = nullptr, *take = nullptr, *resend = nullptr;
  std::deque<waiting_request> requests;
  size_t requests_bytes = 0; /* of their texts */
  bool left_out = false;     /* one did not fit: it is still to be asked for again */
  bool told_full = false;
  bool told_not_ours = false; /* they come with every connection */
  std::list<waiting_more> more;
  bool connected = false;
  std::string owner; /* the service process that is connected */
  uint64_t connected_at = 0;
  int lock_fd = -1;
  std::string trouble;   /* why there is no link, as it was told */
  int64_t last_seen = 0; /* the watch, in seconds since the epoch */
  /* A stream's own. */
  link_stage stage = link_stage::down;
  sd_bus_slot *call = nullptr;    /* of the first words: Introduce, then Connect */
  sd_bus_slot *connect = nullptr; /* Connect, where it went at once */
  bool fits = false;              /* it is known that the two versions work together */
  sd_event_source *knocking = nullptr;
  knock knocks[4]; /* the last ones: the way there and back may take a second */
  unsigned knocks_made = 0;
  sd_event_source *ping = nullptr, *drop = nullptr, *network = nullptr;
  uint64_t lost_at = 0;    /* since when there was none, of CLOCK_BOOTTIME */
  uint64_t opened_at = 0;  /* when the last try began */
  uint64_t took = 0;       /* what opening it took last, over this network; 0: it is not known */
  unsigned unanswered = 0; /* tries since then that were given up */
  uint64_t asked_at = 0;   /* when life was asked for; 0: nothing is waited for */
  uint64_t answer_due = 0; /* until when */
  uint64_t kept_alive_at = 0;
  uint64_t looked_at = 0; /* whether something came while the loop's thread worked, of CLOCK_MONOTONIC */
  int network_fd = -1;
  std::list<borrower> borrowers;
  sd_event_source *share = nullptr, *share_drop = nullptr;
  int share_fd = -1;
  std::map<int, unsigned> interfaces; /* of the network: which were up */
  std::set<std::string> silent;       /* addresses of neighbours that do not answer */
  uint64_t delay = 0;                 /* before the next try, in microseconds */
  uint64_t resend_delay = 0;          /* before requests that could not be kept are asked for again */
  uint64_t rest_delay = 0;            /* ... and those that did not fit */
  std::string failure;
  bool failed = false;
  bool told = false; /* that requests cannot be acknowledged; they come again with the next connection */
};

/* --- link-requests.cpp --- */

/* Makes the sources that requests need. Returns 0, or an errno below 0. */
int requests_start(phone_link *link);
int request_cb(sd_bus_message *m, void *user_data, sd_bus_error *error);
/* Hears what has come, and sends what waits for that; every request keeps its turn. */
void requests_hear(phone_link *link);
/* Answers what has come and is urgent; everything else keeps its turn. */
void requests_take_urgent(phone_link *link);
/* The connection is another one: what came over the old one is sent again. */
void requests_forget(phone_link *link);

/* --- link-session.cpp: the service on the session bus --- */

int session_start(phone_link *link, std::string *error);

/* --- link-stream.cpp: a watch that is another machine --- */

int stream_start(phone_link *link, std::string *error);
/* The network changed. `gone`: something that was there is not any more. */
void stream_network_changed(phone_link *link, bool gone);
/* A machine of the same network that did not answer does. It may be the watch. */
void stream_neighbour_came(phone_link *link);
/* Says a word when there was none for a while: for work that keeps the loop from it. */
void stream_keep_alive(phone_link *link);
/* The watch's machine answers, and the try that is under way does not know. */
void stream_way_is_open(phone_link *link);
/* Frees what a stream holds. */
void stream_end(phone_link *link);

/* --- link-knock.cpp: asks the watch's machine while a try waits for it --- */

void knock_start(phone_link *link);
void knock_end(phone_link *link);

/* --- link-share.cpp: lends the link to other commands of this phone --- */

/* Where the way to the watch is there only once. Without it nothing else fails. */
void share_start(phone_link *link);
/* The link is there: calls that waited for it go on. */
void share_linked(phone_link *link);
/* Serves who has come, for work that keeps the loop from it. */
void share_serve(phone_link *link);
void share_end(phone_link *link);

/* --- link-network.cpp: hears of changes of the network --- */

/* Without it nothing fails: a link is then found again a little later. */
void network_follow(phone_link *link);
/* Whether a machine of the same network that comes back is told of too: only while the watch is looked for, as the
   kernel says much of neighbours. */
void network_watch_neighbours(phone_link *link, bool on);

/* --- link-connection.cpp --- */

/* The watch is there: what waited comes now. */
void link_is_up(phone_link *link);
/* ... and it is not, or not any more, for this reason; empty: one that is no trouble. It is told once. What came over
   this connection and was not taken yet comes again with the next one. */
void link_is_down(phone_link *link, const std::string &why);
/* Hears the service over the link's connection, in its loop: requests, and the two ends of a link. Returns 0, or an
   errno below 0. */
int link_follow(phone_link *link, sd_bus_message_handler_t replaced_cb, sd_bus_message_handler_t ended_cb);
inline constexpr char link_replaced[] = "another machine that says it is this phone took over the link";

/* Sets the timer `source`, which it makes when it is not there yet, to `delay` microseconds from now. The callback gets
   `user_data`, or the link. */
void link_timer(phone_link *link, sd_event_source **source, uint64_t delay, sd_event_time_handler_t callback,
                void *user_data = nullptr);

#endif
