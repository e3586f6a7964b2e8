/* Owns how often each template was sent, a line per template in one small file below the application's state, and puts
   the most used first. The list of templates alone calls it. */
#include <cerrno>
#include <cstring>

#include "brisel-app-option-reply.h"
#include "brisel-template-uses.h"
#include "platform-files.h"
#include "platform-paths.h"
#include "vconf.h"

static brisel_template_uses __brisel_usage_read(const platform_folder &folder) {
  std::string bytes;
  if (folder.fd < 0 ||
      platform_file_read(folder.fd, brisel_template_uses_file, brisel_template_uses_bytes, &bytes) != 0)
    return {};
  return brisel_template_uses_read(bytes);
}

void brisel_reply_usage_add(const std::string &text) {
  const platform_folder folder(platform_app_state_dir());
  brisel_template_uses uses = __brisel_usage_read(folder);
  const std::string name = brisel_template_uses_name(text.c_str());
  int &count = uses[name];
  if (count < brisel_template_uses_count_max) count++;
  if (uses.size() > brisel_template_uses_max) {
    auto least = uses.end();
    for (auto at = uses.begin(); at != uses.end(); ++at)
      if (at->first != name && (least == uses.end() || at->second < least->second)) least = at;
    uses.erase(least);
  }
  std::string bytes;
  for (const auto &[known, times] : uses) bytes += std::to_string(times) + " " + known + "\n";
  const char *step = "open the folder of";
  if (folder.fd < 0 || platform_file_replace(folder.fd, brisel_template_uses_file, "template-uses.new", bytes.data(),
                                             bytes.size(), false, &step) != 0)
    BRISEL_WARN("cannot %s the uses of the templates: %s", step, strerror(errno));
}

static int __brisel_usage_compare_cb(gconstpointer a, gconstpointer b, gpointer data) {
  const brisel_template_uses &uses = *(const brisel_template_uses *)data;
  const auto times = [&uses](gconstpointer td) {
    const auto found = uses.find(brisel_template_uses_name(((const template_data *)td)->text));
    return found == uses.end() ? 0 : found->second;
  };
  return times(b) - times(a);
}

GSList *brisel_reply_usage_sort(GSList *templates) {
  int as_the_phone = 0;
  if (vconf_get_int(BRISEL_KEY_TEMPLATE_ORDER, &as_the_phone) == 0 && as_the_phone) return templates;
  brisel_template_uses uses = __brisel_usage_read(platform_folder(platform_app_state_dir()));
  // Stable: those sent equally often stay in the phone's order.
  return uses.empty() ? templates : g_slist_sort_with_data(templates, __brisel_usage_compare_cb, &uses);
}
