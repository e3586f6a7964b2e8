/* brisel-phone: the phone of the watch. The command line; each command is in commands.cpp or relay.cpp. */
#include <signal.h>

#include <CLI/CLI.hpp>
#include <clocale>

#include "commands.h"

namespace {

/* One line, like every other error of this program. */
std::string failure_line(const CLI::App *app, const CLI::Error &error) {
  std::string text = error.what();
  for (char &c : text)
    if (c == '\n') c = ' ';
  return "brisel-phone: " + text + " (see " + app->get_name() + " --help)\n";
}

}  // namespace

int main(int argc, char **argv) {
  setlocale(LC_ALL, "");
  signal(SIGPIPE, SIG_IGN);
  int exit_code = 0;

  CLI::App app{"The phone of the watch: relays mail to it and answers what it asks.", "brisel-phone"};
  app.set_version_flag("--version", "brisel-phone " BRISEL_VERSION);
  app.failure_message(failure_line);
  app.require_subcommand(1);

  CLI::App *account = app.add_subcommand("account", "Accounts of the watch")->require_subcommand(1);
  std::string address, name, color;
  int id = 0;
  CLI::App *account_add = account->add_subcommand("add", "Add an account, or change it; prints its id");
  account_add->add_option("ADDRESS", address, "The e-mail address")->required();
  account_add->add_option("--name", name, "The display name");
  account_add->add_option("--color", color, "The colour, RRGGBBAA");
  account_add->add_option("--id", id, "The id; one that exists is changed")->check(CLI::Range(1, INT32_MAX));
  account_add->callback([&] { exit_code = command_account_add(address, name, color, id); });
  CLI::App *account_remove = account->add_subcommand("remove", "Remove an account and its mails");
  account_remove->add_option("ID", id)->required()->check(CLI::Range(1, INT32_MAX));
  account_remove->callback([&] { exit_code = command_account_remove(id); });
  bool json = false;
  CLI::App *account_list = account->add_subcommand("list", "List the accounts: id, address, name, colour");
  account_list->add_flag("--json", json);
  account_list->callback([&] { exit_code = command_account_list(json); });
  std::string known;
  CLI::App *account_count = account->add_subcommand("count", "Say whether the number of accounts is known");
  account_count->add_option("STATE", known, "known or unknown")->required()->check(CLI::IsMember({"known", "unknown"}));
  account_count->callback([&] { exit_code = command_account_count(known == "known"); });

  CLI::App *mail = app.add_subcommand("mail", "Mails on the watch")->require_subcommand(1);
  std::vector<std::string> files;
  send_options options;
  std::string received;
  bool read = false, unread = false, fresh = false, not_new = false;
  int64_t first = -1;
  CLI::App *mail_send = mail->add_subcommand("send", "Relay mails (files, mbox files, Maildirs); prints one id each");
  mail_send->add_option("FILE", files, "Mail file, mbox file or Maildir folder")->required();
  mail_send->add_option("--account", options.account_id, "The account's id")
      ->required()
      ->check(CLI::Range(1, INT32_MAX));
  mail_send->add_flag("--locked", options.locked, "The account's policy forbids showing it on the watch");
  mail_send->add_option("--first", first, "Relay only so many bytes of the body at first")
      ->check(CLI::Range(int64_t{0}, int64_t{1} << 40));
  mail_send->add_option("--received", received, "Seconds since the epoch, ISO 8601 or now (default: the mail's date)");
  mail_send->add_flag("--read", read, "It has been read");
  mail_send->add_flag("--not-new", not_new, "It has been seen on the watch");
  mail_send->callback([&] {
    if (!received.empty() && parse_time(received, &options.received) < 0) {
      fprintf(stderr, "brisel-phone: '%s' is no time: seconds since the epoch, ISO 8601 or now\n", received.c_str());
      exit_code = 1;
      return;
    }
    options.first = first;
    options.is_read = read ? 1 : -1;
    options.is_new = !not_new;
    exit_code = command_mail_send(files, options);
  });
  mail_change change;
  CLI::App *mail_update = mail->add_subcommand("update", "Change a mail on the watch");
  mail_update->add_option("ID", id)->required()->check(CLI::Range(1, INT32_MAX));
  CLI::Option *read_flag = mail_update->add_flag("--read", read);
  mail_update->add_flag("--unread", unread)->excludes(read_flag);
  CLI::Option *new_flag = mail_update->add_flag("--new", fresh);
  mail_update->add_flag("--not-new", not_new)->excludes(new_flag);
  CLI::Option *subject = mail_update->add_option("--subject", change.subject, "The new subject");
  mail_update->callback([&] {
    change.is_read = read ? 1 : unread ? 0 : -1;
    change.is_new = fresh ? 1 : not_new ? 0 : -1;
    change.has_subject = subject->count() > 0;
    exit_code = command_mail_update(id, change);
  });
  std::vector<int> ids;
  CLI::App *mail_delete = mail->add_subcommand("delete", "Delete mails from the watch");
  mail_delete->add_option("ID", ids)->required()->check(CLI::Range(1, INT32_MAX));
  mail_delete->callback([&] { exit_code = command_mail_delete(ids); });
  CLI::App *mail_list = mail->add_subcommand("list", "List the mails of the watch");
  mail_list->add_flag("--json", json, "Every stored field");
  mail_list->callback([&] { exit_code = command_mail_list(json); });

  CLI::App *templates = app.add_subcommand("template", "Reply templates of the watch")->require_subcommand(1);
  std::vector<std::string> texts;
  CLI::App *template_set = templates->add_subcommand("set", "Replace all templates");
  template_set->add_option("TEXT", texts);
  template_set->callback([&] { exit_code = command_template_set(texts); });
  CLI::App *template_list = templates->add_subcommand("list", "List the templates");
  template_list->add_flag("--json", json);
  template_list->callback([&] { exit_code = command_template_list(json); });

  CLI::App *status = app.add_subcommand("status", "What the watch is told of the phone")->require_subcommand(1);
  int value = 0;
  for (const char *kind : {"reply", "conn"}) {
    CLI::App *one = status->add_subcommand(
        kind, kind[0] == 'r' ? "0: replies work, 1: the phone needs an update, 2 or more: no replies"
                             : "0: the phone can be reached now");
    one->add_option("N", value)->required();
    one->callback([&, kind] { exit_code = command_status(kind, value); });
  }

  CLI::App *serve = app.add_subcommand("serve", "Stay connected as the phone; prints each request as one JSON line");
  serve->callback([&] { exit_code = command_serve(); });
  CLI::App *requests = app.add_subcommand("requests", "List the requests received so far");
  requests->add_flag("--json", json);
  requests->callback([&] { exit_code = command_requests(json); });

  std::string demo_dir = BRISEL_DEMO_DIR;
  CLI::App *demo = app.add_subcommand("demo", "Put the demo accounts and mails on the watch; prints one id each");
  demo->add_option("DIR", demo_dir, "Folder with demo.json");
  demo->callback([&] { exit_code = command_demo(demo_dir); });

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    int code = app.exit(error);
    return code == 0 ? 0 : 2;
  }
  return exit_code;
}
