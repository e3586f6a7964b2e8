/* What a request of the watch changes in the phone's state, whoever receives it: the relay or `serve`. */
#include "relay.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>

#include "../mime.h"
#include "brisel-body.h"
#include "reply.h"
#include "state-relay.h"
#include "state-replies.h"

namespace {

constexpr size_t kMostUnknown = 64u << 10; /* bytes of the numbers of mails whose calls had no answer */

/* tag, uid: what the watch says of the mail besides its number, or nothing. */
int keep_deleted(phone_state *state, int mail_id, bool on_watch, const std::string &tag, const std::string &uid) {
  int marked = relay_mail_set_deleted(state, mail_id, on_watch), dropped = 0;
  if (marked < 0 || phone_state_drop_mails(state, {mail_id}, &dropped) < 0) return -1;
  if (marked > 0 || dropped > 0) return 0;
  if (!uid.empty() && tag.starts_with(relay_tag_begin)) {
    marked = relay_name_set_deleted(state, tag.substr(relay_tag_begin.size()), uid);
    if (marked != 0) return marked < 0 ? -1 : 0;
  }
  int sending = relay_any_sending(state);
  return sending > 0 ? relay_note_set(state, note_unknown_deletions, "1") : sending;
}

/* Watches before these lists have none. */
std::string name_of(const nlohmann::json &request, const char *list, size_t i) {
  const auto names = request.find(list);
  return names != request.end() && i < names->size() ? (*names)[i].get<std::string>() : std::string();
}

/* A mail whose number is not known yet is marked when the watch's list tells it. */
int keep_read(phone_state *state, int mail_id) {
  int marked = relay_mail_want_seen(state, mail_id);
  if (marked == 0 && (marked = relay_any_sending(state)) > 0) {
    std::string ids;
    if (relay_note_get(state, note_unknown_marks, &ids) < 0) return -1;
    if (ids.size() < kMostUnknown)
      marked = relay_note_set(state, note_unknown_marks, ids + std::to_string(mail_id) + " ");
  }
  return marked < 0 ? -1 : 0;
}

int keep_reply(phone_state *state, const nlohmann::json &request, const std::string &uid) {
  std::string tag = request.value("host_tag", std::string());
  if (!tag.starts_with(relay_tag_begin)) return 0; /* a mail that was only sent by hand has nobody to answer for it */
  reply_parts parts;
  relay_account_row account;
  if (relay_account_find(state, tag.substr(relay_tag_begin.size()), &account) < 0) return -1;
  parts.from_address = account.address;
  parts.from_name = account.display_name;
  parts.recipient = request.value("recipient", std::string());
  parts.subject = request.value("subject", std::string());
  parts.text = request.value("text", std::string());
  sent_mail mail;
  int found =
      phone_state_find_mail(state, request.value("mail_id", 0), request.value("message_uid", std::string()), &mail);
  if (found < 0) return -1;
  if (found > 0) {
    parts.reply_to = mail.reply_to;
    parts.message_id = mail.message_id;
    parts.references = mail.references;
  }
  std::string message, to, error;
  if (parts.text.size() > text_max) {
    to = mime_clean_line(parts.recipient, text_max);
    error = "the text is longer than a reply may be";
  } else if (reply_compose(parts, &message, &to, &error) < 0) {
    message = parts.text; /* kept for the user, not sent */
  }
  return reply_add(state, account.account_id, {uid, to, reply_subject(parts.subject), message, error});
}

/* What could not be looked up counts as known: then it is kept, as everything is. */
bool is_known(phone_state *state, const relay_settings &settings, const std::string &tag) {
  if (!tag.starts_with(relay_tag_begin)) return true;
  const std::string name = tag.substr(relay_tag_begin.size());
  relay_account_row row;
  return std::any_of(settings.accounts.begin(), settings.accounts.end(), [&](auto &a) { return a.name == name; }) ||
         relay_account_find(state, name, &row) != 0;
}

}  // namespace

bool relay_leave_others(phone_state *state, const relay_settings &settings, nlohmann::json *request) {
  const std::string kind = request->value("request", std::string());
  if (kind == "reply") return is_known(state, settings, request->value("host_tag", std::string()));
  if ((kind != "delete_notis" && kind != "update_ind") || !request->contains("id_list")) return true;
  std::map<std::string, bool> known;
  std::vector<bool> others((*request)["id_list"].size());
  bool any_ours = false, any_others = false;
  for (size_t i = 0; i < others.size(); i++) {
    const std::string tag = name_of(*request, "host_tag_list", i);
    /* What has gone from the watch has no name, and is no phone's. */
    if (tag.empty() && name_of(*request, "message_uid_list", i).empty()) continue;
    const auto [place, fresh] = known.try_emplace(tag, false);
    if (fresh) place->second = is_known(state, settings, tag);
    others[i] = !place->second;
    (place->second ? any_ours : any_others) = true;
  }
  if (!any_others || !any_ours) return !any_others;
  for (const char *list : {"id_list", "host_tag_list", "message_uid_list"}) {
    nlohmann::json ours = nlohmann::json::array();
    for (size_t i = 0; i < others.size() && request->contains(list) && i < (*request)[list].size(); i++)
      if (!others[i]) ours.push_back((*request)[list][i]);
    (*request)[list] = std::move(ours);
  }
  return true;
}

int relay_forget_mails(phone_state *state, const std::vector<int> &mail_ids) {
  return phone_state_change(state, [&] {
    for (int id : mail_ids)
      if (keep_deleted(state, id, false, {}, {}) < 0) return -1;
    return 0;
  });
}

int relay_keep_request(phone_state *state, const nlohmann::json &request, const std::string &uid) {
  std::string kind = request.value("request", std::string());
  if (kind == "reply") return keep_reply(state, request, uid);
  if ((kind != "delete_notis" && kind != "update_ind") || !request.contains("id_list")) return 0;
  const nlohmann::json &ids = request["id_list"];
  for (size_t i = 0; i < ids.size(); i++) {
    int mail_id = ids[i].get<int>();
    if ((kind == "delete_notis" ? keep_deleted(state, mail_id, true, name_of(request, "host_tag_list", i),
                                               name_of(request, "message_uid_list", i))
                                : keep_read(state, mail_id)) < 0)
      return -1;
  }
  return 0;
}
