/* What a screen reader says of a row: sender, subject, time, whether it is new, its account. The list's model and rows
   call it; it reads the account from the store, which only who listens has to wait for. */
#include <string>

#include "brisel-app-mailbox-list.h"
#include "brisel-app-utils.h"
#include "brisel-app-view-common.h"

static void _say(std::string *name, const char *text) {
  if (!text || !*text) return;
  if (!name->empty()) *name += ", ";
  *name += text;
}

void brisel_name_mailbox_rows(appdata *ad) {
  if (!brisel_view_is_spoken()) return;
  brisel_view_name_row(_group_item(ad));
  for (const GList *cell = ad->mail_list; cell; cell = cell->next) _name_row((const item_data *)cell->data);
}

void _name_row(const item_data *item) {
  if (!brisel_view_is_spoken() || !item->it) return;
  std::string name;
  if (item->it == item->ad->sweep_item) _say(&name, brisel_util_get_text("IDS_EMAIL_BODY_DELETED"));
  _say(&name, item->sender);
  _say(&name, item->subject);
  scoped_text time(brisel_util_get_mailbox_date_time_str(item->received_time, item->ad));
  _say(&name, time.get());
  if (item->is_new) _say(&name, brisel_util_get_text("IDS_EMAIL_BODY_NEW"));
  scoped_account account(brisel_account_data_create());
  if (account && brisel_db_get_account_data_by_account_id(item->account_id, account.get()) == 0)
    _say(&name, account->email_address);
  brisel_view_set_spoken_name(item->it, name.c_str());
}
