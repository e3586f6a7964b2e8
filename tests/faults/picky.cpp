/* The service with one rule more, linked around its own: a mail whose subject says so is refused, and its call with it.
 */
#include "store.h"

store_status really_add_mails(store *st, std::vector<mail_values> *mails, std::vector<int> *ids) asm(
    "__real__Z15store_add_mailsP5storePSt6vectorI11mail_valuesSaIS2_EEPS1_IiSaIiEE");
store_status add_mails(store *st, std::vector<mail_values> *mails, std::vector<int> *ids) asm(
    "__wrap__Z15store_add_mailsP5storePSt6vectorI11mail_valuesSaIS2_EEPS1_IiSaIiEE");

store_status add_mails(store *st, std::vector<mail_values> *mails, std::vector<int> *ids) {
  for (const mail_values &mail : *mails)
    if (mail.field[static_cast<size_t>(mail_field_index("subject"))].text.find("refuse me") != std::string::npos)
      return store_invalid;
  return really_add_mails(st, mails, ids);
}
