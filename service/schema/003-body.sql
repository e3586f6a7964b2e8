-- Bodies apart from what a list shows: a list reads none of them, and its rows lie close together.

ALTER TABLE mail RENAME TO old_mail;
DROP INDEX mail_order;
DROP INDEX mail_account;
DROP INDEX mail_new;

CREATE TABLE mail (
  mail_id INTEGER PRIMARY KEY AUTOINCREMENT,
  host_state INTEGER NOT NULL DEFAULT 0,
  received_time INTEGER NOT NULL,     -- seconds since the epoch
  attachment_count INTEGER NOT NULL DEFAULT 0,
  has_image INTEGER NOT NULL DEFAULT 0,
  is_new INTEGER NOT NULL DEFAULT 1,
  account_id INTEGER NOT NULL REFERENCES account(account_id),
  security_locked INTEGER NOT NULL DEFAULT 0,
  is_read INTEGER NOT NULL DEFAULT 0,
  host_tag TEXT,
  subject TEXT,
  from_address TEXT,
  from_name TEXT,
  message_uid TEXT,
  contacts TEXT                       -- one line per number: its type, a blank, the number
);
INSERT INTO mail SELECT mail_id, host_state, received_time, attachment_count, has_image, is_new, account_id,
  security_locked, is_read, host_tag, subject, from_address, from_name, message_uid, contacts FROM old_mail;
-- Ids are never used twice, those of mails that went before this step neither.
DELETE FROM sqlite_sequence WHERE name = 'mail';
INSERT INTO sqlite_sequence (name, seq) SELECT 'mail', seq FROM sqlite_sequence WHERE name = 'old_mail';

CREATE TABLE body (
  mail_id INTEGER PRIMARY KEY REFERENCES mail(mail_id) ON DELETE CASCADE,
  text TEXT NOT NULL
);
INSERT INTO body (mail_id, text) SELECT mail_id, body FROM old_mail WHERE body IS NOT NULL;
DROP TABLE old_mail;

-- All that must be known of a mail before its row is drawn: the order of a list is read from these alone.
CREATE INDEX mail_order ON mail (received_time DESC, mail_id, security_locked);
CREATE INDEX mail_account ON mail (account_id, received_time DESC, mail_id, security_locked);
CREATE INDEX mail_new ON mail (mail_id) WHERE is_new <> 0;
