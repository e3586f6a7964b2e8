/* Owns the drafts: what was typed as the reply to a mail and not sent yet, one small file per mail below the
   application's state, from the first letter on, so that nothing that ends the view or the application loses it. The
   typed view writes and reads them; the application lets go of those whose mail is gone. */
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <vector>

#include "brisel-app-option-reply.h"
#include "brisel-app-reply-drafts.h"
#include "brisel-scoped.h"
#include "platform-files.h"
#include "platform-paths.h"

static constexpr char BRISEL_DRAFT_FOLDER[] = "drafts";
static constexpr size_t BRISEL_DRAFTS_MAX = 64;           /* the one written longest ago goes */
static constexpr size_t BRISEL_DRAFT_FILE_MAX = 8 * 1024; /* bytes; the phone's name of the mail, NUL, the text */

static std::string __brisel_draft_path(void) {
  const char *state = platform_app_state_dir();
  return state ? std::string(state) + "/" + BRISEL_DRAFT_FOLDER : "";
}

/* The mail of a file of the folder; 0: not one of ours. */
static int __brisel_draft_mail_id(const char *name) {
  int mail_id = 0;
  const auto [end, error] = std::from_chars(name, name + strlen(name), mail_id);
  return error == std::errc() && *end == '\0' && mail_id > 0 ? mail_id : 0;
}

static void __brisel_draft_remove(const platform_folder &folder, int mail_id, bool lasting) {
  if (folder.fd < 0) return;
  if (platform_file_remove(folder.fd, std::to_string(mail_id).c_str(), lasting) != 0)
    BRISEL_WARN("the draft for the mail %d cannot be removed: %s", mail_id, strerror(errno));
}

struct kept_draft {
  int mail_id;
  timespec written;
};

static std::vector<kept_draft> __brisel_draft_list(const platform_folder &folder) {
  std::vector<kept_draft> drafts;
  DIR *dir = folder.fd >= 0 ? fdopendir(dup(folder.fd)) : nullptr;
  if (!dir) return drafts;
  rewinddir(dir);
  while (const dirent *entry = readdir(dir)) {
    struct stat file;
    const int mail_id = __brisel_draft_mail_id(entry->d_name);
    if (mail_id && fstatat(folder.fd, entry->d_name, &file, AT_SYMLINK_NOFOLLOW) == 0)
      drafts.push_back({mail_id, file.st_mtim});
  }
  closedir(dir);
  return drafts;
}

static void __brisel_draft_make_room(const platform_folder &folder, int for_mail_id) {
  std::vector<kept_draft> drafts = __brisel_draft_list(folder);
  std::erase_if(drafts, [for_mail_id](const kept_draft &d) { return d.mail_id == for_mail_id; });
  std::sort(drafts.begin(), drafts.end(), [](const kept_draft &a, const kept_draft &b) {
    return a.written.tv_sec != b.written.tv_sec ? a.written.tv_sec < b.written.tv_sec
                                                : a.written.tv_nsec < b.written.tv_nsec;
  });
  for (size_t i = 0; i + BRISEL_DRAFTS_MAX <= drafts.size(); i++)
    __brisel_draft_remove(folder, drafts[i].mail_id, false);
}

/* Whether the store says that there is no such mail; a store that cannot be read says nothing. */
static bool __brisel_draft_mail_is_gone(int mail_id) {
  const scoped_noti mail(brisel_full_noti_data_create());
  return mail && brisel_db_get_noti_head_by_mail_id(mail_id, mail.get()) == BRISEL_COMMON_ERROR_NOT_FOUND;
}

std::string brisel_reply_draft_load(const brisel_reply_mail &mail) {
  const platform_folder folder(__brisel_draft_path().c_str());
  std::string bytes;
  if (folder.fd < 0 ||
      platform_file_read(folder.fd, std::to_string(mail.mail_id).c_str(), BRISEL_DRAFT_FILE_MAX, &bytes) != 0)
    return "";
  // Another store may have given the number to another mail.
  const size_t separator = bytes.find('\0');
  if (separator == std::string::npos || bytes.compare(0, separator, mail.message_uid) != 0) return "";
  const std::string text = bytes.substr(separator + 1);
  return g_utf8_validate(text.c_str(), (gssize)text.size(), nullptr) ? text : "";
}

bool brisel_reply_draft_save(const brisel_reply_mail &mail, const std::string &text, bool lasting) {
  const platform_folder folder(__brisel_draft_path().c_str(), !text.empty(), lasting);
  if (text.empty() || (lasting && __brisel_draft_mail_is_gone(mail.mail_id))) {
    __brisel_draft_remove(folder, mail.mail_id, lasting);
    return true;
  }
  const std::string bytes = mail.message_uid + '\0' + text;
  const char *step = "open the folder of";
  if (folder.fd >= 0 && bytes.size() <= BRISEL_DRAFT_FILE_MAX) {
    __brisel_draft_make_room(folder, mail.mail_id);
    const std::string name = std::to_string(mail.mail_id);
    if (platform_file_replace(folder.fd, name.c_str(), (name + ".new").c_str(), bytes.data(), bytes.size(), lasting,
                              &step) == 0)
      return true;
  }
  BRISEL_ERROR("cannot %s the draft for the mail %d: %s", step, mail.mail_id, strerror(errno));
  return false;
}

void brisel_reply_drafts_forget_gone(void) {
  const platform_folder folder(__brisel_draft_path().c_str());
  for (const kept_draft &draft : __brisel_draft_list(folder))
    if (__brisel_draft_mail_is_gone(draft.mail_id)) __brisel_draft_remove(folder, draft.mail_id, false);
}
