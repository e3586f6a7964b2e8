/* The file of requests that wait: its form, and the ways it is written. */
#include "common-kept.h"

#include <fcntl.h>
#include <glib.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>

#include "brisel-common.h"
#include "dlog.h"
#include "platform-files.h"
#include "platform-paths.h"
#include "store-format.h"

namespace {

constexpr char log_tag[] = "BRISEL_COMMON";
constexpr char file_name[] = "requests";
constexpr char broken_name[] = "requests.broken";
constexpr char format[] = "a(isaiiasi)";
constexpr size_t reply_texts = 6;

using variant = std::unique_ptr<GVariant, decltype(&g_variant_unref)>;

/* More than requests can hold by their bounds is none of ours. */
constexpr size_t file_max = static_cast<size_t>(body_max) << 2;

/* The thread that syncs the file, while there is one. Never freed: it may outlast whoever calls exit(). */
struct sync_state {
  std::mutex lock;
  std::condition_variable ended;
  bool running = false, wanted = false;
  int error = 0;
} &sync_now = *new sync_state;

bool is_show_of(size_t numbers, int mails) {
  return mails >= 0 && (numbers == static_cast<size_t>(mails) || numbers == 2 * static_cast<size_t>(mails));
}

bool read_request(GVariant *one, kept_request *r) {
  const char *uid = nullptr;
  variant ids(g_variant_get_child_value(one, 2), g_variant_unref);
  variant texts(g_variant_get_child_value(one, 4), g_variant_unref);
  g_variant_get_child(one, 0, "i", &r->type);
  g_variant_get_child(one, 1, "&s", &uid);
  g_variant_get_child(one, 3, "i", &r->host_state);
  g_variant_get_child(one, 5, "i", &r->mail_id);
  r->uid = uid;
  gsize count = 0;
  const void *numbers = g_variant_get_fixed_array(ids.get(), &count, sizeof(gint32));
  const auto *first = static_cast<const gint32 *>(numbers);
  r->ids.assign(first, first + count);
  for (gsize i = 0; i < g_variant_n_children(texts.get()); i++) {
    const char *text = nullptr;
    g_variant_get_child(texts.get(), i, "&s", &text);
    r->texts.emplace_back(text);
  }
  return kept_member(r->type) && !r->uid.empty() && r->uid.size() <= uid_max && r->ids.size() <= ids_max &&
         (r->type != BRISEL_IPC_CLIENT_REQ_TYPE_REPLY || r->texts.size() == reply_texts) &&
         (r->type < BRISEL_IPC_CLIENT_REQ_TYPE_DROP_REQUEST || r->ids.size() == 1) &&
         (r->type != kept_show || (r->texts.size() == 1 && is_show_of(r->ids.size(), r->mail_id)));
}

}  // namespace

const char *kept_member(int type) {
  switch (type) {
    case kept_no_account:
      return "NoAccount";
    case kept_show:
      return "Show";
    case BRISEL_IPC_CLIENT_REQ_TYPE_DELETE_NOTIS:
      return "DeleteNotis";
    case BRISEL_IPC_CLIENT_REQ_TYPE_UPDATE_IND:
      return "UpdateInd";
    case BRISEL_IPC_CLIENT_REQ_TYPE_REPLY:
      return "Reply";
    case BRISEL_IPC_CLIENT_REQ_TYPE_CLEAR_ALL_NEW_FLAG:
      return "ClearAllNewFlag";
    case BRISEL_IPC_CLIENT_REQ_TYPE_DROP_REQUEST:
      return "DropRequest";
    case BRISEL_IPC_CLIENT_REQ_TYPE_REPEAT_REQUEST:
      return "RepeatRequest";
    default:
      return nullptr;
  }
}

bool kept_save(const std::vector<const kept_request *> &requests, bool lasting) {
  GVariantBuilder all;
  g_variant_builder_init(&all, G_VARIANT_TYPE(format));
  for (const kept_request *r : requests) {
    GVariantBuilder texts;
    g_variant_builder_init(&texts, G_VARIANT_TYPE("as"));
    for (const std::string &text : r->texts) g_variant_builder_add(&texts, "s", text.c_str());
    g_variant_builder_add(&all, "(is@aiiasi)", r->type, r->uid.c_str(),
                          g_variant_new_fixed_array(G_VARIANT_TYPE_INT32, r->ids.data(), r->ids.size(), sizeof(gint32)),
                          r->host_state, &texts, r->mail_id);
  }
  const variant whole(g_variant_ref_sink(g_variant_builder_end(&all)), g_variant_unref);
  const platform_folder dir(platform_app_state_dir());
  const char *step = "open the folder of";
  if (g_variant_get_size(whole.get()) > file_max) {
    __dlog_print(DLOG_ERROR, log_tag, "too many requests wait for the service already");
    return false;
  }
  const std::string temporary = std::string(file_name) + "." + std::to_string(getpid());
  if (dir.fd >= 0 && platform_file_replace(dir.fd, file_name, temporary.c_str(), g_variant_get_data(whole.get()),
                                           g_variant_get_size(whole.get()), lasting, &step) == 0)
    return true;
  __dlog_print(DLOG_ERROR, log_tag, "cannot %s the requests that wait: %s", step, strerror(errno));
  return false;
}

namespace {

void sync_thread(const std::string &path) {
  std::unique_lock held(sync_now.lock);
  while (sync_now.wanted) {
    sync_now.wanted = false;
    held.unlock();
    const platform_folder dir(path.c_str());
    const int error = dir.fd < 0 || platform_file_sync(dir.fd, file_name) != 0 ? errno : 0;
    held.lock();
    /* The file may have gone in between: all of it was taken over. */
    sync_now.error = error == ENOENT ? 0 : error;
  }
  sync_now.running = false;
  sync_now.ended.notify_all();
}

void tell_sync_error(void) {
  if (sync_now.error)
    __dlog_print(DLOG_ERROR, log_tag, "the requests that wait would not have outlived a power cut: %s",
                 strerror(sync_now.error));
  sync_now.error = 0;
}

}  // namespace

void kept_sync(void) {
  const char *folder = platform_app_state_dir();
  if (!folder) return;
  const std::lock_guard held(sync_now.lock);
  tell_sync_error();
  sync_now.wanted = true; /* again, when one is under way: it may have opened the file before */
  if (sync_now.running) return;
  sync_now.running = true;
  std::thread(sync_thread, std::string(folder)).detach();
}

void kept_sync_end(void) {
  std::unique_lock held(sync_now.lock);
  sync_now.ended.wait(held, [] { return !sync_now.running; });
  tell_sync_error();
}

std::vector<kept_request> kept_load(void) {
  std::vector<kept_request> requests;
  const platform_folder dir(platform_app_state_dir());
  std::string bytes;
  if (dir.fd < 0 || (platform_file_read(dir.fd, file_name, file_max, &bytes) != 0 && errno != EFBIG)) return requests;
  /* A copy of the library's own making is aligned as it needs it. */
  GBytes *copy = g_bytes_new(bytes.data(), bytes.size());
  const variant whole(g_variant_ref_sink(g_variant_new_from_bytes(G_VARIANT_TYPE(format), copy, FALSE)),
                      g_variant_unref);
  g_bytes_unref(copy);
  bool good = g_variant_is_normal_form(whole.get());
  for (gsize i = 0; good && i < g_variant_n_children(whole.get()); i++) {
    const variant one(g_variant_get_child_value(whole.get(), i), g_variant_unref);
    requests.emplace_back();
    good = read_request(one.get(), &requests.back());
  }
  if (good) return requests;
  __dlog_print(DLOG_ERROR, log_tag, "the requests that waited are unreadable; they are set aside as %s/%s",
               platform_app_state_dir(), broken_name);
  platform_file_rename(dir.fd, file_name, broken_name, true);
  return {};
}

void kept_forget(void) {
  const platform_folder dir(platform_app_state_dir());
  if (dir.fd >= 0) platform_file_remove(dir.fd, file_name, false);
}
