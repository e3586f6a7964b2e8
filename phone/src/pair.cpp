#include "pair.h"

#include <unistd.h>

#include <cstdio>
#include <nlohmann/json.hpp>

#include "link.h"
#include "state-relay.h"
#include "state-replies.h"
#include "watch.h"

namespace {

using json = nlohmann::ordered_json;

int complain(const std::string &error) {
  link_log(error);
  return 1;
}

/* "watch.example.org" is called watch; what is no name at all has to be given one. */
std::string name_from(const carrier_address &address) {
  if (address.kind != carrier_kind::ssh) return "watch";
  std::string host = address.target.substr(address.target.rfind('@') + 1);
  bool number = host.find_first_not_of("0123456789.:") == std::string::npos;
  return number ? "watch" : host.substr(0, host.find('.'));
}

int choose_name(const carrier_address &address, std::string *name, std::string *error) {
  std::vector<paired_watch> watches;
  if (pair_list(&watches, error) < 0) return -1;
  for (const paired_watch &watch : watches)
    if (name->empty() && watch.address.text() == address.text()) *name = watch.name; /* once more */
  if (name->empty()) *name = name_from(address);
  if (!pair_name_is_good(*name)) {
    *error = "'" + *name + "' is no name for a watch: letters, digits, '.', '_' and '-' (--name)";
    return -1;
  }
  for (const paired_watch &watch : watches)
    if (watch.name == *name && watch.address.text() != address.text()) {
      *error = *name + " is the name of another watch, " + watch.address.text() + ": give this one another (--name)";
      return -1;
    }
  return 0;
}

/* What stands in the folder of a watch before it is paired is taken away again. */
struct unfinished {
  std::string name;
  bool kept = false;
  ~unfinished() {
    std::string ignored;
    if (!kept) pair_forget(name, &ignored);
  }
};

/* Goes the whole way once, with nothing but what was made for this watch. */
int check_way(const paired_watch &watch, watch_identity *who, std::string *error) {
  phone_identity me;
  if (phone_identity_load(&me, error) < 0) return -1;
  host_bus_holder bus = watch_stream(watch.address, watch.keys, error);
  if (!bus || host_introduce(bus.get(), me, error) != HOST_OK) return -1;
  *who = bus->watch;
  return 0;
}

struct counted {
  link_report link;
  int64_t mails = 0, replies = 0; /* that wait */
};

int count(const paired_watch &watch, counted *out, std::string *error) {
  if (watch_choose(watch.name, error) < 0) return -1;
  phone_state_holder state(phone_state_open(error));
  if (!state) return -1;
  out->link = link_report_read(state.get());
  std::vector<reply_entry> replies;
  if (relay_count_waiting(state.get(), &out->mails) < 0 || reply_list(state.get(), &replies) < 0) {
    *error = phone_state_error(state.get());
    return -1;
  }
  for (const reply_entry &entry : replies) out->replies += entry.state != reply_state::sent;
  return 0;
}

std::string waiting_text(const counted &what) {
  std::string text;
  if (what.mails > 0) text += "; mails on their way: " + std::to_string(what.mails);
  if (what.replies > 0) text += "; replies that wait: " + std::to_string(what.replies);
  return text;
}

}  // namespace

int command_pair(const std::string &text, const std::string &given_name) {
  std::string error, name = given_name;
  carrier_address address;
  watch_identity who;
  if (carrier_parse(text, &address, &error) < 0) return complain(error);
  if (address.kind == carrier_kind::session) return complain("the watch on this machine needs no pairing");
  if (choose_name(address, &name, &error) < 0) return complain(error);
  paired_watch watch = pair_record(name, address), before;
  phone_state_use(pair_folder(name));
  if (phone_state_path("").empty()) return complain("the watch's state folder cannot be made");
  unfinished folder = {name, pair_find(name, &before, &error) != 0};
  int result = address.kind == carrier_kind::ssh         ? pair_ssh_install(watch, &error)
               : address.kind == carrier_kind::bluetooth ? pair_bluetooth_bond(address.target, &error)
                                                         : 0;
  if (result < 0) return complain(name + " is not paired: " + error);
  /* What it takes to get there is on the watch already: the next try goes on with it. */
  folder.kept = folder.kept || address.kind == carrier_kind::ssh;
  if (check_way(watch, &who, &error) < 0) return complain(name + " is not paired, the way was tried in vain: " + error);
  watch.id = who.id;
  folder.kept = true;
  if (pair_remember(watch, &error) < 0) return complain(error);
  printf("%s is paired (%s%s%s).\n", name.c_str(), address.text().c_str(), who.name.empty() ? "" : ", ",
         who.name.c_str());
  return 0;
}

int command_watches(bool as_json) {
  std::vector<paired_watch> watches;
  std::string error;
  if (pair_list(&watches, &error) < 0) return complain(error);
  json all = json::array();
  for (const paired_watch &watch : watches) {
    counted what;
    if (count(watch, &what, &error) < 0) return complain(watch.name + ": " + error);
    all.push_back({{"name", watch.name},
                   {"address", watch.address.text()},
                   {"linked_since", what.link.linked_since},
                   {"last_seen", what.link.last_seen},
                   {"trouble", what.link.trouble},
                   {"mails_on_their_way", what.mails},
                   {"replies_waiting", what.replies}});
    if (!as_json)
      printf("%s\t%s\t%s%s\n", watch.name.c_str(), watch.address.text().c_str(), link_in_words(what.link).c_str(),
             waiting_text(what).c_str());
  }
  if (as_json) printf("%s\n", all.dump(2, ' ', false, json::error_handler_t::replace).c_str());
  return 0;
}

int command_unpair(const std::string &name) {
  std::string error, there;
  paired_watch watch;
  int found = pair_find(name, &watch, &error);
  if (found <= 0) return complain(found < 0 ? error : "no watch is called " + name + " (brisel-phone watches)");
  phone_state_use(pair_folder(name));
  int lock = phone_state_lock("link.lock", &error, 0);
  if (lock < 0) return complain(name + " is in use: end the relay first (systemctl --user stop brisel-relay)");
  int result = 0;
  if (watch.address.kind == carrier_kind::ssh && pair_ssh_remove(watch, &there) < 0)
    result = complain("the watch could not be told: " + there + "; the line that ends in brisel-phone-for-" + name +
                      " stays in its ~/.ssh/authorized_keys");
  if (watch.address.kind == carrier_kind::bluetooth) {
    if (pair_bluetooth_forget(watch.address.target, &there) < 0) result = complain(there);
    link_log("remove this phone from the watch's own list of Bluetooth devices too");
  }
  close(lock);
  if (pair_forget(name, &error) < 0) return complain(error);
  printf("%s is not paired any more.\n", name.c_str());
  return result;
}
