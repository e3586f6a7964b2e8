-- The messages that were fresh last, by their own name and their sender's: one that is moved comes as another mail.
CREATE TABLE fresh_message (
  message TEXT PRIMARY KEY,
  mail_id INTEGER NOT NULL
) WITHOUT ROWID;
