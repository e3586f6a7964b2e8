/* The command line of accounts on servers. */
#ifndef BRISEL_PHONE_POST_CLI_H
#define BRISEL_PHONE_POST_CLI_H

#include <CLI/CLI.hpp>

/* Adds `setup` and the relay's helpers to the program and `test` to its accounts; the exit code goes to *exit_code.
   Both must outlive the parsing. */
void post_add_commands(CLI::App *app, CLI::App *account, int *exit_code);

#endif
