-- What is told of new mail: which mails have been looked at (state notified_mail, the highest id), what stands, and
-- since when the watch knows an account.

CREATE TABLE notification (
  mail_id INTEGER PRIMARY KEY,
  step INTEGER NOT NULL DEFAULT 0,    -- 0 waits to be told, 1 handed over and not answered, 2 stands
  number INTEGER NOT NULL DEFAULT 0,  -- the notification server's id; 0: none yet
  counted INTEGER NOT NULL DEFAULT 0, -- one of those that the counting notification stands for
  locked INTEGER NOT NULL DEFAULT 0,  -- it was told as a locked mail
  server TEXT NOT NULL DEFAULT ''     -- whose id number is: the bus and the server's name on it
);

CREATE TABLE account_sync (
  account_id INTEGER PRIMARY KEY REFERENCES account(account_id) ON DELETE CASCADE,
  added INTEGER NOT NULL,             -- when the account came, seconds since the epoch
  last INTEGER NOT NULL               -- when the last mail of its first sync came
);

-- What is there already is no news.
INSERT OR REPLACE INTO state (key, value) SELECT 'notified_mail', ifnull(max(mail_id), 0) FROM mail;
