/* The host service on the bus, for whoever calls it or is called: names and errors. What its methods take is
   in service/com.vextora.brisel.Host.xml. Needs no library. */
#ifndef BRISEL_BUS_H
#define BRISEL_BUS_H

inline constexpr char host_name[] = "com.vextora.brisel.Host";
inline constexpr char host_path[] = "/com/vextora/brisel/Host";
inline constexpr char watch_interface[] = "com.vextora.brisel.Watch1";
inline constexpr char phone_interface[] = "com.vextora.brisel.Phone1";

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

#endif
