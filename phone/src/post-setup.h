/* The commands for accounts on servers: `setup` and `account test|remove`. */
#ifndef BRISEL_PHONE_POST_SETUP_H
#define BRISEL_PHONE_POST_SETUP_H

#include "post-account.h"

struct setup_options {
  post_account account; /* what was given; the rest is found or asked */
  std::string config;   /* the relay's configuration file */
  bool auth_given = false, secret_file = false;
  bool start = true; /* the relay's unit, where there is one */
};

/* Each returns the exit code. */
int command_setup(setup_options options);
/* An empty name: all of them. */
int command_account_test(const std::string &config, const std::string &name);
int command_account_forget(const std::string &config, const std::string &name);
/* One line each, behind those of the watch. */
int command_account_servers(const std::string &config);

#endif
