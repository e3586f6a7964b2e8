/* The commands of brisel-phone. Each returns the exit code and tells what is wrong in one line on standard error: 0 is
   done, 1 that it could not be done. */
#ifndef BRISEL_PHONE_COMMANDS_H
#define BRISEL_PHONE_COMMANDS_H

#include <cstdint>
#include <string>
#include <vector>

#include "send.h"

inline constexpr int wrong_command_line = 2;

int command_account_add(const std::string &address, const std::string &name, const std::string &color, int id);
int command_account_remove(int id);
int command_account_list(bool json);
int command_account_count(bool known);
int command_mail_send(const std::vector<std::string> &files, const send_options &options);
int command_mail_update(int id, const mail_change &change);
int command_mail_delete(const std::vector<int> &ids);
int command_mail_list(bool json);
int command_template_set(const std::vector<std::string> &texts);
int command_template_list(bool json);
int command_status(const char *kind, int value);
int command_requests(bool json);
int command_demo(const std::string &dir);
int command_serve();

#endif
