/* Owns how often each template was sent, a line per template in one small file below the application's state, and puts
   the most used first. The list of templates alone calls it. */
#include <cerrno>
#include <cstring>
#include <map>
#include <sstream>

#include "brisel-app-option-reply.h"
#include "platform-files.h"
#include "platform-paths.h"
#include "vconf.h"

static constexpr char BRISEL_USAGE_FILE[] = "template-uses";
static constexpr size_t BRISEL_USAGE_MAX = 64; /* templates; the least used ones are forgotten */
static constexpr size_t BRISEL_USAGE_FILE_MAX = 64 * 1024;
static constexpr int BRISEL_USAGE_COUNT_MAX = 1000000;

using template_uses = std::map<std::string, int>;

/* A template goes by a checksum of its text: texts may be of any length, and are nobody's business here. */
static std::string __brisel_usage_name(const char *text) {
  char *checksum = g_compute_checksum_for_string(G_CHECKSUM_SHA256, text ? text : "", -1);
  const std::string name = checksum;
  g_free(checksum);
  return name;
}

static template_uses __brisel_usage_read(const platform_folder &folder) {
  template_uses uses;
  std::string bytes;
  if (folder.fd < 0 || platform_file_read(folder.fd, BRISEL_USAGE_FILE, BRISEL_USAGE_FILE_MAX, &bytes) != 0)
    return uses;
  std::istringstream lines(bytes);
  int count = 0;
  std::string name;
  while (uses.size() < BRISEL_USAGE_MAX && lines >> count >> name)
    if (count > 0 && count <= BRISEL_USAGE_COUNT_MAX) uses[name] = count;
  return uses;
}

void brisel_reply_usage_add(const std::string &text) {
  const platform_folder folder(platform_app_state_dir());
  template_uses uses = __brisel_usage_read(folder);
  const std::string name = __brisel_usage_name(text.c_str());
  int &count = uses[name];
  if (count < BRISEL_USAGE_COUNT_MAX) count++;
  if (uses.size() > BRISEL_USAGE_MAX) {
    auto least = uses.end();
    for (auto at = uses.begin(); at != uses.end(); ++at)
      if (at->first != name && (least == uses.end() || at->second < least->second)) least = at;
    uses.erase(least);
  }
  std::string bytes;
  for (const auto &[known, times] : uses) bytes += std::to_string(times) + " " + known + "\n";
  const char *step = "open the folder of";
  if (folder.fd < 0 || platform_file_replace(folder.fd, BRISEL_USAGE_FILE, "template-uses.new", bytes.data(),
                                             bytes.size(), false, &step) != 0)
    BRISEL_WARN("cannot %s the uses of the templates: %s", step, strerror(errno));
}

static int __brisel_usage_compare_cb(gconstpointer a, gconstpointer b, gpointer data) {
  const template_uses &uses = *(const template_uses *)data;
  const auto times = [&uses](gconstpointer td) {
    const auto found = uses.find(__brisel_usage_name(((const template_data *)td)->text));
    return found == uses.end() ? 0 : found->second;
  };
  return times(b) - times(a);
}

GSList *brisel_reply_usage_sort(GSList *templates) {
  int as_the_phone = 0;
  if (vconf_get_int(BRISEL_KEY_TEMPLATE_ORDER, &as_the_phone) == 0 && as_the_phone) return templates;
  template_uses uses = __brisel_usage_read(platform_folder(platform_app_state_dir()));
  // Stable: those sent equally often stay in the phone's order.
  return uses.empty() ? templates : g_slist_sort_with_data(templates, __brisel_usage_compare_cb, &uses);
}
