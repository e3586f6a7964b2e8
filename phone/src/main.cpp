/* brisel-phone: the phone of the watch. The command line; each command is in commands.cpp, relay-*.cpp or post-*.cpp.
 */
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <charconv>
#include <clocale>
#include <cstring>

#include "../mime.h"
#include "carrier.h"
#include "commands.h"
#include "pair.h"
#include "parser.h"
#include "platform-output.h"
#include "post-account.h"
#include "post-cli.h"
#include "post-setup.h"
#include "relay.h"
#include "watch-each.h"
#include "watch.h"

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
  app->set_version_flag("-V,--version", "brisel-phone " BRISEL_VERSION);
  for (CLI::App *command : app->get_subcommands({})) set_version(command);
}

/* Every command that talks to a watch, or shows what is known of one, may be told which. */
void add_watch_option(CLI::App *command, std::string *watch) {
  for (CLI::App *one : command->get_subcommands({})) add_watch_option(one, watch);
  if (command->get_subcommands({}).empty() || command->get_name() == "relay")
    command->add_option("--watch", *watch, "The watch: the name of a paired one, or an address");
}

/* What the command line says; each option belongs to the commands that name it. */
struct command_line {
  int exit_code = 0;
  bool no_mirrors = false, json = false, read = false, unread = false, fresh = false, not_new = false;
  std::string address, name, color, which, known, received, demo_dir = BRISEL_DEMO_DIR;
  std::string accounts_file = post_config_file(), config, sendmail, show, phone_name, watch, state, device, purpose,
              host, type, key;
  std::vector<std::string> arguments; /* all of them */
  int64_t ping_after = -1, patience = -1, again_after = -1;
  std::vector<std::string> files, texts, maildirs, mboxes, addresses;
  std::vector<int> ids;
  int id = 0, status = 0;
  int64_t first = -1, newest = -1, retry_first = -1, retry_longest = -1, reply = 0;
  send_options options;
  mail_change change;
};

constexpr char as_json[] = "As JSON", accounts_file[] = "The relay's configuration file";

/* The bounds are told when they are broken, not in every line of the help. */
CLI::Validator id_range() {
  return CLI::Range(1, INT32_MAX).description("");
}
CLI::Validator count_range() {
  return CLI::Range(int64_t{0}, relay_number_max).description("");
}

CLI::Validator status_range() {
  return CLI::Range(0, INT32_MAX).description("");
}

int fail(const std::string &text) {
  fprintf(stderr, "brisel-phone: %s\n", text.c_str());
  return 1;
}
/* The command line can never be done, whatever there is on the watch. */
int fail_wrong(const std::string &text) {
  fail(text);
  return wrong_command_line;
}

/* Checks of a value: empty, or what is wrong with it. */
std::string check_address(const std::string &text) {
  return text.empty() || mime_clean_line(text, SIZE_MAX) != text ? "the address is empty or no plain text" : "";
}
std::string check_color(const std::string &text) {
  uint32_t rgba = 0;
  return parse_color(text, &rgba) < 0 ? "'" + text + "' is no colour: eight hexadecimal digits RRGGBBAA" : "";
}
std::string check_time(const std::string &text) {
  int64_t seconds = 0;
  return parse_time(text, &seconds) < 0
             ? "'" + text + "' is no time: seconds since the epoch, ISO 8601, as in a mail, or now"
             : "";
}
std::string check_watch(const std::string &text) {
  carrier_address address;
  std::string error;
  carrier_parse(text, &address, &error);
  return error;
}
std::string check_not_empty(const std::string &text) {
  return text.empty() ? "it is empty" : "";
}

void add_account_commands(CLI::App *app, command_line *c) {
  CLI::App *account = app->add_subcommand("account", "Accounts of the watch")->require_subcommand(1);
  CLI::App *add = account->add_subcommand("add", "Add an account, or change it; prints its id");
  add->add_option("ADDRESS", c->address, "The e-mail address")->required()->check(check_address);
  add->add_option("--name", c->name, "The display name");
  add->add_option("--color", c->color, "The colour, RRGGBBAA")->check(check_color);
  add->add_option("--id", c->id, "The id; one that exists is changed")->check(id_range());
  add->callback([c] { c->exit_code = command_account_add(c->address, c->name, c->color, c->id); });
  CLI::App *remove = account->add_subcommand("remove", "Remove an account and its mails");
  remove->add_option("ID", c->which, "The account's id on the watch, or the name of one on a server")
      ->required()
      ->check(check_not_empty);
  remove->add_option("--config", c->accounts_file, accounts_file);
  remove->callback([c] {
    int id = 0;
    const char *end = c->which.c_str() + c->which.size();
    const auto [digits_end, broken] = std::from_chars(c->which.c_str(), end, id);
    c->exit_code = digits_end == end && broken == std::errc() && id >= 0
                       ? command_account_remove(id)
                       : command_account_forget(c->accounts_file, c->which);
  });
  CLI::App *list = account->add_subcommand("list", "List the accounts: id, address, name, colour");
  list->add_flag("--json", c->json, as_json);
  list->add_option("--config", c->accounts_file, accounts_file);
  list->callback([c] {
    c->exit_code = command_account_list(c->json);
    int servers = c->json ? 0 : command_account_servers(c->accounts_file); /* also when there is no watch to ask */
    if (c->exit_code == 0) c->exit_code = servers;
  });
  post_add_commands(app, account, &c->exit_code);
  CLI::App *count = account->add_subcommand("count", "Say whether the number of accounts is known");
  count->add_option("STATE", c->known, "known or unknown")->required()->check(CLI::IsMember({"known", "unknown"}));
  count->callback([c] { c->exit_code = command_account_count(c->known == "known"); });
}

int run_mail_send(command_line *c) {
  if (!c->received.empty()) parse_time(c->received, &c->options.received);
  c->options.first = c->first;
  c->options.is_read = c->read ? 1 : -1;
  c->options.is_new = !c->not_new;
  return command_mail_send(c->files, c->options);
}

void add_mail_send(CLI::App *mail, command_line *c) {
  CLI::App *send = mail->add_subcommand("send", "Relay mails (files, mbox files, Maildirs); prints one id each");
  send->add_option("FILE", c->files, "Mail file, mbox file or Maildir folder")->required();
  send->add_option("--account", c->options.account_id, "The account's id")->required()->check(id_range());
  send->add_flag("--locked", c->options.locked, "The account's policy forbids showing it on the watch");
  send->add_option("--first", c->first, "Relay only so many bytes of the body at first")->check(count_range());
  send->add_option("--received", c->received,
                   "Seconds since the epoch, ISO 8601, as in a mail, or now (default: the mail's date)")
      ->check(check_time);
  send->add_flag("--read", c->read, "It has been read");
  send->add_flag("--not-new", c->not_new, "It has been seen on the watch");
  send->callback([c] { c->exit_code = run_mail_send(c); });
}

void add_mail_commands(CLI::App *app, command_line *c) {
  CLI::App *mail = app->add_subcommand("mail", "Mails on the watch")->require_subcommand(1);
  add_mail_send(mail, c);
  CLI::App *update = mail->add_subcommand("update", "Change a mail on the watch");
  update->add_option("ID", c->id, "The mail's id")->required()->check(id_range());
  CLI::Option *read_flag = update->add_flag("--read", c->read, "It has been read");
  update->add_flag("--unread", c->unread, "It has not been read")->excludes(read_flag);
  CLI::Option *new_flag = update->add_flag("--new", c->fresh, "It has not been seen on the watch");
  update->add_flag("--not-new", c->not_new, "It has been seen on the watch")->excludes(new_flag);
  CLI::Option *subject = update->add_option("--subject", c->change.subject, "The new subject");
  update->callback([c, subject] {
    c->change.is_read = c->read ? 1 : c->unread ? 0 : -1;
    c->change.is_new = c->fresh ? 1 : c->not_new ? 0 : -1;
    c->change.has_subject = subject->count() > 0;
    c->exit_code = command_mail_update(c->id, c->change);
  });
  CLI::App *remove = mail->add_subcommand("delete", "Delete mails from the watch");
  remove->add_option("ID", c->ids, "The mails' ids")->required()->check(id_range());
  remove->callback([c] { c->exit_code = command_mail_delete(c->ids); });
  CLI::App *list = mail->add_subcommand("list", "List the mails of the watch");
  list->add_flag("--json", c->json, "Every stored field");
  list->callback([c] { c->exit_code = command_mail_list(c->json); });
}

void add_template_and_status_commands(CLI::App *app, command_line *c) {
  CLI::App *templates = app->add_subcommand("template", "Reply templates of the watch")->require_subcommand(1);
  CLI::App *set = templates->add_subcommand("set", "Replace all templates");
  set->add_option("TEXT", c->texts, "The templates in their order; none: no templates");
  set->callback([c] { c->exit_code = command_template_set(c->texts); });
  CLI::App *list = templates->add_subcommand("list", "List the templates");
  list->add_flag("--json", c->json, as_json);
  list->callback([c] { c->exit_code = command_template_list(c->json); });

  CLI::App *status = app->add_subcommand("status", "What the watch is told of the phone")->require_subcommand(1);
  for (const char *kind : {"reply", "conn"}) {
    CLI::App *one = status->add_subcommand(
        kind, kind[0] == 'r' ? "0: replies work, 1: the phone needs an update, 2 or more: no replies"
                             : "0: the phone can be reached now");
    one->add_option("N", c->status, "The status")->required()->check(status_range());
    one->callback([c, kind] { c->exit_code = command_status(kind, c->status); });
  }
}

/* How the link is kept, and who is linked. */
int use_pace(const command_line &c, const std::string &configured_name) {
  link_pace pace;
  if (c.ping_after >= 0) pace.ping_after = static_cast<unsigned>(c.ping_after);
  if (c.patience > 0) pace.ping_answer = pace.call_answer = static_cast<unsigned>(c.patience);
  if (c.again_after > 0) pace.again_after = static_cast<unsigned>(c.again_after);
  watch_set_pace(pace);
  std::string error;
  return watch_set_phone_name(c.phone_name.empty() ? configured_name : c.phone_name, &error) < 0 ? fail_wrong(error)
                                                                                                 : 0;
}

void add_pace_options(CLI::App *command, command_line *c) {
  command
      ->add_option("--ping-after", c->ping_after, "Seconds without a word after which the watch is asked for one (30)")
      ->check(CLI::Range(0, 3600).description(""));
  command->add_option("--patience", c->patience, "Seconds until a watch that does not answer is given up (15)")
      ->check(CLI::Range(1, 3600).description(""));
  command->add_option("--again-after", c->again_after, "Seconds between two tries to reach it, at most (30)")
      ->check(CLI::Range(1, 3600).description(""));
  command->add_option("--phone-name", c->phone_name, "What this phone is called on the watch (the machine's name)");
}

void add_phone_commands(CLI::App *app, command_line *c) {
  CLI::App *serve = app->add_subcommand("serve", "Stay connected as the phone; prints each request as one JSON line");
  add_pace_options(serve, c);
  serve->callback([c] {
    c->exit_code = use_pace(*c, "");
    if (c->exit_code == 0)
      c->exit_code = watch_all().size() > 1 ? watch_run_each(watch_all(), c->arguments, nullptr) : command_serve();
  });
  CLI::App *requests = app->add_subcommand("requests", "List the requests received so far");
  requests->add_flag("--json", c->json, as_json);
  requests->callback([c] { c->exit_code = command_requests(c->json); });
  CLI::App *demo = app->add_subcommand("demo", "Put the demo accounts and mails on the watch; prints one id each");
  demo->add_option("DIR", c->demo_dir, "Folder with demo.json");
  demo->callback([c] { c->exit_code = command_demo(c->demo_dir); });
}

outbox_settings outbox_options(const command_line &c, outbox_settings settings) {
  if (!c.sendmail.empty()) settings.sendmail = c.sendmail;
  if (c.retry_first >= 0) settings.retry_first = c.retry_first;
  if (c.retry_longest >= 0) settings.retry_longest = c.retry_longest;
  return settings;
}

int run_relay(command_line *c) {
  relay_settings settings;
  std::string error;
  bool named = !c->config.empty() || !c->maildirs.empty() || !c->mboxes.empty();
  if (!named && access(post_config_file().c_str(), F_OK) == 0) c->config = post_config_file();
  bool good = c->config.empty() || relay_read_config(c->config, &settings, &error) == 0;
  if (!good) return fail(error);
  for (const std::string &text : c->maildirs)
    good = good && relay_add_account(text, &maildir_kind, &settings, &error) == 0;
  for (const std::string &text : c->mboxes) good = good && relay_add_account(text, &mbox_kind, &settings, &error) == 0;
  for (const std::string &text : c->addresses) good = good && relay_set_address(text, &settings, &error) == 0;
  if (!good) return fail_wrong(error);
  if (int code = use_pace(*c, settings.phone_name)) return code;
  if (c->newest >= 0) settings.newest = c->newest;
  if (c->first >= 0) settings.first = c->first;
  if (!c->show.empty()) settings.show = c->show;
  settings.outbox = outbox_options(*c, settings.outbox);
  settings.mirrors = !c->no_mirrors;
  return watch_all().size() > 1 ? relay_run_each(settings, watch_all(), c->arguments) : relay_run(settings);
}

/* With several watches, of each. */
int print_relay_status(command_line *c) {
  if (c->json || watch_all().size() < 2) return relay_print_status(c->json);
  std::string error;
  const std::vector<std::string> names = watch_all();
  for (const std::string &name : names) {
    printf("%s%s:\n", name == names.front() ? "" : "\n", name.c_str());
    if (watch_choose(name, &error) < 0) return fail(error);
    if (int code = relay_print_status(false)) return code;
  }
  return 0;
}

void add_pair_commands(CLI::App *app, command_line *c) {
  CLI::App *pair = app->add_subcommand("pair", "Make this the phone of a watch on another machine");
  pair->add_option("ADDRESS", c->address, "ssh://[USER@]HOST[:PORT] or bluetooth:AA:BB:CC:DD:EE:FF")
      ->required()
      ->check(check_watch);
  pair->add_option("--name", c->name, "What to call the watch (the host's name)");
  pair->callback([c] { c->exit_code = command_pair(c->address, c->name); });
  CLI::App *watches = app->add_subcommand("watches", "List the paired watches: name, address, link, what waits");
  watches->add_flag("--json", c->json, as_json);
  watches->callback([c] { c->exit_code = command_watches(c->json); });
  CLI::App *unpair = app->add_subcommand("unpair", "Take a pairing back, on the watch too");
  unpair->add_option("NAME", c->name, "The watch's name")->required();
  unpair->callback([c] { c->exit_code = command_unpair(c->name); });

  /* Started by ssh while it pairs. */
  CLI::App *note = app->add_subcommand("note-host-key")->group("");
  note->add_option("FILE", c->config)->required();
  note->add_option("PURPOSE", c->purpose)->required();
  note->add_option("HOST", c->host)->required();
  note->add_option("TYPE", c->type)->required();
  note->add_option("KEY", c->key)->required();
  note->callback([c] { c->exit_code = pair_note_host_key(c->config, c->purpose, c->host, c->type, c->key); });
}

void add_relay_commands(CLI::App *app, command_line *c) {
  CLI::App *relay = app->add_subcommand("relay", "Follow mailboxes: keep the watch's mails equal to their newest ones");
  relay->require_subcommand(0, 1);
  relay->add_option("--maildir", c->maildirs, "NAME=DIR: a Maildir; NAME may be the account's address");
  relay->add_option("--mbox", c->mboxes, "NAME=FILE: an mbox file, which is only read");
  relay->add_option("--address", c->addresses, "NAME=ADDRESS: the account's address, for replies");
  relay->add_option("--config", c->config, "A file with the same settings and more (see the manual page)");
  relay->add_option("--newest", c->newest, "How many mails of each account the watch has (200)")->check(count_range());
  relay->add_option("--first", c->first, "How many bytes of each body are relayed at first (2048)")
      ->check(count_range());
  relay->add_option("--sendmail", c->sendmail, "The command that takes replies (/usr/sbin/sendmail -t -i)");
  relay->add_option("--show", c->show, "The command that shows a mail which the watch hands over (none)");
  relay->add_option("--retry-first", c->retry_first, "Seconds until a reply is tried again (60), doubled each time")
      ->check(count_range());
  relay->add_option("--retry-longest", c->retry_longest, "The longest such time (3600)")->check(count_range());
  add_pace_options(relay, c);
  relay->add_flag("--no-mirrors", c->no_mirrors)->group(""); /* another process has them */
  relay->callback([c, relay] {
    if (relay->get_subcommands().empty()) c->exit_code = run_relay(c);
  });
  CLI::App *status = relay->add_subcommand("status", "What the relay does, and the replies");
  status->add_flag("--json", c->json, as_json);
  status->callback([c] { c->exit_code = print_relay_status(c); });
  relay->add_subcommand("retry", "Try the waiting replies now")->callback([c] { c->exit_code = relay_retry(); });
  CLI::App *drop = relay->add_subcommand("drop", "Forget a reply that was not sent");
  drop->add_option("ID", c->reply, "The reply's id")
      ->required()
      ->check(CLI::Range(int64_t{1}, INT64_MAX).description(""));
  drop->callback([c] { c->exit_code = relay_drop(c->reply); });

  /* The program that carries a Bluetooth link; started with a stream. */
  CLI::App *carry = app->add_subcommand("carry-bluetooth")->group("");
  carry->add_option("DEVICE", c->device)->required();
  carry->callback([c] { c->exit_code = carrier_serve_bluetooth(c->device); });

  /* The relay's own helper, started by it for each reply. */
  CLI::App *deliver = app->add_subcommand("deliver-reply")->group("");
  deliver->add_option("ID", c->reply)->required();
  deliver->add_option("--sendmail", c->sendmail);
  deliver->add_option("--retry-first", c->retry_first);
  deliver->add_option("--retry-longest", c->retry_longest);
  deliver->add_option("--state", c->state);
  deliver->callback([c] {
    phone_state_refuse(""); /* whichever watch it is of, its state was named */
    phone_state_use(c->state);
    c->exit_code = outbox_deliver(c->reply, outbox_options(*c, {}));
  });
}

}  // namespace

int main(int argc, char **argv) {
  setlocale(LC_ALL, "");
  signal(SIGPIPE, SIG_IGN);
  umask(077); /* whatever is written here is mail, or about it */
  /* Reads foreign mail for the others; started by them, and of no other use: its start is a part of theirs. */
  if (argc == 2 && strcmp(argv[1], "read-mail") == 0) return parser_serve();
  command_line line;
  line.arguments.assign(argv, argv + argc);
  CLI::App app{"The phone of the watch: relays mail to it and answers what it asks.", "brisel-phone"};
  app.failure_message(failure_line);
  app.require_subcommand(1);
  add_account_commands(&app, &line);
  add_mail_commands(&app, &line);
  add_template_and_status_commands(&app, &line);
  add_phone_commands(&app, &line);
  for (const char *name : {"account", "mail", "template", "status", "serve", "requests", "demo"})
    add_watch_option(app.get_subcommand(name), &line.watch);
  add_relay_commands(&app, &line);
  add_watch_option(app.get_subcommand("relay"), &line.watch);
  add_pair_commands(&app, &line);
  set_version(&app);
  app.parse_complete_callback([&line] {
    std::string error;
    if (watch_choose(line.watch, &error) < 0) throw CLI::ValidationError("--watch", error);
  });
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    int code = app.exit(error);
    return platform_output_end("brisel-phone", code == 0 ? 0 : wrong_command_line);
  }
  return platform_output_end("brisel-phone", line.exit_code);
}
