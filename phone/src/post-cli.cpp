/* The command line of accounts on servers: what is given, put into records. Called by main(). */
#include "post-cli.h"

#include <memory>

#include "post-mirror.h"
#include "post-setup.h"
#include "post-smtp.h"
#include "post-stream.h"

namespace {

struct given {
  setup_options setup;
  post_mirror_order mirror;
  std::string config = post_config_file(), name, auth;
  unsigned patience = stream_step_s;
  bool no_start = false;
};

void add_setup(CLI::App *app, const std::shared_ptr<given> &g, int *exit_code) {
  CLI::App *setup =
      app->add_subcommand("setup", "Bring the mail of an address to the watch: finds its servers and tries them");
  post_account *account = &g->setup.account;
  setup->add_option("ADDRESS", account->address, "The e-mail address (asked for without it)");
  setup->add_option("--imap", account->imap, "Incoming mail: HOST, imaps://HOST[:PORT], or imap:// for STARTTLS");
  setup->add_option("--smtp", account->smtp, "Outgoing mail: HOST, smtps://HOST[:PORT], or smtp:// for STARTTLS");
  setup->add_option("--user", account->user, "What the servers call the user (the address)");
  setup->add_option("--name", account->name, "What the account is called here (the address)");
  setup->add_option("--password-command", account->password_command, "A command that prints the password or token");
  setup->add_option("--auth", g->auth, "password, or xoauth2 or oauthbearer with a token")
      ->check(CLI::IsMember({"password", "xoauth2", "oauthbearer"}));
  setup->add_option("--folder", account->folders, "A folder to follow (INBOX); may be given several times")
      ->check([](const std::string &name) {
        return name.find(';') == std::string::npos && !name.empty() ? "" : "a folder's name without ; is wanted";
      });
  setup->add_option("--sent", account->sent, "The folder for copies of what is sent (found)");
  setup->add_flag("--delete-on-server", account->delete_on_server,
                  "What is deleted on the watch goes to the server's trash too");
  setup->add_option("--ca", account->ca, "A file of certificates to trust besides the system's")
      ->check(CLI::ExistingFile);
  setup->add_flag("--plain", account->plain, "Without encryption, to a server on this machine only");
  setup->add_flag("--secret-file", g->setup.secret_file, "Keep the password in a file that only you can read")
      ->excludes("--password-command");
  setup->add_flag("--no-start", g->no_start, "Do not start the relay");
  setup->add_option("--config", g->config, "The relay's configuration file");
  setup->callback([g, exit_code] {
    std::string ignored;
    if (!g->auth.empty()) post_account_set(&g->setup.account, "auth", g->auth, &ignored);
    g->setup.auth_given = !g->auth.empty();
    g->setup.config = g->config;
    g->setup.start = !g->no_start;
    *exit_code = command_setup(g->setup);
  });
}

}  // namespace

void post_add_commands(CLI::App *app, CLI::App *account, int *exit_code) {
  auto g = std::make_shared<given>();
  add_setup(app, g, exit_code);
  CLI::App *test = account->add_subcommand("test", "Try the servers of an account, or of all, in both directions");
  test->add_option("NAME", g->name, "The account's name or address");
  test->add_option("--config", g->config, "The relay's configuration file");
  test->callback([g, exit_code] { *exit_code = command_account_test(g->config, g->name); });

  CLI::App *submit =
      app->add_subcommand("submit", "Send a message as sendmail does, by the account of its sender")->group("");
  submit->add_option("--config", g->config);
  submit->allow_extras();
  submit->callback([g, exit_code] { *exit_code = smtp_submit(g->config); });

  CLI::App *follow = app->add_subcommand("follow-imap")->group("");
  follow->add_option("--config", g->mirror.config)->required();
  follow->add_option("--account", g->mirror.account)->required();
  follow->add_option("--folder", g->mirror.folder)->required();
  follow->add_option("--newest", g->mirror.newest);
  follow->add_option("--patience", g->patience);
  follow->callback([g, exit_code] {
    stream_bound(g->patience);
    *exit_code = post_mirror_run(g->mirror.config, g->mirror.account, g->mirror.folder,
                                 static_cast<uint32_t>(std::clamp<int64_t>(g->mirror.newest, 1, 100000)));
  });
}
