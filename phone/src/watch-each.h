/* One process for each of several paired watches: a link that is stuck keeps no other waiting, and what ends one of
   them ends nothing else. */
#ifndef BRISEL_PHONE_WATCH_EACH_H
#define BRISEL_PHONE_WATCH_EACH_H

#include <systemd/sd-event.h>

#include <functional>
#include <string>
#include <vector>

/* Runs this program once for each name, with the arguments it was started with and "--watch NAME", and again when it
   ends, until SIGTERM or SIGINT. `also` (may be empty) adds what else is to run in the loop. Returns the exit code. */
int watch_run_each(const std::vector<std::string> &names, const std::vector<std::string> &arguments,
                   const std::function<void(sd_event *)> &also);

#endif
