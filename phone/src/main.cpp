/* brisel-phone: the phone of the watch. The command line; each command is in commands.cpp or relay.cpp. */
#include <signal.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <clocale>
#include <cstring>

#include "commands.h"
#include "parser.h"
#include "post-account.h"
#include "post-cli.h"
#include "post-setup.h"
#include "relay.h"

namespace {

/* One line, like every other error of this program. */
std::string failure_line(const CLI::App *app, const CLI::Error &error) {
  std::string text = error.what();
  std::vector<std::string> unknown = app->remaining(true);
  if (error.get_name() == "RequiredError" && !unknown.empty())
    text = (unknown.front()[0] == '-' ? "no such option: " : "no such command: ") + unknown.front();
  for (char &c : text)
    if (c == '\n') c = ' ';
  return "brisel-phone: " + text + " (see " + app->get_name() + " --help)\n";
}

/* --version counts after any command. */
void set_version(CLI::App *app) {
  app->set_version_flag("--version", "brisel-phone " BRISEL_VERSION);
  for (CLI::App *command : app->get_subcommands({})) set_version(command);
}

/* What was asked for must have reached its reader: a full disk behind standard output is a failure like any other. */
int output_checked(int code) {
  if (fflush(stdout) == 0 && !ferror(stdout)) return code;
  /* A reader that has seen enough is no trouble to tell of. */
  if (errno != EPIPE) fprintf(stderr, "brisel-phone: standard output cannot be written: %s\n", strerror(errno));
  return code ? code : 1;
}

}  // namespace

int main(int argc, char **argv) {
  setlocale(LC_ALL, "");
  signal(SIGPIPE, SIG_IGN);
  int exit_code = 0;

  CLI::App app{"The phone of the watch: relays mail to it and answers what it asks.", "brisel-phone"};
  app.failure_message(failure_line);
  app.require_subcommand(1);
  /* The bounds are told when they are broken, not in every line of the help. */
  const CLI::Validator id_range = CLI::Range(1, INT32_MAX).description("");
  const CLI::Validator count_range = CLI::Range(int64_t{0}, int64_t{1} << 40).description("");
  const char *as_json = "As JSON";

  CLI::App *account = app.add_subcommand("account", "Accounts of the watch")->require_subcommand(1);
  std::string address, name, color;
  int id = 0;
  CLI::App *account_add = account->add_subcommand("add", "Add an account, or change it; prints its id");
  account_add->add_option("ADDRESS", address, "The e-mail address")->required();
  account_add->add_option("--name", name, "The display name");
  account_add->add_option("--color", color, "The colour, RRGGBBAA");
  account_add->add_option("--id", id, "The id; one that exists is changed")->check(id_range);
  account_add->callback([&] { exit_code = command_account_add(address, name, color, id); });
  CLI::App *account_remove = account->add_subcommand("remove", "Remove an account and its mails");
  std::string which;
  account_remove->add_option("ID", which, "The account's id on the watch, or the name of one on a server")->required();
  account_remove->callback([&] {
    bool number = which.find_first_not_of("0123456789") == std::string::npos && which.size() < 10;
    exit_code =
        number ? command_account_remove(atoi(which.c_str())) : command_account_forget(post_config_file(), which);
  });
  bool json = false;
  CLI::App *account_list = account->add_subcommand("list", "List the accounts: id, address, name, colour");
  account_list->add_flag("--json", json, as_json);
  account_list->callback([&] {
    exit_code = command_account_list(json);
    if (exit_code == 0 && !json) exit_code = command_account_servers(post_config_file());
  });
  post_add_commands(&app, account, &exit_code);
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
  mail_send->add_option("--account", options.account_id, "The account's id")->required()->check(id_range);
  mail_send->add_flag("--locked", options.locked, "The account's policy forbids showing it on the watch");
  mail_send->add_option("--first", first, "Relay only so many bytes of the body at first")->check(count_range);
  mail_send->add_option("--received", received,
                        "Seconds since the epoch, ISO 8601, as in a mail, or now (default: the mail's date)");
  mail_send->add_flag("--read", read, "It has been read");
  mail_send->add_flag("--not-new", not_new, "It has been seen on the watch");
  mail_send->callback([&] {
    if (!received.empty() && parse_time(received, &options.received) < 0) {
      fprintf(stderr, "brisel-phone: '%s' is no time: seconds since the epoch, ISO 8601, as in a mail, or now\n",
              received.c_str());
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
  mail_update->add_option("ID", id, "The mail's id")->required()->check(id_range);
  CLI::Option *read_flag = mail_update->add_flag("--read", read, "It has been read");
  mail_update->add_flag("--unread", unread, "It has not been read")->excludes(read_flag);
  CLI::Option *new_flag = mail_update->add_flag("--new", fresh, "It has not been seen on the watch");
  mail_update->add_flag("--not-new", not_new, "It has been seen on the watch")->excludes(new_flag);
  CLI::Option *subject = mail_update->add_option("--subject", change.subject, "The new subject");
  mail_update->callback([&] {
    change.is_read = read ? 1 : unread ? 0 : -1;
    change.is_new = fresh ? 1 : not_new ? 0 : -1;
    change.has_subject = subject->count() > 0;
    exit_code = command_mail_update(id, change);
  });
  std::vector<int> ids;
  CLI::App *mail_delete = mail->add_subcommand("delete", "Delete mails from the watch");
  mail_delete->add_option("ID", ids, "The mails' ids")->required()->check(id_range);
  mail_delete->callback([&] { exit_code = command_mail_delete(ids); });
  CLI::App *mail_list = mail->add_subcommand("list", "List the mails of the watch");
  mail_list->add_flag("--json", json, "Every stored field");
  mail_list->callback([&] { exit_code = command_mail_list(json); });

  CLI::App *templates = app.add_subcommand("template", "Reply templates of the watch")->require_subcommand(1);
  std::vector<std::string> texts;
  CLI::App *template_set = templates->add_subcommand("set", "Replace all templates");
  template_set->add_option("TEXT", texts, "The templates in their order; none: no templates");
  template_set->callback([&] { exit_code = command_template_set(texts); });
  CLI::App *template_list = templates->add_subcommand("list", "List the templates");
  template_list->add_flag("--json", json, as_json);
  template_list->callback([&] { exit_code = command_template_list(json); });

  CLI::App *status = app.add_subcommand("status", "What the watch is told of the phone")->require_subcommand(1);
  int value = 0;
  for (const char *kind : {"reply", "conn"}) {
    CLI::App *one = status->add_subcommand(
        kind, kind[0] == 'r' ? "0: replies work, 1: the phone needs an update, 2 or more: no replies"
                             : "0: the phone can be reached now");
    one->add_option("N", value, "The status")->required();
    one->callback([&, kind] { exit_code = command_status(kind, value); });
  }

  CLI::App *serve = app.add_subcommand("serve", "Stay connected as the phone; prints each request as one JSON line");
  serve->callback([&] { exit_code = command_serve(); });
  CLI::App *requests = app.add_subcommand("requests", "List the requests received so far");
  requests->add_flag("--json", json, as_json);
  requests->callback([&] { exit_code = command_requests(json); });

  std::string demo_dir = BRISEL_DEMO_DIR;
  CLI::App *demo = app.add_subcommand("demo", "Put the demo accounts and mails on the watch; prints one id each");
  demo->add_option("DIR", demo_dir, "Folder with demo.json");
  demo->callback([&] { exit_code = command_demo(demo_dir); });

  CLI::App *relay = app.add_subcommand("relay", "Follow mailboxes: keep the watch's mails equal to their newest ones");
  relay->require_subcommand(0, 1);
  std::vector<std::string> maildirs, mboxes, addresses;
  std::string config, sendmail;
  int64_t newest = -1, retry_first = -1, retry_longest = -1;
  relay->add_option("--maildir", maildirs, "NAME=DIR: a Maildir; NAME may be the account's address");
  relay->add_option("--mbox", mboxes, "NAME=FILE: an mbox file, which is only read");
  relay->add_option("--address", addresses, "NAME=ADDRESS: the account's address, for replies");
  relay->add_option("--config", config, "A file with the same settings and more (see the manual page)");
  relay->add_option("--newest", newest, "How many mails of each account the watch has (200)")->check(count_range);
  relay->add_option("--first", first, "How many bytes of each body are relayed at first (2048)")->check(count_range);
  relay->add_option("--sendmail", sendmail, "The command that takes replies (/usr/sbin/sendmail -t -i)");
  relay->add_option("--retry-first", retry_first, "Seconds until a reply is tried again (60), doubled each time")
      ->check(count_range);
  relay->add_option("--retry-longest", retry_longest, "The longest such time (3600)")->check(count_range);
  CLI::App *relay_status = relay->add_subcommand("status", "What the relay does, and the replies");
  relay_status->add_flag("--json", json, as_json);
  relay_status->callback([&] { exit_code = relay_print_status(json); });
  relay->add_subcommand("retry", "Try the waiting replies now")->callback([&] { exit_code = relay_retry(); });
  int64_t reply = 0;
  CLI::App *relay_drop_command = relay->add_subcommand("drop", "Forget a reply that was not sent");
  relay_drop_command->add_option("ID", reply, "The reply's id")->required();
  relay_drop_command->callback([&] { exit_code = relay_drop(reply); });
  auto outbox_options = [&](outbox_settings *settings) {
    if (!sendmail.empty()) settings->sendmail = sendmail;
    if (retry_first >= 0) settings->retry_first = retry_first;
    if (retry_longest >= 0) settings->retry_longest = retry_longest;
  };
  relay->callback([&] {
    if (!relay->get_subcommands().empty()) return;
    relay_settings settings;
    std::string error;
    bool good = config.empty() || relay_read_config(config, &settings, &error) == 0;
    for (const std::string &text : maildirs)
      good = good && relay_add_account(text, &maildir_kind, &settings, &error) == 0;
    for (const std::string &text : mboxes) good = good && relay_add_account(text, &mbox_kind, &settings, &error) == 0;
    for (const std::string &text : addresses) good = good && relay_set_address(text, &settings, &error) == 0;
    if (!good) {
      fprintf(stderr, "brisel-phone: %s\n", error.c_str());
      exit_code = 1;
      return;
    }
    if (newest >= 0) settings.newest = newest;
    if (first >= 0) settings.first = first;
    outbox_options(&settings.outbox);
    exit_code = relay_run(settings);
  });

  /* Reads foreign mail for the others; started by them. */
  app.add_subcommand("read-mail")->group("")->callback([&] { exit_code = parser_serve(); });

  /* The relay's own helper, started by it for each reply. */
  CLI::App *deliver = app.add_subcommand("deliver-reply")->group("");
  deliver->add_option("ID", reply)->required();
  deliver->add_option("--sendmail", sendmail);
  deliver->add_option("--retry-first", retry_first);
  deliver->add_option("--retry-longest", retry_longest);
  deliver->callback([&] {
    outbox_settings settings;
    outbox_options(&settings);
    exit_code = outbox_deliver(reply, settings);
  });

  set_version(&app);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    int code = app.exit(error);
    return output_checked(code == 0 ? 0 : 2);
  }
  return output_checked(exit_code);
}
