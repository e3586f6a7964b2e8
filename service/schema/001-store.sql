-- What the watch shows: accounts, mails, templates, states, and the numbered changes that clients follow.

-- Ids are never used twice: a late event or a late request of the phone must not hit another mail.
CREATE TABLE account (
  account_id INTEGER PRIMARY KEY AUTOINCREMENT,
  account_value INTEGER NOT NULL DEFAULT 0,
  email_address TEXT NOT NULL,
  display_name TEXT,
  color INTEGER NOT NULL              -- 0xRRGGBBAA
);

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
  contacts TEXT,                      -- one line per number: its type, a blank, the number
  body TEXT                           -- last: a long body spills to pages that nothing behind it must walk over
);
CREATE INDEX mail_order ON mail (received_time DESC, mail_id);
CREATE INDEX mail_account ON mail (account_id, received_time DESC, mail_id);
CREATE INDEX mail_new ON mail (mail_id) WHERE is_new <> 0;

CREATE TABLE template (
  position INTEGER PRIMARY KEY,
  template_id INTEGER NOT NULL,
  text TEXT NOT NULL                  -- a message id of the domain "message" for the presets
);
INSERT INTO template (position, template_id, text) VALUES
  (1, 1, 'IDS_MSG_TEMPLATE_1'), (2, 2, 'IDS_MSG_TEMPLATE_2'), (3, 3, 'IDS_MSG_TEMPLATE_3'),
  (4, 4, 'IDS_MSG_TEMPLATE_4'), (5, 5, 'IDS_MSG_TEMPLATE_5'), (6, 6, 'IDS_MSG_TEMPLATE_6'),
  (7, 7, 'IDS_MSG_TEMPLATE_7'), (8, 8, 'IDS_MSG_TEMPLATE_8'), (9, 9, 'IDS_MSG_TEMPLATE_9'),
  (10, 10, 'IDS_MSG_TEMPLATE_10'), (11, 11, 'IDS_MSG_TEMPLATE_11'), (12, 12, 'IDS_MSG_TEMPLATE_12');

-- One row per event, in the order in which clients must hear of them. ids: decimal, separated by commas.
CREATE TABLE changes (
  seq INTEGER PRIMARY KEY AUTOINCREMENT,
  type INTEGER NOT NULL,              -- the event types of brisel-common.h
  ids TEXT NOT NULL
);

-- account_count_known, reply_status, conn_status, phone_connected; a missing key: never set.
CREATE TABLE state (
  key TEXT PRIMARY KEY,
  value INTEGER NOT NULL
) WITHOUT ROWID;
