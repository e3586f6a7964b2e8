/* The host service on the bus, for whoever calls it or is called: names and errors. What its methods take is
   in service/com.vextora.brisel.Host.xml. Needs no library. */
#ifndef BRISEL_BUS_H
#define BRISEL_BUS_H

#include <string_view>

inline constexpr char host_name[] = "com.vextora.brisel.Host";
inline constexpr char host_path[] = "/com/vextora/brisel/Host";
inline constexpr char watch_interface[] = "com.vextora.brisel.Watch1";
inline constexpr char phone_interface[] = "com.vextora.brisel.Phone1";

/* The application on the bus, and the extra data of a launch request that opens a mail: its id, decimal. */
inline constexpr char application_name[] = "com.vextora.brisel";
inline constexpr char application_path[] = "/com/vextora/brisel";
inline constexpr char application_interface[] = "com.vextora.Application1";
inline constexpr char BRISEL_EVENT_ID_KEY[] = "brisel_id";
inline constexpr char BRISEL_EVENT_ID_JOURNAL[] = "journal"; /* in the place of an id: what waits and was sent */

/* For literals and comparisons of beginnings: every error of the service is this and one of the names below. */
#define HOST_ERROR "com.vextora.brisel.Error."
inline constexpr char host_error_prefix[] = HOST_ERROR;
inline constexpr char host_error_invalid[] = HOST_ERROR "Invalid";  /* an argument breaks a rule; nothing was changed */
inline constexpr char host_error_no_phone[] = HOST_ERROR "NoPhone"; /* no phone is connected */
inline constexpr char host_error_timeout[] = HOST_ERROR "Timeout";  /* the phone did not answer in time */
inline constexpr char host_error_phone[] = HOST_ERROR "Phone";      /* the phone answered with an error */
inline constexpr char host_error_busy[] = HOST_ERROR "Busy";        /* another phone is connected */
inline constexpr char host_error_store[] = HOST_ERROR "Store";      /* the store failed; nothing was changed */
inline constexpr char host_error_full[] = HOST_ERROR "Full";        /* too much waits already; nothing was changed */
inline constexpr char host_error_version[] = HOST_ERROR "Version";  /* one of the two sides must be updated first */

/* Whether an error of the bus says that nobody has the name that was called, and that nobody was started for it. */
inline bool bus_has_nobody(std::string_view error) {
  return error == "org.freedesktop.DBus.Error.ServiceUnknown" || error == "org.freedesktop.DBus.Error.NameHasNoOwner" ||
         error.starts_with("org.freedesktop.DBus.Error.Spawn.");
}

/* --- what came of a request, as the phone tells it (Outcome) --- */

inline constexpr char outcome_sent[] = "sent";
inline constexpr char outcome_waits[] = "waits"; /* at the phone, which tries again by itself */
inline constexpr char outcome_refused[] = "refused";
/* The reason of a refusal that the watch says in the user's language: the mail names nobody who could be answered. */
inline constexpr char outcome_no_address[] = "no-address";

/* --- the pair: a phone and a watch that are two machines, joined by the gate --- */

/* What Introduce exchanges. 1 is a side without Introduce; a side refuses what is below its least. */
inline constexpr unsigned pair_version = 2, pair_version_least = 1;
/* How long an id is, in hexadecimal digits, and a name at most, in bytes. */
inline constexpr unsigned pair_id_size = 32, pair_name_max = 64;
/* Capabilities of the service: AddMails takes "body_zlib" (ay, a zlib stream of the text) in the place of "body";
   there is ListMailIds; who was refused as Busy and stays hears Free; there is AckMails. */
inline constexpr char pair_zlib[] = "zlib", pair_mail_ids[] = "mail_ids", pair_free[] = "free",
                      pair_ack_mails[] = "ack_mails";
/* Of a phone: it tells what came of replies, and knows one that comes again by its uid. */
inline constexpr char pair_outcomes[] = "outcomes";
/* The program that a phone's stream ends at. */
inline constexpr char pair_gate[] = "brisel-gate";
/* The Bluetooth profile that both sides register. */
inline constexpr char pair_profile[] = "6f0a5b1e-8d3c-4c5e-9b21-3a7d40c2e915";

/* How the two know that the link lives, in seconds. The phone pings after so long without a word and waits so long for
   the answer, or for that of a call. The gate ends when it heard nothing, when a request of its was not answered, or
   when the rest of a message does not come. */
inline constexpr unsigned pair_ping_after = 30, pair_ping_answer = 15, pair_call_answer = 15;
inline constexpr unsigned pair_silence = 55, pair_request_answer = 15;
/* What is promised with these: after so many seconds both know of a silent cut, while something is under way and
   otherwise. The margin is for what has to end and to be told then. */
inline constexpr unsigned pair_known_busy = 20, pair_known_idle = 60, pair_margin = 4;
static_assert(pair_call_answer + pair_margin <= pair_known_busy &&
              pair_request_answer + pair_margin <= pair_known_busy &&
              pair_ping_after + pair_ping_answer + pair_margin <= pair_silence &&
              pair_silence + pair_margin <= pair_known_idle);
/* How often work that takes long says a word: a request that comes meanwhile finds it alive. */
inline constexpr unsigned pair_word_every = pair_request_answer / 3;

#endif
