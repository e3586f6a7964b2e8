-- What the phone remembers: mails that it sent, requests that came, mailboxes that it follows, replies on their way.

CREATE TABLE mail (
  row INTEGER PRIMARY KEY AUTOINCREMENT,
  mail_id INTEGER UNIQUE,
  account_id INTEGER NOT NULL,
  message_uid TEXT NOT NULL,
  first INTEGER NOT NULL,
  body TEXT,
  source TEXT NOT NULL DEFAULT '',
  message_id TEXT NOT NULL DEFAULT '',
  refs TEXT NOT NULL DEFAULT '',
  reply_to TEXT NOT NULL DEFAULT ''
);
CREATE INDEX mail_uid ON mail (message_uid);
CREATE TABLE request (
  row INTEGER PRIMARY KEY AUTOINCREMENT,
  id INTEGER NOT NULL,
  peer TEXT NOT NULL,
  json TEXT NOT NULL,
  time INTEGER NOT NULL,
  acknowledged INTEGER NOT NULL DEFAULT 0
);
CREATE INDEX request_id ON request (id);
CREATE TABLE relay_account (
  name TEXT PRIMARY KEY,
  account_id INTEGER NOT NULL,
  address TEXT NOT NULL DEFAULT '',
  display_name TEXT NOT NULL DEFAULT ''
);
CREATE TABLE relay_mail (
  account TEXT NOT NULL,
  identity TEXT NOT NULL,
  file TEXT NOT NULL,
  size INTEGER NOT NULL,
  time INTEGER NOT NULL,
  row INTEGER NOT NULL DEFAULT 0,
  mail_id INTEGER NOT NULL DEFAULT 0,
  state INTEGER NOT NULL DEFAULT 0,
  seen INTEGER NOT NULL DEFAULT 0,
  want_seen INTEGER NOT NULL DEFAULT 0,
  PRIMARY KEY (account, file)
) WITHOUT ROWID;
CREATE INDEX relay_mail_id ON relay_mail (mail_id);
CREATE INDEX relay_identity ON relay_mail (account, identity);
CREATE TABLE outbox (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  account_id INTEGER NOT NULL,
  created INTEGER NOT NULL,
  recipient TEXT NOT NULL,
  subject TEXT NOT NULL,
  message BLOB NOT NULL,
  state INTEGER NOT NULL DEFAULT 0,
  attempts INTEGER NOT NULL DEFAULT 0,
  interrupted INTEGER NOT NULL DEFAULT 0,
  next_time INTEGER NOT NULL DEFAULT 0,
  done_time INTEGER NOT NULL DEFAULT 0,
  error TEXT NOT NULL DEFAULT ''
);
CREATE TABLE relay_status (
  key TEXT PRIMARY KEY,
  value TEXT NOT NULL
) WITHOUT ROWID;
