/* Launches on the phone: requests like the others, which a service or an application that is killed does not lose. */
#include <algorithm>
#include <ctime>
#include <utility>

#include "common-link-priv.h"
#include "host-launch.h"

namespace {

int said_id, said_position; /* launch_host_set_position(); 0: nothing */

/* Of each mail; empty: of none. */
std::vector<int> take_positions(const int *ids, int count) {
  const int id = std::exchange(said_id, 0), *end = ids + count, *at = id ? std::find(ids, end, id) : end;
  std::vector<int> positions(at == end ? 0 : static_cast<size_t>(count));
  if (at != end) positions[static_cast<size_t>(at - ids)] = said_position;
  return positions;
}

}  // namespace

void launch_host_set_position(int mail_id, int position) {
  said_id = position > 0 ? mail_id : 0;
  said_position = position;
}

int launch_host_predefined_application(const char *kind, const int *ids, int count) {
  if (!kind || !*kind || count < 0 || (count > 0 && !ids)) return -1;
  request r;
  r.type = kept_show;
  if (count > 0) r.ids.assign(ids, ids + count);
  r.mail_id = count;
  r.host_state = static_cast<int>(time(nullptr));
  r.texts = {common_bus_text(kind)};
  const std::vector<int> positions = take_positions(ids, count);
  r.ids.insert(r.ids.end(), positions.begin(), positions.end());
  return common_enqueue(std::move(r)) == 0 ? 0 : -1;
}
